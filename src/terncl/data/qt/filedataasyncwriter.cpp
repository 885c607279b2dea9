#include "filedataasyncwriter.h"

#include "filespacereservation_p.h"

#include <terncl/core/sourceplace.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QMutexLocker>
#include <QThread>

#include <cerrno>

namespace {

// A chunk step that takes longer than this stops the chunks from growing.
constexpr qint64 fastChunkStepMs = 50;

// The source of a writer error: the place where it was made and the number of the failure
// point, which stays the same when the code around it moves.
std::string pointPlace(const std::string& place, int point) {
    return place + '#' + std::to_string(point);
}

} // namespace

FileDataAsyncWriter::FileDataAsyncWriter(int openModeFlags, char fillByte, QObject* parent)
    : AbstractDataAsyncProcessor(parent)
    , m_openModeFlags(openModeFlags)
    , m_fillByte(fillByte)
    , m_file(this) {}

FileDataAsyncWriter::~FileDataAsyncWriter() = default;

AbstractError FileDataAsyncWriter::lastError() const {
    QMutexLocker locker(&m_errorMutex);
    return m_lastError;
}

QDateTime FileDataAsyncWriter::lastErrorTime() const {
    QMutexLocker locker(&m_errorMutex);
    return m_lastErrorTime;
}

void FileDataAsyncWriter::clearLastError() {
    setLastError(AbstractError());
}

bool FileDataAsyncWriter::isOpen() const {
    return m_open;
}

QByteArray FileDataAsyncWriter::processedData() const {
    return m_pendingData;
}

void FileDataAsyncWriter::open(const QString& name, qint64 offset, bool existingOnly) {
    if (!isWritersThread()) {
        QMetaObject::invokeMethod(this, [=] { open(name, offset, existingOnly); });
        return;
    }
    if (m_file.isOpen())
        return;
    clearLastError();
    m_spaceReservationUnsupported = false;
    m_file.setFileName(name);
    // Unbuffered: every write is flushed at once anyway, and a buffered flush that the disk cuts
    // short reports "Unknown error" where the write itself reports what ran out.
    QIODevice::OpenMode mode =
        QIODevice::ReadWrite | QIODevice::Unbuffered | QIODevice::OpenMode(m_openModeFlags);
    if (existingOnly)
        mode |= QIODevice::ExistingOnly;
    bool isOpened = m_file.open(mode);
    if (!isOpened && !existingOnly) {
        const QDir folder = QFileInfo(name).absoluteDir();
        if (!folder.exists() && folder.mkpath(QStringLiteral(".")))
            isOpened = m_file.open(mode);
    }
    if (!isOpened) {
        fail(TERNCL_SOURCE_PLACE, 61);
        return;
    }
    m_open = true;
    Q_EMIT opened();

    if (offset != 0 && m_file.isOpen() && !m_file.seek(offset)) {
        fail(TERNCL_SOURCE_PLACE, 73);
        return;
    }
    // The pending data stays: only a successful seek or wipePendingDataOut() drops it.
    if (!m_pendingData.isEmpty())
        processData(m_pendingData);
    if (m_preallocationTarget > 0 && m_file.isOpen())
        startPreallocation();
}

void FileDataAsyncWriter::seek(qint64 offset) {
    if (!isWritersThread()) {
        QMetaObject::invokeMethod(this, [=] { seek(offset); });
        return;
    }
    if (!m_file.isOpen())
        return;
    if (!m_file.seek(offset)) {
        fail(TERNCL_SOURCE_PLACE, 95);
        return;
    }
    m_pendingData.clear();
}

void FileDataAsyncWriter::close() {
    if (!isWritersThread()) {
        QMetaObject::invokeMethod(this, [this] { close(); });
        return;
    }
    if (!m_file.isOpen())
        return;
    m_file.close();
    m_open = false;
    resetPreallocation();
    Q_EMIT closed();
}

void FileDataAsyncWriter::processData(const QByteArray& data) {
    if (!isWritersThread()) {
        QMetaObject::invokeMethod(this, [=] { processData(data); });
        return;
    }
    if (data.isEmpty() || hasError())
        return;
    if (!m_file.isOpen()) {
        m_pendingData.append(data);
        return;
    }
    if (!writeAll(data)) {
        fail(TERNCL_SOURCE_PLACE, 140);
        return;
    }
    if (!m_file.flush()) {
        fail(TERNCL_SOURCE_PLACE, 384);
        return;
    }
    Q_EMIT dataProcessed(data.size());
}

void FileDataAsyncWriter::schedulePreallocateOnOpen(qint64 size) {
    if (!isWritersThread()) {
        QMetaObject::invokeMethod(this, [=] { schedulePreallocateOnOpen(size); });
        return;
    }
    m_preallocationTarget = qMax<qint64>(0, size);
}

void FileDataAsyncWriter::emitAllDataIsProcessed() {
    if (!isWritersThread()) {
        QMetaObject::invokeMethod(this, [this] { emitAllDataIsProcessed(); });
        return;
    }
    Q_EMIT allDataIsProcessed();
}

void FileDataAsyncWriter::wipePendingDataOut() {
    if (!isWritersThread()) {
        QMetaObject::invokeMethod(this, [this] { wipePendingDataOut(); });
        return;
    }
    m_pendingData.clear();
}

bool FileDataAsyncWriter::isWritersThread() const {
    return QThread::currentThread() == thread();
}

