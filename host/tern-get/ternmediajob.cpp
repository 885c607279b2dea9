#include "ternmediajob.h"

#include "formatspec.h"
#include "formatstable.h"
#include "hostchilddownloadsmanager.h"
#include "hostdownloadsfactory.h"
#include "hostmediadownload.h"
#include "mp4language.h"
#include "outputguard.h"
#include "progressprinter.h"

#include <terncl/inet/qt/download/abstractdownloadfileops.h>
#include <terncl/inet/qt/download/abstractdownloadsspeedmeter.h>
#include <terncl/inet/qt/download/abstractdownloadtask.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>

#include <cstdio>

namespace {
const QString kKind = QStringLiteral("kind");
const QString kMediaKind = QStringLiteral("media");
const QString kOutput = QStringLiteral("output"); // the locked result's path, without -o
// The result is made under a hidden name beside the output and renamed over it once complete.
const QString kStagedPrefix = QStringLiteral(".tern-get-");

QString errorText(const AbstractError& error) {
    const QString description = QString::fromStdString(error.description);
    if (error.category == AbstractError::HttpError)
        return QStringLiteral("HTTP error %1: %2").arg(error.code).arg(description);
    return description.isEmpty() ? error.toText() : description;
}

QString idsText(const FormatSpec::Versions& versions) {
    QStringList ids;
    for (const auto& version : versions)
        ids.append(MediaVersions::id(version));
    return ids.join(QStringLiteral(", "));
}
} // namespace

TernMediaJob::TernMediaJob(const TernGetJob::Options& options, const Services& services,
                           QObject* parent)
    : QObject(parent)
    , m_options(options)
    , m_services(services)
    , m_store(options.stateDir)
    , m_out(stdout) {
    m_saveTimer.setSingleShot(true);
    m_saveTimer.setInterval(500);
    connect(&m_saveTimer, &QTimer::timeout, this, &TernMediaJob::save);
    m_progressTimer.setInterval(m_services.printer->intervalMs());
    connect(&m_progressTimer, &QTimer::timeout, this, &TernMediaJob::showProgress);
}

TernMediaJob::~TernMediaJob() {
    if (m_download)
        m_download->disconnect(this);
}

void TernMediaJob::start() {
    QString error;
    if (!m_options.format.isEmpty() && !FormatSpec::isValid(m_options.format, &error)) {
        fail(QStringLiteral("-f %1: %2").arg(m_options.format, error), 2);
        return;
    }
    std::optional<RecordStore::Entry> saved;
    if (!m_options.listFormats) {
        saved = m_store.load(m_services.key, &error);
        if (saved && saved->host.value(kKind).toString() != kMediaKind)
            saved.reset();
    }
    // With -o the caller holds the output's lock already.
    m_mayWriteState = !m_options.output.isEmpty() || m_options.listFormats;
    if (saved && !m_mayWriteState) {
        const QString output = saved->host.value(kOutput).toString();
        if (output.isEmpty()) {
            m_mayWriteState = true; // state of an older run, which kept no output
        } else if (!takeOutput(output, &error)) {
            fail(error);
            return;
        }
    }
    setUp(saved);
    if (saved)
        m_services.printer->note(QStringLiteral("resuming from saved state"));
    m_progressTimer.start();
    m_download->doCommand(m_options.listFormats ? AbstractDownloadCommand::QueryInfo
                                                : AbstractDownloadCommand::Start);
    // A record finished before it was killed (merged, not yet renamed to the output) does not
    // start again: it only needs its end.
    if (!m_download->isRunning() && !m_finished)
        onEnded();
}

AbstractDownloadPersistentInfo TernMediaJob::newRecord() const {
    AbstractDownloadPersistentInfo record;
    record.uuid = QUuid::createUuid();
    record.resourceUrl = m_options.url.toString(QUrl::FullyEncoded);
    record.creationTime = QDateTime::currentDateTime();
    if (m_options.output.isEmpty()) {
        record.destinationPath = QDir::currentPath();
    } else {
        const QFileInfo output(m_options.output);
        record.destinationPath = output.absolutePath();
        record.name = kStagedPrefix + output.fileName();
    }
    return record;
}

