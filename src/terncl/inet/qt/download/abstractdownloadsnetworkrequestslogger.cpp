#include "abstractdownloadsnetworkrequestslogger.h"

#include "abstractdownload.h"

#include <terncl/core/qtappdefaultlogger.h>
#include <terncl/core/qtqobjectstracker.h>
#include <terncl/data/qt/filedataasyncwriter.h>
#include <terncl/fs/qt/utils/filenamerules.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QUrl>

namespace {

const auto resourceUrlTitle = QStringLiteral("======= RESOURCE URL =======");
const auto requestHeadersTitle = QStringLiteral("======= REQUEST HEADERS =======");
const auto responseHeadersTitle = QStringLiteral("======= RESPONSE HEADERS =======");
const auto bodyTitle = QStringLiteral("======= BODY =======");
const auto errorTitle = QStringLiteral("======= ERROR =======");
const auto savedInFilePrefix = QStringLiteral("Saved in the file: ");
const auto fileNamePrefix = QStringLiteral("R_");
const auto fileExtension = QStringLiteral("log");

// The writer's open flags and fill byte: no extra open flags, and 'P' (never used, as log
// files are not preallocated).
constexpr int writerOpenModeFlags = 0;
constexpr char writerFillByte = 80;

// Most file systems limit a name to 255 bytes.
constexpr qsizetype maxFileNameBytes = 255;

void write(FileDataAsyncWriter* writer, const QString& text) {
    writer->processData(text.toUtf8());
}

// The name of the download in its log file name: its own name, its first file's name, its
// title, or failing all of them its address.
QString downloadName(const AbstractDownloadPersistentInfo& info) {
    if (!info.name.isEmpty())
        return info.name;
    if (!info.files.isEmpty() && !info.files.first().name.isEmpty())
        return info.files.first().name;
    if (!info.title.isEmpty())
        return info.title;
    return info.resourceUrl;
}

// The file the body went to: the one the download names, or its first file.
QString savedFilePath(const AbstractDownloadPersistentInfo& info) {
    if (!info.savedFilePath.isEmpty())
        return info.savedFilePath;
    if (info.files.isEmpty() || info.files.first().name.isEmpty())
        return {};
    return QDir(info.destinationPath).filePath(info.files.first().name);
}

// Cuts text at its end to at most maxBytes bytes of UTF-8, never inside a character.
QString cutToUtf8Bytes(const QString& text, qsizetype maxBytes) {
    qsizetype bytes = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = text.at(i).unicode();
        const bool pair =
            QChar::isHighSurrogate(c) && i + 1 < text.size() && text.at(i + 1).isLowSurrogate();
        const qsizetype size = pair ? 4 : c < 0x80 ? 1 : c < 0x800 ? 2 : 3;
        if (bytes + size > maxBytes)
            return text.left(i);
        bytes += size;
        i += pair ? 1 : 0;
    }
    return text;
}

void logWarning(const QString& reason) {
    terncl::logLine(QtAppLogger::Warning, QtAppLogger::Files,
                    QStringLiteral("[AbstractDownloadsNetworkRequestsLogger]: WARNING: no "
                                   "request log is written: ") +
                        reason);
}

} // namespace

AbstractDownloadsNetworkRequestsLogger::AbstractDownloadsNetworkRequestsLogger(
    const QString& folder, bool removeExisting, QThread* thread, QObject* parent)
    : QObject(parent)
    , m_workerThread(thread) {
    const QDir dir(folder);
    if (!dir.mkpath(QStringLiteral("."))) {
        warnOnce(tr("cannot create the folder \"%1\"").arg(QDir::toNativeSeparators(folder)));
        return;
    }
    m_folder = dir.canonicalPath();
    if (m_folder.endsWith(QLatin1Char('/')))
        m_folder.chop(1);
    if (removeExisting && !removeExistingLogFiles())
        terncl::logLine(QtAppLogger::Warning, QtAppLogger::Files,
                        QStringLiteral("[AbstractDownloadsNetworkRequestsLogger]: WARNING: old "
                                       "request logs could not all be removed from \"%1\"")
                            .arg(QDir::toNativeSeparators(m_folder)));
}

