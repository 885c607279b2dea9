#pragma once

#include "outputguard.h"
#include "recordstore.h"
#include "terngetjob.h"

#include <terncl/core/abstracterror.h>

#include <QObject>
#include <QSharedPointer>
#include <QTextStream>
#include <QTimer>

class CurlMulti;
class AbstractDownloadsSpeedMeter;
class HostChildDownloadsManager;
class HostDownloadsFactory;
class HostMediaDownload;
class ProgressPrinter;
class QtFfmpegAvMerger;

// tern-get's media side: lists the versions of an HLS master, a DASH manifest or a web page
// (-F), or downloads the one that -f FORMAT or the library's default choice names, through a
// HostMediaDownload whose separate video and audio are merged. Its record and its children's
// records are saved as it goes, so the same command resumes after a kill at any stage: finished
// children are not fetched again, and a finished merge is not redone. Main thread.
class TernMediaJob : public QObject {
    Q_OBJECT

public:
    // What it shares with the rest of tern-get.
    struct Services {
        QString key; // the state store's key of this command (URL and output)
        CurlMulti* network = nullptr;
        QThread* writersThread = nullptr;
        // Makes the children by module name; its media services are set.
        QSharedPointer<HostDownloadsFactory> factory;
        QSharedPointer<AbstractDownloadsSpeedMeter> speedMeter;
        QSharedPointer<QtFfmpegAvMerger> merger;
        ProgressPrinter* printer = nullptr; // progress, notes and errors
    };

    TernMediaJob(const TernGetJob::Options& options, const Services& services,
                 QObject* parent = nullptr);
    ~TernMediaJob() override;

    void start();
    // Stops, saves the state and finishes with exit code 130.
    void interrupt();

    // Once finished: the file saved (exit code 0) or why it failed.
    QString outputPath() const { return m_outputPath; }
    QString failure() const { return m_errorText; }

Q_SIGNALS:
    void finished(int exitCode);

private:
    AbstractDownloadPersistentInfo newRecord() const;
    void setUp(const std::optional<RecordStore::Entry>& saved);
    bool takeOutput(const QString& path, QString* error);
    void onRunning(bool running);
    void onChanged(bool critical);
    void onEnded();
    void list();
    void save();
    void tagAudioLanguage(const QString& path, const QString& language);
    void moveIntoPlace(const QString& path);
    void removeState();
    void showProgress();
    void fail(const QString& text, int exitCode = 1);
    void finish(int exitCode);

    TernGetJob::Options m_options;
    Services m_services;
    RecordStore m_store;
    QSharedPointer<HostChildDownloadsManager> m_manager;
    QSharedPointer<HostMediaDownload> m_download;
    QTimer m_saveTimer;
    QTimer m_progressTimer;
    QTextStream m_out;
    QString m_outputPath;
    // Without -o the result's name comes from the parse: its lock is taken here once the name is
    // known, and until then this run writes no state, which another run may own.
    OutputGuard m_guard;
    QString m_lockedOutput;
    bool m_mayWriteState = false;
    QString m_errorText;
    bool m_interrupted = false;
    bool m_finished = false;
};
