#pragma once

#include <terncl/data/qt/abstractdataasyncprocessor.h>
#include <terncl/ternclshared_export.h>

#include <QFile>
#include <QMutex>

#include <atomic>
#include <string>

// Writes a download's bytes into one file at the offsets the download chooses, on the thread
// the writer lives on (the downloads' writers thread). Every write is flushed at once. It can
// also preallocate the file to its final size before the data arrives: the space is claimed in
// chunks that start at 128 KiB and double while a chunk takes at most 50 ms, each chunk a queued
// step of its own so that writes posted meanwhile are served between two chunks.
//
// A failure stores the error (category "QtFileError", or "GenericError" when the file reports
// none), emits failed() and closes the writer; data handed in afterwards is dropped until
// clearLastError() or the next open().
class TERNCL_EXPORT FileDataAsyncWriter : public AbstractDataAsyncProcessor {
    Q_OBJECT

public:
    static constexpr qint64 initialChunkSize = 128 * 1024;
    static constexpr char defaultFillByte = 'P';

    // openModeFlags are QIODevice::OpenMode bits added to every open (QIODevice::ReadWrite
    // keeps the data already in the file unless they include QIODevice::Truncate); fillByte is
    // written at the end of each preallocated chunk.
    explicit FileDataAsyncWriter(int openModeFlags = 0, char fillByte = defaultFillByte,
                                 QObject* parent = nullptr);
    ~FileDataAsyncWriter() override;

    AbstractError lastError() const override;
    QDateTime lastErrorTime() const override;
    void clearLastError() override;
    bool isOpen() const override;
    QByteArray processedData() const override;

public Q_SLOTS:
    // Opens (creating missing folders unless existingOnly), seeks to offset, writes the pending
    // data there and starts a scheduled preallocation. Does nothing when already open.
    void open(const QString& name, qint64 offset, bool existingOnly = false) override;
    // Moves the write position; the pending data is dropped when it succeeds.
    void seek(qint64 offset) override;
    // Closes the file and stops preallocation; the pending data is kept.
    void close() override;
    void processData(const QByteArray& data) override;
    // The size to preallocate the file to at the next open(); a larger file is cut down to it.
    void schedulePreallocateOnOpen(qint64 size);
    void emitAllDataIsProcessed() override;
    void wipePendingDataOut() override;

Q_SIGNALS:
    void preallocatingProgress(qint64 currentSize);
    // Preallocation to size is complete, also when nothing had to be done.
    void preallocateFinished(qint64 size);

private Q_SLOTS:
    void preallocateNextChunk();

private:
    bool isWritersThread() const;
    bool writeAll(const QByteArray& data);
    void startPreallocation();
    void resetPreallocation();
    void postNextChunk();
    AbstractError preallocationChunk(qint64 chunkEnd);
    AbstractError fileError(const std::string& place, int point) const;
    void fail(const std::string& place, int point);
    void fail(const AbstractError& error);
    void setLastError(const AbstractError& error);
    bool hasError() const;

    const int m_openModeFlags;
    const char m_fillByte;
    std::atomic_bool m_open{false};
    mutable QMutex m_errorMutex;
    AbstractError m_lastError;
    QDateTime m_lastErrorTime;
    QFile m_file;
    QByteArray m_pendingData;

    qint64 m_preallocationTarget = 0;
    qint64 m_preallocatedUpTo = 0;
    qint64 m_chunkSize = initialChunkSize;
    bool m_chunkGrowing = true;
    // Tells a queued chunk step from an earlier preallocation that was stopped meanwhile.
    quint64 m_preallocationGeneration = 0;
    // Set once the file system refused to reserve space; the fill byte alone is used then.
    bool m_spaceReservationUnsupported = false;
};
