#pragma once

#include <terncl/core/abstracterror.h>

#include <QObject>

// Sends reports of failed downloads (with their AbstractDownload::errorReportData) to the
// maker and announces the end of each with reportFinished. Main thread.
class TERNCL_EXPORT AbstractDownloadsErrorsReportsManager : public QObject {
    Q_OBJECT

public:
    explicit AbstractDownloadsErrorsReportsManager(QObject* parent = nullptr);
    ~AbstractDownloadsErrorsReportsManager() override;

Q_SIGNALS:
    void reportFinished(qint64 downloadId, const AbstractError& error);

public Q_SLOTS:
    // byUser: the user asked for the report, rather than the application on its own.
    virtual void reportError(qint64 downloadId, bool byUser) = 0;
};
