#pragma once

#include <terncl/data/qt/abstractdataasyncprocessor.h>
#include <terncl/ternclshared_export.h>

#include <atomic>

// Writes a download's bytes into a byte array that the caller owns, for data kept in memory
// rather than saved. It never fails. Unlike every other writer slot, processData() runs on the
// calling thread: a caller writing from another thread keeps its writes in order itself and
// leaves the target alone meanwhile. The other slots are posted to the writer's thread.
class TERNCL_EXPORT MemoryDataAsyncWriter : public AbstractDataAsyncProcessor {
    Q_OBJECT

public:
    // target must outlive the writer.
    explicit MemoryDataAsyncWriter(QByteArray* target, QObject* parent = nullptr);
    ~MemoryDataAsyncWriter() override;

    AbstractError lastError() const override;
    QDateTime lastErrorTime() const override;
    void clearLastError() override;
    bool isOpen() const override;
    QByteArray processedData() const override;

public Q_SLOTS:
    // The name and existingOnly are ignored; writing starts at offset of the target.
    void open(const QString&, qint64 offset, bool existingOnly = false) override;
    // Restarts writing at offset, open or not, and drops the pending data.
    void seek(qint64 offset) override;
    // Unlike the file writer, drops the pending data.
    void close() override;
    // Overwrites or extends the target at the write position; a gap before it is left as the
    // target's resize leaves it.
    void processData(const QByteArray& data) override;
    void emitAllDataIsProcessed() override;
    void wipePendingDataOut() override;

private:
    bool isWritersThread() const;

    QByteArray* const m_target;
    QByteArray m_pendingData;
    std::atomic_bool m_open{false};
    qint64 m_baseOffset = 0;
    qint64 m_written = 0;
};
