#include "memorydataasyncwriter.h"

#include <QThread>

MemoryDataAsyncWriter::MemoryDataAsyncWriter(QByteArray* target, QObject* parent)
    : AbstractDataAsyncProcessor(parent)
    , m_target(target) {}

MemoryDataAsyncWriter::~MemoryDataAsyncWriter() = default;

AbstractError MemoryDataAsyncWriter::lastError() const {
    return {};
}

QDateTime MemoryDataAsyncWriter::lastErrorTime() const {
    return {};
}

void MemoryDataAsyncWriter::clearLastError() {}

bool MemoryDataAsyncWriter::isOpen() const {
    return m_open;
}

QByteArray MemoryDataAsyncWriter::processedData() const {
    return m_pendingData;
}

void MemoryDataAsyncWriter::open(const QString& name, qint64 offset, bool existingOnly) {
    if (!isWritersThread()) {
        QMetaObject::invokeMethod(this, "open", Q_ARG(QString, name), Q_ARG(qint64, offset),
                                  Q_ARG(bool, existingOnly));
        return;
    }
    if (m_open)
        return;
    m_open = true;
    m_baseOffset = offset;
    m_written = 0;
    Q_EMIT opened();
    if (!m_pendingData.isEmpty())
        processData(m_pendingData);
}

void MemoryDataAsyncWriter::seek(qint64 offset) {
    if (!isWritersThread()) {
        QMetaObject::invokeMethod(this, "seek", Q_ARG(qint64, offset));
        return;
    }
    m_pendingData.clear();
    m_baseOffset = offset;
    m_written = 0;
}

void MemoryDataAsyncWriter::close() {
    if (!isWritersThread()) {
        QMetaObject::invokeMethod(this, "close");
        return;
    }
    if (!m_open)
        return;
    m_open = false;
    m_pendingData.clear();
    Q_EMIT closed();
}

void MemoryDataAsyncWriter::processData(const QByteArray& data) {
    if (!m_open) {
        m_pendingData.append(data);
        return;
    }
    const qint64 position = m_baseOffset + m_written;
    // A gap before the write position reads as zeros, never as leftover memory.
    if (m_target->size() < position + data.size())
        m_target->resize(position + data.size(), '\0');
    m_target->replace(position, data.size(), data);
    m_written += data.size();
    Q_EMIT dataProcessed(data.size());
}

void MemoryDataAsyncWriter::emitAllDataIsProcessed() {
    if (!isWritersThread()) {
        QMetaObject::invokeMethod(this, "emitAllDataIsProcessed");
        return;
    }
    Q_EMIT allDataIsProcessed();
}

void MemoryDataAsyncWriter::wipePendingDataOut() {
    if (!isWritersThread()) {
        QMetaObject::invokeMethod(this, "wipePendingDataOut");
        return;
    }
    m_pendingData.clear();
}

bool MemoryDataAsyncWriter::isWritersThread() const {
    return QThread::currentThread() == thread();
}
