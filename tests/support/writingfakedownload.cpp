#include "writingfakedownload.h"

#include <terncl/core/qtqobjectstracker.h>
#include <terncl/data/qt/filedataasyncwriter.h>

#include <QDir>
#include <QTimer>

WritingFakeDownload::WritingFakeDownload(qint64 id, const Plan& plan, QObject* parent)
    : FakeDownload(id, parent)
    , m_plan(plan) {}

WritingFakeDownload::~WritingFakeDownload() {
    releaseWriter();
}

void WritingFakeDownload::onStartCommand() {
    if (isRunning() || info().isFinished())
        return;
    startRunning();
    auto& file = ensureFile(0);
    if (file.name.isEmpty())
        file.name = QStringLiteral("segments.bin");
    qint64 done = file.downloadedBytes();
    if (!m_plan.resumeSupported || done > m_plan.content.size()) {
        file.sections.clear();
        done = 0;
    }
    file.resumeSupport = m_plan.resumeSupported ? AbstractDownloadFileInfo::ResumeSupported
                                                : AbstractDownloadFileInfo::ResumeNotSupported;
    setFileSize(m_plan.content.size());

    auto* writer = new FileDataAsyncWriter();
    if (writersThread())
        writer->moveToThread(writersThread());
    if (const auto tracker = QtQObjectsTracker::instance())
        tracker->registerObject(writer, "FileDataAsyncWriter");
    connect(writer, &AbstractDataAsyncProcessor::dataProcessed, this,
            &WritingFakeDownload::onDataProcessed);
    connect(writer, &AbstractDataAsyncProcessor::failed, this,
            &WritingFakeDownload::onWriterFailed);
    m_writer = writer;
    writer->open(targetPath(), file.writeOffset + done);
    const qint64 limit = outcomeLimit();
    constexpr qint64 chunkSize = 1000;
    for (qint64 offset = done; offset < limit; offset += chunkSize)
        writer->processData(m_plan.content.mid(offset, qMin(chunkSize, limit - offset)));
    if (done >= limit) {
        // Nothing to write: the outcome follows in the next turn, as after a network answer.
        QTimer::singleShot(0, this, [this] {
            if (isRunning() && !isStopping())
                reachOutcome();
        });
    }
}

void WritingFakeDownload::onStopCommand() {
    releaseWriter();
    FakeDownload::onStopCommand();
}

QString WritingFakeDownload::targetPath() const {
    const auto& file = info().files.constFirst();
    if (!file.tmpPath.isEmpty())
        return file.tmpPath;
    return QDir(info().destinationPath).filePath(file.name);
}

qint64 WritingFakeDownload::outcomeLimit() const {
    const qint64 size = m_plan.content.size();
    return m_plan.outcomeAfter < 0 ? size : qMin(m_plan.outcomeAfter, size);
}

void WritingFakeDownload::onDataProcessed(qint64 size) {
    if (!isRunning() || isStopping())
        return;
    receive(size);
    if (info().files.constFirst().downloadedBytes() >= outcomeLimit())
        reachOutcome();
}

void WritingFakeDownload::onWriterFailed() {
    const AbstractError error = m_writer ? m_writer->lastError() : AbstractError();
    releaseWriter();
    if (isRunning())
        fail(error);
}

void WritingFakeDownload::reachOutcome() {
    if (m_plan.outcome == Outcome::KeepRunning)
        return;
    releaseWriter();
    if (m_plan.outcome == Outcome::Finish)
        finish();
    else if (m_plan.outcome == Outcome::Fail)
        fail(m_plan.error);
    else
        stopUnfinished();
}

void WritingFakeDownload::releaseWriter() {
    if (!m_writer)
        return;
    m_writer->disconnect(this);
    m_writer->close();
    m_writer->deleteLater();
    m_writer = nullptr;
}
