#include "tokenbucket.h"

void TokenBucket::setRate(qint64 bytesPerSecond) {
    if (bytesPerSecond == m_rate)
        return;
    refill();
    m_rate = bytesPerSecond;
    m_tokens = qMin(m_tokens, double(capacity()));
}

qint64 TokenBucket::capacity() const {
    return qMax<qint64>(m_rate / 20, 4096);
}

void TokenBucket::refill() {
    if (!m_clock.isValid()) {
        m_clock.start();
        return;
    }
    const qint64 elapsedNs = m_clock.nsecsElapsed();
    m_clock.restart();
    m_tokens = qMin(double(capacity()), m_tokens + double(m_rate) * double(elapsedNs) / 1e9);
}

qint64 TokenBucket::take(qint64 wanted) {
    if (m_rate <= 0)
        return wanted;
    refill();
    const qint64 granted = qMin(wanted, qint64(m_tokens));
    m_tokens -= double(granted);
    return qMax<qint64>(granted, 0);
}
