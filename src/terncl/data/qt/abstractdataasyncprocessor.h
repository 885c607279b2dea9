#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/ternclshared_export.h>

#include <QByteArray>
#include <QDateTime>
#include <QObject>
#include <QString>

// The sink into which a download hands the bytes it receives. The processor lives on a thread of
// its own choosing (its QObject thread); every slot may be called from any thread and re-posts
// itself there, so a caller never blocks on disk work and the calls of one caller are carried
// out in the order they were made. Data handed in before the sink is open is kept as pending
// data and written when it opens. lastError(), lastErrorTime(), clearLastError() and isOpen()
// are safe from any thread.
class TERNCL_EXPORT AbstractDataAsyncProcessor : public QObject {
    Q_OBJECT

public:
    explicit AbstractDataAsyncProcessor(QObject* parent = nullptr);
    ~AbstractDataAsyncProcessor() override;

    // The last failure; code 0 means none. Its time is when it was set or cleared.
    virtual AbstractError lastError() const = 0;
    virtual QDateTime lastErrorTime() const = 0;
    virtual void clearLastError() = 0;
    virtual bool isOpen() const = 0;
    // The data held in memory: what was handed in while the sink was not open.
    virtual QByteArray processedData() const = 0;

public Q_SLOTS:
    // Opens the sink and places the write position at offset.
    virtual void open(const QString&, qint64 offset, bool existingOnly = false) = 0;
    virtual void seek(qint64 offset) = 0;
    virtual void close() = 0;
    // Appends data at the current write position.
    virtual void processData(const QByteArray& data) = 0;
    // A marker in the queue of calls: allDataIsProcessed() follows every processData() that
    // was handed in before it.
    virtual void emitAllDataIsProcessed() = 0;
    // Drops the data held in memory that has not reached the sink.
    virtual void wipePendingDataOut() = 0;

Q_SIGNALS:
    void opened();
    void closed();
    // One processData() call has been carried out completely; size bytes reached the sink.
    void dataProcessed(qint64 size);
    void allDataIsProcessed();
    // An operation failed; lastError() tells why. The sink closes itself right after.
    void failed();
};
