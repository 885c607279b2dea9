#pragma once

#include "fakedownload.h"

#include <terncl/core/qtqobjectstracker.h>
#include <terncl/data/qt/filedataasyncwriter.h>

#include <QByteArray>
#include <QDir>
#include <QPointer>
#include <QTimer>

// A segment child that really writes: on Start, what its record lacks (all without resume
// support) in 1000-byte chunks through a tracked FileDataAsyncWriter on its writers thread, at
// writeOffset, at tmpPath else destinationPath/name ("segments.bin" if unnamed). Bytes count as
// done once flushed, so the record never claims more than the file holds.
class WritingFakeDownload : public FakeDownload {
    Q_OBJECT

public:
    struct Plan {
        QByteArray content;
        // The outcome happens once this many bytes of the segment are done; -1: all of them.
        qint64 outcomeAfter = -1;
        Outcome outcome = Outcome::Finish;
        AbstractError error; // for Outcome::Fail
        bool resumeSupported = true;
    };

    WritingFakeDownload(qint64 id, const Plan& plan, QObject* parent = nullptr)
        : FakeDownload(id, parent)
        , m_plan(plan) {}
    ~WritingFakeDownload() override { releaseWriter(); }

protected:
    void onStartCommand() override {
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
        m_writer = writer;
        const QString target = file.tmpPath.isEmpty()
                                   ? QDir(info().destinationPath).filePath(file.name)
                                   : file.tmpPath;
        writer->open(target, file.writeOffset + done);
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
    void onStopCommand() override {
        releaseWriter();
        FakeDownload::onStopCommand();
    }

private:
    qint64 outcomeLimit() const {
        const qint64 size = m_plan.content.size();
        return m_plan.outcomeAfter < 0 ? size : qMin(m_plan.outcomeAfter, size);
    }
    void onDataProcessed(qint64 size) {
        if (!isRunning() || isStopping())
            return;
        receive(size);
        if (info().files.constFirst().downloadedBytes() >= outcomeLimit())
            reachOutcome();
    }
    void reachOutcome() {
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
    void releaseWriter() {
        if (!m_writer)
            return;
        m_writer->disconnect(this);
        m_writer->close();
        m_writer->deleteLater();
        m_writer = nullptr;
    }

    Plan m_plan;
    QPointer<FileDataAsyncWriter> m_writer;
};
