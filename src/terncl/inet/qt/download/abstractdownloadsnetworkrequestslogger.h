#pragma once

#include <terncl/ternclshared_export.h>

#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>
#include <memory>

class AbstractDownload;
class FileDataAsyncWriter;
class QThread;

// A diagnostic log of what registered downloads say on the network: for every run of a
// download, one text file in the chosen folder with the resource URL, the first request's
// headers, the first response's headers and how the run ended (where the body was saved, or
// the error). Files are named "R_" + registration time + "_" + counter + "_" + download name +
// ".log" when the run ends; the text written before then waits in the file's writer.
//
// Lives on the downloads' thread (its slots run there). The file I/O happens on the worker
// thread given to the constructor, which must outlive the logger, or on the logger's own
// thread without one. A folder that cannot be created or written costs the downloads nothing:
// one warning says why no log is written and the runs go on.
class TERNCL_EXPORT AbstractDownloadsNetworkRequestsLogger : public QObject {
    Q_OBJECT

public:
    // With removeExisting, the "R_*.log" files already in folder are deleted first.
    AbstractDownloadsNetworkRequestsLogger(const QString& folder, bool removeExisting,
                                           QThread* thread = nullptr, QObject* parent = nullptr);
    ~AbstractDownloadsNetworkRequestsLogger() override;

    // Logs every later run of the download; registering it again does nothing.
    void registerDownload(const AbstractDownload* download);
    // The canonical path of the log folder; empty when it could not be created.
    QString folder() const { return m_folder; }

private Q_SLOTS:
    void onDownloadRunning(bool running);
    void onDownloadSendingRequestHeaders(qint64 requestId, const QStringList& headers);
    void onDownloadGotResponseHeaders(qint64 requestId, const QStringList& headers);
    void onDownloadDestroyed(QObject* object);

private:
    struct DownloadRecord {
        QDateTime registrationTime;
        FileDataAsyncWriter* writer = nullptr;
        qint64 requestId = 0;
        bool requestLogged = false;
        bool responseLogged = false;
        bool fileOpened = false;
    };

    void startRun(const AbstractDownload* download, DownloadRecord& record);
    void endRun(const AbstractDownload* download, DownloadRecord& record);
    void logHeaders(DownloadRecord* record, qint64 requestId, const QStringList& headers,
                    bool response);
    void makeSureLogFileOpened(const AbstractDownload* download);
    QString logFileName(const AbstractDownload* download, const DownloadRecord& record) const;
    // Finishes and releases the run's writer and clears the run, so that the next run starts a
    // new file.
    void closeDownloadLog(DownloadRecord& record);
    void closeDownloadLogAndUnregister(const QObject* download);
    bool removeExistingLogFiles();
    DownloadRecord* runningRecordOfSender();
    // The first failure of any writer, or of the folder, is logged; later ones are not.
    void reportFailureOnce(FileDataAsyncWriter* writer, const QString& path);
    void warnOnce(const QString& reason);
    static const QString& endline();

    QString m_folder;
    QThread* m_workerThread = nullptr;
    qint32 m_fileCounter = 0;
    QHash<const QObject*, DownloadRecord> m_downloads;
    // Shared with the writers, which report their failures on the worker thread.
    std::shared_ptr<std::atomic_bool> m_warned = std::make_shared<std::atomic_bool>(false);
};
