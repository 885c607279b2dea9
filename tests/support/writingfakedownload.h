#pragma once

#include "fakedownload.h"

#include <QByteArray>
#include <QPointer>

class FileDataAsyncWriter;

// A child download for segment downloaders that really writes its bytes. It is given the whole
// content of its segment; on Start it writes what its record does not count as done yet (all of
// it without resume support) in chunks of 1000 bytes through a FileDataAsyncWriter on the
// writers thread it was handed, at its file's writeOffset, without truncating. A byte counts as
// done only once the writer has flushed it, so the record never claims more than the file holds.
// When the planned number of bytes is done, the planned outcome happens. Every writer is
// registered with the objects tracker as "FileDataAsyncWriter".
//
// Follows the contract of the segments downloader's children: the target is the file record's
// tmpPath, or destinationPath + "/" + name; a record without a file name is named
// "segments.bin".
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

    WritingFakeDownload(qint64 id, const Plan& plan, QObject* parent = nullptr);
    ~WritingFakeDownload() override;

protected:
    void onStartCommand() override;
    void onStopCommand() override;

private:
    QString targetPath() const;
    qint64 outcomeLimit() const;
    void onDataProcessed(qint64 size);
    void onWriterFailed();
    void reachOutcome();
    void releaseWriter();

    Plan m_plan;
    QPointer<FileDataAsyncWriter> m_writer;
};
