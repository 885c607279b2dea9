#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/qt/process/qtprocesssandboxmanager.h>
#include <terncl/ternclshared_export.h>

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QPointer>
#include <QProcess>
#include <QSet>
#include <QSharedPointer>
#include <QString>

#include <atomic>

// The one place where the library starts external programs. Each launch is known by an id the
// caller takes from nextId(); output, errors and the end of every process are reported by
// signals carrying that id. Launches either start at once or wait in a queue where each launch
// says how many queued processes may run beside it. After an abort the queue pauses for a
// second before it starts the next launch, so that a killed child can release its files first.
//
// Lives on the thread that owns it: launch() and abortList() may be called from any thread and
// re-post themselves there; every signal is emitted there.
class TERNCL_EXPORT QtProcessLaunchManager : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool running READ isRunning NOTIFY running)

public:
    // Whether and how a launch runs in the sandbox.
    struct Sandbox {
        QtProcessSandboxManager::SandboxSettings settings;
        bool enabled = false;
        // When the sandbox cannot be used, start the process normally instead of failing.
        bool allowStartWithoutSandbox = true;
    };

    // Codes of the "GenericError" errors that finished() carries.
    static constexpr int ProcessFailedErrorCode = 2;
    static constexpr int AbortedErrorCode = 4;

    static constexpr int DefaultQueueRestartDelayAfterAbortMs = 1000;

    // sandboxManager may be null: sandboxed launches then start normally only when they allow it.
    explicit QtProcessLaunchManager(QSharedPointer<QtProcessSandboxManager> sandboxManager,
                                    QObject* parent = nullptr);
    // Kills every process still running and waits for it.
    ~QtProcessLaunchManager() override;

    // A fresh id: 1, 2, 3, ... Callable from any thread.
    int nextId();
    // True from the first launch until the last launch has finished.
    bool isRunning() const;
    // The sandbox manager given to the constructor; may be null.
    QSharedPointer<QtProcessSandboxManager> sandboxManager() const;

    // How long the queue waits after an abort before starting the next launch.
    void setQueueRestartDelayAfterAbort(int msec);
    int queueRestartDelayAfterAbort() const;

public Q_SLOTS:
    // Starts path with args at once or, with useQueue, as soon as fewer than
    // maxRunningProcessesInQueue queued processes run (1 when that is 0 or less). A path ending
    // in ".bat" runs through "cmd.exe /C". With mergeChannels the standard error arrives in
    // dataFromProcess and errorDataFromProcess is never emitted. An empty workingDir leaves the
    // working directory unset. An id that is already in use is refused.
    void launch(int id, const QString& path, const QList<QString>& args, const QString& workingDir,
                bool mergeChannels, bool useQueue, const QtProcessLaunchManager::Sandbox& sandbox,
                int maxRunningProcessesInQueue);
    void abort(int id);
    // Queued launches finish at once as aborted; running ones are killed and report the abort
    // when they have ended. Unknown ids are ignored.
    void abortList(const QList<int>& ids);
    void abortAll();

Q_SIGNALS:
    void running(bool isRunning);
    void launching(int id);
    void dataFromProcess(int id, const QByteArray& data);
    void errorDataFromProcess(int id, const QByteArray& data);
    // Never emitted here; subclasses that understand a tool's output report its progress.
    void progress(int id, qint64 current, qint64 total);
    // A non-zero exit code is not an error here; the caller judges it. A process that could not
    // start, crashed or was aborted finishes with a "GenericError" and exit code 0.
    void finished(int id, const AbstractError& error, int exitCode);

private Q_SLOTS:
    void onProcessFinished(int exitCode, QProcess::ExitStatus exitStatus);
    void onProcessErrorOccurred(QProcess::ProcessError error);
    void onProcessReadyRead();
    void onProcessReadyReadStandardError();

private:
    struct LaunchItem {
        QString program;
        QList<QString> arguments;
        QString workingDirectory;
        Sandbox sandbox;
        int maxRunningInQueue = 1;
        QProcess* process = nullptr;
        bool aborted = false;
        bool mergeChannels = false;
    };

    struct FinishedItem {
        bool wasQueued = false;
        bool wasAborted = false;
    };

    void doLaunch(int id, const QString& path, const QList<QString>& args,
                  const QString& workingDir, bool mergeChannels, bool useQueue,
                  const Sandbox& sandbox, int maxRunningProcessesInQueue);
    void doAbortList(const QList<int>& ids);
    void startNextInQueueIfPossible();
    void startProcess(int id, bool fromQueue);
    QProcess* createProcess(int id, const LaunchItem& item);
    bool startInSandbox(const LaunchItem& item, QProcess* process);
    void failToStart(int id, QProcess* process, const QString& reason);
    void onFinished(int id, const AbstractError& error, int exitCode, const QByteArray& output,
                    const QByteArray& errorOutput, bool aborted);
    FinishedItem processFinishedItem(int id, const AbstractError& error, int exitCode,
                                     const QByteArray& output, const QByteArray& errorOutput,
                                     bool aborted);
    void restartQueueAfter(const FinishedItem& finished);
    void checkIfAllFinished();
    void setRunning(bool isRunning);
    // Forgets the process; false when it is unknown (already ended or never ours).
    bool takeProcessId(QProcess* process, int* id);
    void retireProcess(QProcess* process);
    void log(int id, const QString& text) const;
    static AbstractError abortError();

    QSharedPointer<QtProcessSandboxManager> m_sandboxManager;
    std::atomic<int> m_idCounter{1};
    QList<int> m_queue;
    QSet<int> m_runningQueuedIds;
    QHash<int, LaunchItem> m_items;
    QHash<QProcess*, int> m_processIds;
    // Ended processes waiting for deleteLater; deleted with the manager if it goes first.
    QList<QPointer<QProcess>> m_retiredProcesses;
    bool m_startPending = false;
    std::atomic<bool> m_running{false};
    int m_queueRestartDelayAfterAbortMs = DefaultQueueRestartDelayAfterAbortMs;
};

Q_DECLARE_METATYPE(QtProcessLaunchManager::Sandbox)