AbstractDownloadsNetworkRequestsLogger::~AbstractDownloadsNetworkRequestsLogger() {
    for (auto& record : m_downloads)
        closeDownloadLog(record);
}

void AbstractDownloadsNetworkRequestsLogger::registerDownload(const AbstractDownload* download) {
    if (!download || m_downloads.contains(download))
        return;
    m_downloads.insert(download, DownloadRecord{QDateTime::currentDateTime()});
    connect(download, &AbstractDownload::running, this,
            &AbstractDownloadsNetworkRequestsLogger::onDownloadRunning);
    connect(download, &AbstractDownload::sendingRequestHeaders, this,
            &AbstractDownloadsNetworkRequestsLogger::onDownloadSendingRequestHeaders);
    connect(download, &AbstractDownload::gotResponseHeaders, this,
            &AbstractDownloadsNetworkRequestsLogger::onDownloadGotResponseHeaders);
    connect(download, &QObject::destroyed, this,
            &AbstractDownloadsNetworkRequestsLogger::onDownloadDestroyed);
}

void AbstractDownloadsNetworkRequestsLogger::onDownloadRunning(bool running) {
    const auto* download = qobject_cast<const AbstractDownload*>(sender());
    const auto record = m_downloads.find(download);
    if (!download || record == m_downloads.end())
        return;
    if (running && !record->writer)
        startRun(download, *record);
    else if (!running && record->writer)
        endRun(download, *record);
}

void AbstractDownloadsNetworkRequestsLogger::onDownloadSendingRequestHeaders(
    qint64 requestId, const QStringList& headers) {
    logHeaders(runningRecordOfSender(), requestId, headers, false);
}

void AbstractDownloadsNetworkRequestsLogger::onDownloadGotResponseHeaders(
    qint64 requestId, const QStringList& headers) {
    logHeaders(runningRecordOfSender(), requestId, headers, true);
}

void AbstractDownloadsNetworkRequestsLogger::onDownloadDestroyed(QObject* object) {
    closeDownloadLogAndUnregister(object);
}

void AbstractDownloadsNetworkRequestsLogger::startRun(const AbstractDownload* download,
                                                      DownloadRecord& record) {
    if (m_folder.isEmpty())
        return;
    auto* writer = new FileDataAsyncWriter(writerOpenModeFlags, writerFillByte);
    if (const auto tracker = QtQObjectsTracker::instance())
        tracker->registerObject(writer, "FileDataAsyncWriter");
    if (m_workerThread)
        writer->moveToThread(m_workerThread);
    record.writer = writer;
    write(writer, resourceUrlTitle + endline() +
                      QString::fromLatin1(QUrl(download->info().resourceUrl).toEncoded()) +
                      endline());
}

void AbstractDownloadsNetworkRequestsLogger::endRun(const AbstractDownload* download,
                                                    DownloadRecord& record) {
    makeSureLogFileOpened(download);
    const auto& info = download->info();
    if (info.isFinished()) {
        const QString path = savedFilePath(info);
        const QString content = path.isEmpty() ? info.receivedBody : savedInFilePrefix + path;
        write(record.writer, endline() + bodyTitle + endline() + content + endline());
    } else {
        write(record.writer,
              endline() + errorTitle + endline() + download->lastError().toText() + endline());
    }
    closeDownloadLog(record);
}

void AbstractDownloadsNetworkRequestsLogger::logHeaders(DownloadRecord* record, qint64 requestId,
                                                        const QStringList& headers, bool response) {
    // Only the first request of a run is logged (with repeats of the same request id), and
    // nothing after its response: a redirect's next request stays out.
    if (!record || record->responseLogged)
        return;
    if (!record->requestLogged)
        record->requestId = requestId;
    else if (requestId != record->requestId)
        return;
    (response ? record->responseLogged : record->requestLogged) = true;
    record->writer->processData((response ? responseHeadersTitle : requestHeadersTitle).toUtf8() +
                                endline().toUtf8() + headers.join(endline()).toLatin1() +
                                endline().toUtf8());
}