// The children's records live in a folder of their own beside the job's, their files beside
// the result.
void TernMediaJob::setUp(const std::optional<RecordStore::Entry>& saved) {
    const MediaChildren::Context context = m_services.factory->mediaContext();
    const AbstractDownloadPersistentInfo record = saved ? saved->record : newRecord();
    const QString hash = QString::fromLatin1(
        QCryptographicHash::hash(m_services.key.toUtf8(), QCryptographicHash::Sha1).toHex());
    m_manager.reset(new HostChildDownloadsManager(
        context, QDir(m_options.stateDir).filePath(QStringLiteral("media-") + hash),
        record.destinationPath));
    m_download.reset(
        new HostMediaDownload(1, m_services.factory, m_services.merger, m_services.network),
        &QObject::deleteLater);
    m_download->setInfo(record);
    AbstractDownloadSettings settings;
    settings.existingFileReaction = AbstractDownloadExistingFileReaction::Overwrite;
    m_download->setSettings(settings);
    m_download->setWritersThread(m_services.writersThread);
    m_download->setChildDownloadsManager(m_manager);
    if (!m_options.mergeFormat.isEmpty())
        m_download->setOption(AbstractMediaDownload::MergeFormatOption, m_options.mergeFormat);
    NetworkUsageSettings usage;
    usage.downloadSpeedLimit = m_options.limitRate;
    m_download->setNetworkUsageSettings(usage);
    if (m_options.output.isEmpty() && !m_options.listFormats) {
        m_download->setOutputGate(
            [this](const QString& path, QString* error) { return takeOutput(path, error); });
    }
    if (!m_options.format.isEmpty()) {
        const QString wanted = m_options.format;
        m_download->setVersionChooser([wanted](const FormatSpec::Versions& versions) {
            return FormatSpec::choose(versions, wanted);
        });
    }
    connect(m_download.data(), &AbstractNetworkConsumerWithExtraTasks::running, this,
            &TernMediaJob::onRunning);
    connect(m_download.data(), &AbstractDownload::changed, this, &TernMediaJob::onChanged);
}

bool TernMediaJob::takeOutput(const QString& path, QString* error) {
    if (m_guard.isLocked() && path == m_lockedOutput)
        return true;
    *error = OutputGuard::refusal(path);
    if (!error->isEmpty() || !m_guard.lock(m_options.stateDir, path, error))
        return false;
    m_lockedOutput = path;
    m_mayWriteState = true;
    return true;
}

void TernMediaJob::interrupt() {
    m_interrupted = true;
    if (m_download && m_download->isRunning()) {
        m_download->doCommand(AbstractDownloadCommand::Stop);
        return;
    }
    if (m_download && !m_options.listFormats)
        save();
    finish(130);
}

void TernMediaJob::onRunning(bool running) {
    if (!running && !m_finished)
        onEnded();
}

void TernMediaJob::onChanged(bool critical) {
    if (m_options.listFormats)
        return;
    if (critical)
        save();
    else if (!m_saveTimer.isActive())
        m_saveTimer.start();
}

void TernMediaJob::onEnded() {
    if (m_options.listFormats && !m_interrupted) {
        list();
        return;
    }
    if (!m_options.listFormats)
        save();
    if (m_interrupted) {
        m_services.printer->note(
            QStringLiteral("interrupted; run the same command again to resume"));
        finish(130);
        return;
    }
    const auto& info = m_download->info();
    if (info.isFinished()) {
        const QString path = AbstractDownloadFileOps::currentFilePath(info, 0);
        tagAudioLanguage(path,
                         info.customData.value(HostMediaDownload::AudioLanguageKey).toString());
        moveIntoPlace(path);
        return;
    }
    const AbstractError error = m_download->lastError();
    if (error.category == AbstractError::GenericError &&
        error.code == HostMediaDownload::NoMatchingVersionCode) {
        removeState();
        fail(QStringLiteral("-f %1 matches none of: %2")
                 .arg(m_options.format,
                      idsText(m_download->resourceVersionSelector()->resourceVersions())),
             2);
        return;
    }
    fail(error.isSet() ? errorText(error) : QStringLiteral("the download stopped unfinished"));
}