// A write may be short (a size limit, a full disk): what is left is written again until it is
// all out or the file reports an error.
bool FileDataAsyncWriter::writeAll(const QByteArray& data) {
    qint64 written = 0;
    while (written < data.size()) {
        const qint64 count = m_file.write(data.constData() + written, data.size() - written);
        if (count <= 0)
            return false;
        written += count;
    }
    return true;
}

void FileDataAsyncWriter::startPreallocation() {
    const qint64 target = m_preallocationTarget;
    const qint64 size = m_file.size();
    if (size < target) {
        m_preallocatedUpTo = size - size % m_chunkSize;
        preallocateNextChunk();
        return;
    }
    if (size != target && !m_file.resize(target)) {
        fail(TERNCL_SOURCE_PLACE, 263);
        return;
    }
    m_preallocationTarget = 0;
    Q_EMIT preallocateFinished(target);
}

// One chunk per call, each posted anew, so that writes posted meanwhile run between two chunks.
void FileDataAsyncWriter::preallocateNextChunk() {
    const qint64 target = m_preallocationTarget;
    if (!m_file.isOpen() || target <= 0)
        return;
    const qint64 position = m_file.pos();
    const qint64 size = m_file.size();
    if (position >= target || size >= target) {
        resetPreallocation();
        Q_EMIT preallocateFinished(target);
        return;
    }

    qint64 chunkEnd = m_preallocatedUpTo;
    do {
        chunkEnd += m_chunkSize;
    } while (chunkEnd <= position || chunkEnd <= size);
    if (chunkEnd > target) {
        chunkEnd = target;
        m_chunkGrowing = false;
    }

    QElapsedTimer timer;
    if (m_chunkGrowing)
        timer.start();
    AbstractError error = preallocationChunk(chunkEnd);
    if (m_chunkGrowing) {
        if (timer.elapsed() <= fastChunkStepMs)
            m_chunkSize *= 2;
        else
            m_chunkGrowing = false;
    }
    if (!error && !m_file.seek(position))
        error = fileError(TERNCL_SOURCE_PLACE, 340);
    if (error) {
        fail(error);
        return;
    }

    if (chunkEnd == target) {
        resetPreallocation();
        Q_EMIT preallocateFinished(target);
        return;
    }
    m_preallocatedUpTo = chunkEnd;
    Q_EMIT preallocatingProgress(chunkEnd);
    postNextChunk();
}

// Reserves the blocks of the chunk and writes the fill byte at its last offset. Without the
// reservation most file systems would leave the chunk as a hole behind the fill byte.
AbstractError FileDataAsyncWriter::preallocationChunk(qint64 chunkEnd) {
    if (!m_spaceReservationUnsupported) {
        const terncl::SpaceReservation reservation = terncl::reserveFileSpace(
            m_file.handle(), m_preallocatedUpTo, chunkEnd - m_preallocatedUpTo);
        if (reservation.outcome == terncl::SpaceReservation::Unsupported)
            m_spaceReservationUnsupported = true;
        if (reservation.outcome == terncl::SpaceReservation::Failed) {
            const bool noSpace = reservation.systemError == ENOSPC;
#ifdef EDQUOT
            const bool overQuota = reservation.systemError == EDQUOT;
#else
            const bool overQuota = false;
#endif
            const QFileDevice::FileError code =
                noSpace || overQuota ? QFileDevice::ResourceError : QFileDevice::WriteError;
            return AbstractError(code, AbstractError::QtFileError,
                                 pointPlace(TERNCL_SOURCE_PLACE, 325),
                                 reservation.description.toStdString());
        }
    }
    if (!m_file.seek(chunkEnd - 1) || m_file.write(&m_fillByte, 1) != 1)
        return fileError(TERNCL_SOURCE_PLACE, 325);
    if (!m_file.flush())
        return fileError(TERNCL_SOURCE_PLACE, 384);
    return {};
}

void FileDataAsyncWriter::postNextChunk() {
    const quint64 generation = m_preallocationGeneration;
    QMetaObject::invokeMethod(
        this,
        [this, generation] {
            if (generation == m_preallocationGeneration)
                preallocateNextChunk();
        },
        Qt::QueuedConnection);
}

void FileDataAsyncWriter::resetPreallocation() {
    m_preallocationTarget = 0;
    m_preallocatedUpTo = 0;
    m_chunkSize = initialChunkSize;
    m_chunkGrowing = true;
    ++m_preallocationGeneration;
}

AbstractError FileDataAsyncWriter::fileError(const std::string& place, int point) const {
    if (m_file.error() == QFileDevice::NoError)
        return AbstractError(1, AbstractError::GenericError, pointPlace(TERNCL_SOURCE_PLACE, 187));
    return AbstractError(m_file, pointPlace(place, point));
}

void FileDataAsyncWriter::fail(const std::string& place, int point) {
    fail(fileError(place, point));
}

void FileDataAsyncWriter::fail(const AbstractError& error) {
    setLastError(error);
    Q_EMIT failed();
    close();
}

void FileDataAsyncWriter::setLastError(const AbstractError& error) {
    // Every open clears the error: reading the local time zone there would cost a file check per
    // segment of a stream.
    const QDateTime time = error.isSet() ? QDateTime::currentDateTime() : QDateTime();
    QMutexLocker locker(&m_errorMutex);
    m_lastError = error;
    m_lastErrorTime = time;
}

bool FileDataAsyncWriter::hasError() const {
    QMutexLocker locker(&m_errorMutex);
    return m_lastError.isSet();
}
