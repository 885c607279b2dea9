#pragma once

#include <terncl/inet/qt/download/abstractdownloadabortreason.h>
#include <terncl/inet/qt/download/abstractnewdownloadsrequestjob.h>
#include <terncl/ternclshared_export.h>

#include <QObject>
#include <QString>

// Turns requests for new downloads into downloads (asking the user, checking duplicates) and
// reports each request's end with finished(). Main thread.
class TERNCL_EXPORT AbstractIncomingDownloadsProcessor : public QObject {
    Q_OBJECT

public:
    explicit AbstractIncomingDownloadsProcessor(QObject* parent = nullptr);
    ~AbstractIncomingDownloadsProcessor() override;

    virtual bool canProcess(const AbstractNewDownloadsRequestJob& job) const = 0;

Q_SIGNALS:
    void finished(qint64 jobId, bool added, bool aborted, AbstractDownloadAbortReason abortReason,
                  const QString& error, bool isSilent);

public Q_SLOTS:
    virtual void process(const AbstractNewDownloadsRequestJob& job) = 0;
};