void AbstractDownloadsNetworkRequestsLogger::makeSureLogFileOpened(
    const AbstractDownload* download) {
    const auto record = m_downloads.find(download);
    if (record == m_downloads.end() || !record->writer || record->fileOpened)
        return;
    record->fileOpened = true;
    ++m_fileCounter;
    const QString path = m_folder + QLatin1Char('/') + logFileName(download, *record);
    reportFailureOnce(record->writer, path);
    // What the run wrote so far waits in the writer and lands at the start of the file.
    record->writer->open(path, 0);
}

QString AbstractDownloadsNetworkRequestsLogger::logFileName(const AbstractDownload* download,
                                                            const DownloadRecord& record) const {
    const auto sanitized = [](const QString& text) {
        return FileNameRules::sanitizedFileName(text, false, QString());
    };
    const QString head = fileNamePrefix + sanitized(record.registrationTime.toString(Qt::ISODate)) +
                         QLatin1Char('_') + QString::number(m_fileCounter) + QLatin1Char('_');
    const QString tail = QLatin1Char('.') + fileExtension;
    // A long name (an address with a long query) is cut so that the file can be made at all.
    const qsizetype nameBytes = maxFileNameBytes - head.toUtf8().size() - tail.toUtf8().size();
    return head + cutToUtf8Bytes(sanitized(downloadName(download->info())), nameBytes) + tail;
}

void AbstractDownloadsNetworkRequestsLogger::closeDownloadLog(DownloadRecord& record) {
    if (record.writer) {
        record.writer->close();
        record.writer->deleteLater();
    }
    const QDateTime registrationTime = record.registrationTime;
    record = DownloadRecord{registrationTime};
}

void AbstractDownloadsNetworkRequestsLogger::closeDownloadLogAndUnregister(
    const QObject* download) {
    const auto record = m_downloads.find(download);
    if (record == m_downloads.end())
        return;
    closeDownloadLog(*record);
    m_downloads.erase(record);
}

bool AbstractDownloadsNetworkRequestsLogger::removeExistingLogFiles() {
    bool allRemoved = true;
    QDirIterator files(m_folder, {fileNamePrefix + QStringLiteral("*.") + fileExtension},
                       QDir::Files | QDir::Hidden | QDir::System);
    while (files.hasNext())
        allRemoved = QFile::remove(files.next()) && allRemoved;
    return allRemoved;
}

AbstractDownloadsNetworkRequestsLogger::DownloadRecord*
AbstractDownloadsNetworkRequestsLogger::runningRecordOfSender() {
    const auto record = m_downloads.find(sender());
    return record == m_downloads.end() || !record->writer ? nullptr : &*record;
}

void AbstractDownloadsNetworkRequestsLogger::reportFailureOnce(FileDataAsyncWriter* writer,
                                                               const QString& path) {
    // Runs on the worker thread while the writer reports, and shares nothing with the logger but
    // the flag, so that it is safe even once the logger is gone.
    connect(
        writer, &AbstractDataAsyncProcessor::failed, writer,
        [writer, path, warned = m_warned] {
            if (!warned->exchange(true))
                logWarning(tr("cannot write \"%1\": %2")
                               .arg(QDir::toNativeSeparators(path),
                                    QString::fromStdString(writer->lastError().description)));
        },
        Qt::DirectConnection);
}

void AbstractDownloadsNetworkRequestsLogger::warnOnce(const QString& reason) {
    if (!m_warned->exchange(true))
        logWarning(reason);
}

const QString& AbstractDownloadsNetworkRequestsLogger::endline() {
    static const QString line = QStringLiteral("\r\n");
    return line;
}
