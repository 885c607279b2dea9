#pragma once

#include <QElapsedTimer>
#include <QtGlobal>

// Rations bytes to a rate. Tokens accrue at the rate up to a twentieth of a second's worth, so a
// reader never bursts by more than that, and a short pause (the gap between two segments of a
// stream) is made up for instead of lost. Downloads that run one after another share one bucket
// so that the rate holds across them. Main thread.
class TokenBucket {
public:
    void setRate(qint64 bytesPerSecond);
    qint64 rate() const { return m_rate; }
    // Bytes that may be read now, at most wanted; they are taken from the bucket.
    qint64 take(qint64 wanted);
    // Bytes a reader may hold in its buffer without bursting past the bucket.
    qint64 capacity() const;

private:
    void refill();

    qint64 m_rate = 0;
    double m_tokens = 0;
    QElapsedTimer m_clock;
};
