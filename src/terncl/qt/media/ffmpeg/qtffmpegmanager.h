#pragma once

#include <terncl/qt/process/qtprocesslaunchmanager.h>
#include <terncl/ternclshared_export.h>

#include <QHash>
#include <QString>

// Knows where ffmpeg lives, checks that it answers, launches it through the process queue and
// turns its console output into duration and progress (in whole seconds) for each launch.
// Lives on the thread that owns it, like every launch manager.
class TERNCL_EXPORT QtFfmpegManager : public QtProcessLaunchManager {
    Q_OBJECT

public:
    // What the output of one running ffmpeg has told so far.
    struct RunningFfmpegRecord {
        // The last line of output, while its line end has not arrived yet.
        QString pendingText;
        // -1 while unknown.
        int durationSeconds = -1;
    };

    static constexpr int DefaultVersionCheckTimeoutMs = 30000;

    // The program is folder + "/" + fileName; the slash is left out when the folder is empty or
    // already ends with one.
    QtFfmpegManager(const QString& folder, const QString& fileName,
                    QSharedPointer<QtProcessSandboxManager> sandboxManager,
                    QObject* parent = nullptr);
    ~QtFfmpegManager() override;

    QString ffmpegPath() const;
    // The version number found by the last successful version check, e.g. "5.1.2".
    QString ffmpegVersion() const;

    // Runs "ffmpeg -version" (waiting at most versionCheckTimeout()) unless an earlier answer is
    // cached and forceCheck is false. Blocks the calling thread while it runs.
    bool isFfmpegInstalled(bool forceCheck);
    // Whether ffmpeg is installed and was built with the MP3 encoder.
    bool isMp3LamePresent(bool forceCheck);
    void setVersionCheckTimeout(int msec);
    int versionCheckTimeout() const;

    // How many ffmpeg processes should run at the same time: half the hardware threads, at
    // least one.
    static int idealFfmpegCount();
    static int idealFfmpegCount(int idealThreadCount);

    // Launches ffmpeg with args; standard error is merged into the output that is parsed.
    void launchFfmpeg(int id, const QList<QString>& args, const QString& workingDir, bool useQueue,
                      int maxRunningProcessesInQueue);
    // Probes one media file ("-i file") in the file's folder; queued probes run up to
    // idealFfmpegCount() at a time.
    void launchFfmpeg(int id, const QString& file, bool useQueue);

    // "01:02:05.00" -> 3725; the fraction is ignored; -1 unless all four fields are there.
    static int secondsFromFfmpegTimeString(const QString& text);
    // 3725 -> "01:02:05.00".
    static QString secondsToFfmpegString(int seconds);

Q_SIGNALS:
    // The length of the media in whole seconds; sent again if the progress goes beyond it.
    void duration(int id, int seconds);

private Q_SLOTS:
    void onFfmpegLaunching(int id);
    void onDataFromFfmpeg(int id, const QByteArray& data);
    void onFfmpegFinished(int id);

private:
    void processData(int id, RunningFfmpegRecord& record, const QString& text);
    void parseVersionOutput(const QString& output);

    QString m_ffmpegPath;
    // 0 not checked yet, 1 installed, 2 not installed.
    int m_installedState = 0;
    bool m_mp3LamePresent = false;
    QString m_version;
    int m_versionCheckTimeoutMs = DefaultVersionCheckTimeoutMs;
    QHash<int, RunningFfmpegRecord> m_runningRecords;
};