void TernMediaJob::list() {
    const AbstractError error = m_download->lastError();
    const auto selector = m_download->resourceVersionSelector();
    if (error.isSet() || !selector) {
        fail(error.isSet() ? errorText(error) : QStringLiteral("no resource versions found"));
        return;
    }
    if (!m_options.jsonProgress) {
        m_out << FormatsTable::text(selector->resourceVersions()) << Qt::flush;
    } else {
        for (const auto& version : selector->resourceVersions())
            m_out << QJsonDocument(FormatsTable::json(version)).toJson(QJsonDocument::Compact)
                  << '\n';
        m_out << Qt::flush;
    }
    finish(0);
}

void TernMediaJob::save() {
    if (!m_download || m_finished || m_options.listFormats || !m_mayWriteState)
        return;
    m_saveTimer.stop();
    RecordStore::Entry entry;
    entry.record = m_download->info();
    entry.host.insert(kKind, kMediaKind);
    if (!m_lockedOutput.isEmpty())
        entry.host.insert(kOutput, m_lockedOutput);
    QString text;
    AbstractError error;
    // Children first: a record that names children whose records are missing cannot resume.
    if (!m_manager->saveDownloads(error))
        m_services.printer->error(errorText(error));
    else if (!m_store.save(m_services.key, entry, &text))
        m_services.printer->error(text);
}

// A merge copies the audio as its segments have it, which may be without the language that the
// playlist gives it. A file left without one is still a good result: a failure only warns.
void TernMediaJob::tagAudioLanguage(const QString& path, const QString& language) {
    QString error;
    if (!language.isEmpty() && path.endsWith(QStringLiteral(".mp4"), Qt::CaseInsensitive) &&
        !Mp4Language::tagUndeterminedAudio(path, language, &error))
        m_services.printer->error(QStringLiteral("warning: the audio language was not set: ") +
                                  error);
}

// A staged result replaces the output by one rename, so what was there stays whole until then.
void TernMediaJob::moveIntoPlace(const QString& path) {
    const QFileInfo result(path);
    QString target = path;
    if (result.fileName().startsWith(kStagedPrefix)) {
        target = result.dir().filePath(result.fileName().mid(kStagedPrefix.size()));
        QString error;
        if (!OutputGuard::replace(path, target, &error)) {
            fail(error);
            return;
        }
    }
    removeState();
    m_outputPath = target;
    finish(0);
}

void TernMediaJob::removeState() {
    m_saveTimer.stop();
    if (!m_mayWriteState)
        return;
    m_store.remove(m_services.key);
    m_manager->removeRecords();
}

void TernMediaJob::showProgress() {
    if (!m_download || !m_download->isRunning())
        return;
    ProgressPrinter::Snapshot snapshot;
    snapshot.state = ProgressPrinter::stateOf(m_download->currentTasks(), m_interrupted, false);
    const auto progress = m_download->tasksProgress();
    if (progress.contains(AbstractDownloadTask::Downloading)) {
        const auto [done, total] = progress.value(AbstractDownloadTask::Downloading);
        snapshot.done = done;
        snapshot.total = total > 0 ? total : -1;
        snapshot.fraction = total > 0 ? double(done) / double(total) : -1;
    }
    snapshot.speed = m_services.speedMeter->speed();
    if (snapshot.total > 0 && snapshot.speed > 0)
        snapshot.secondsLeft = qMax<qint64>(snapshot.total - snapshot.done, 0) / snapshot.speed;
    m_services.printer->progress(snapshot, false);
}

void TernMediaJob::fail(const QString& text, int exitCode) {
    m_errorText = text;
    m_services.printer->error(text);
    finish(exitCode);
}

void TernMediaJob::finish(int exitCode) {
    if (m_finished)
        return;
    m_finished = true;
    m_progressTimer.stop();
    m_saveTimer.stop();
    Q_EMIT finished(exitCode);
}
