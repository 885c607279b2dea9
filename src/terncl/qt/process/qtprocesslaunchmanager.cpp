#include "qtprocesslaunchmanager.h"

#include <terncl/core/qtappdefaultlogger.h>
#include <terncl/core/qtqobjectstracker.h>
#include <terncl/core/sourceplace.h>

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

namespace {
// The queued forms of launch() and abortList() and the process signals carry these types.
void registerProcessMetaTypes() {
    qRegisterMetaType<QProcess::ExitStatus>("QProcess::ExitStatus");
    qRegisterMetaType<QProcess::ProcessError>("QProcess::ProcessError");
    qRegisterMetaType<QList<int>>("QList<int>");
    qRegisterMetaType<QtProcessSandboxManager::SandboxSettings>(
        "QtProcessSandboxManager::SandboxSettings");
    qRegisterMetaType<QtProcessLaunchManager::Sandbox>("QtProcessLaunchManager::Sandbox");
}

// Says which program failed and how, for logs and for the host's error texts.
QString failureText(const QProcess* process, QProcess::ProcessError error) {
    switch (error) {
    case QProcess::FailedToStart:
        return QStringLiteral("could not start %1: %2")
            .arg(process->program(), process->errorString());
    case QProcess::Crashed:
        return QStringLiteral("%1 crashed or was killed").arg(process->program());
    default:
        return QStringLiteral("%1 failed: %2").arg(process->program(), process->errorString());
    }
}

bool isBatchFile(const QString& path) {
    return path.endsWith(QLatin1String(".bat"), Qt::CaseInsensitive);
}
} // namespace

Q_COREAPP_STARTUP_FUNCTION(registerProcessMetaTypes)

QtProcessLaunchManager::QtProcessLaunchManager(
    QSharedPointer<QtProcessSandboxManager> sandboxManager, QObject* parent)
    : QObject(parent)
    , m_sandboxManager(std::move(sandboxManager)) {}

QtProcessLaunchManager::~QtProcessLaunchManager() {
    // Children must not outlive the manager, and nobody is left to hear about their end.
    const auto processes = m_processIds.keys();
    for (QProcess* process : processes) {
        disconnect(process, nullptr, this, nullptr);
        process->kill();
        process->waitForFinished();
        delete process;
    }
    for (const auto& process : std::as_const(m_retiredProcesses))
        delete process.data();
}

int QtProcessLaunchManager::nextId() {
    return m_idCounter.fetch_add(1);
}

bool QtProcessLaunchManager::isRunning() const {
    return m_running.load();
}

QSharedPointer<QtProcessSandboxManager> QtProcessLaunchManager::sandboxManager() const {
    return m_sandboxManager;
}

void QtProcessLaunchManager::setQueueRestartDelayAfterAbort(int msec) {
    m_queueRestartDelayAfterAbortMs = qMax(0, msec);
}

int QtProcessLaunchManager::queueRestartDelayAfterAbort() const {
    return m_queueRestartDelayAfterAbortMs;
}

void QtProcessLaunchManager::launch(int id, const QString& path, const QList<QString>& args,
                                    const QString& workingDir, bool mergeChannels, bool useQueue,
                                    const Sandbox& sandbox, int maxRunningProcessesInQueue) {
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this,
            [=]() {
                doLaunch(id, path, args, workingDir, mergeChannels, useQueue, sandbox,
                         maxRunningProcessesInQueue);
            },
            Qt::QueuedConnection);
        return;
    }
    doLaunch(id, path, args, workingDir, mergeChannels, useQueue, sandbox,
             maxRunningProcessesInQueue);
}

void QtProcessLaunchManager::doLaunch(int id, const QString& path, const QList<QString>& args,
                                      const QString& workingDir, bool mergeChannels, bool useQueue,
                                      const Sandbox& sandbox, int maxRunningProcessesInQueue) {
    // Two launches under one id would leave one of them unreachable.
    TERNCL_ASSERT(!m_items.contains(id));
    if (m_items.contains(id))
        return;

    setRunning(true);

    LaunchItem item;
    item.program = path;
    item.arguments = args;
    if (isBatchFile(path)) {
        item.program = QStringLiteral("cmd.exe");
        item.arguments = QList<QString>{QStringLiteral("/C"), path} + args;
    }
    item.workingDirectory = workingDir;
    item.sandbox = sandbox;
    item.mergeChannels = mergeChannels;
    if (useQueue && maxRunningProcessesInQueue > 0)
        item.maxRunningInQueue = maxRunningProcessesInQueue;
    m_items.insert(id, item);

    if (useQueue) {
        m_queue.append(id);
        startNextInQueueIfPossible();
    } else {
        startProcess(id, false);
    }
}

void QtProcessLaunchManager::abort(int id) {
    abortList(QList<int>{id});
}

void QtProcessLaunchManager::abortList(const QList<int>& ids) {
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [=]() { doAbortList(ids); }, Qt::QueuedConnection);
        return;
    }
    doAbortList(ids);
}

void QtProcessLaunchManager::abortAll() {
    // The items may only be read in the manager's thread.
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this, &QtProcessLaunchManager::abortAll, Qt::QueuedConnection);
        return;
    }
    doAbortList(m_items.keys());
}

void QtProcessLaunchManager::doAbortList(const QList<int>& ids) {
    FinishedItem finishedNow;
    bool anyFinishedNow = false;
    for (int id : ids) {
        auto it = m_items.find(id);
        if (it == m_items.end())
            continue;
        if (QProcess* process = it->process) {
            // The end arrives through the process signals and is reported as an abort there.
            it->aborted = true;
            process->kill();
            continue;
        }
        m_queue.removeAll(id);
        const FinishedItem finished = processFinishedItem(id, abortError(), 0, {}, {}, true);
        finishedNow.wasQueued = finishedNow.wasQueued || finished.wasQueued;
        finishedNow.wasAborted = true;
        anyFinishedNow = true;
    }
    if (!anyFinishedNow)
        return;
    restartQueueAfter(finishedNow);
    checkIfAllFinished();
}

void QtProcessLaunchManager::startNextInQueueIfPossible() {
    m_startPending = false;
    if (m_queue.isEmpty())
        return;

    // Each launch carries its own limit, so a launch that may run beside more processes can
    // overtake one that waits for a free place.
    int runningCount = m_runningQueuedIds.size();
    QList<int> toStart;
    for (auto it = m_queue.begin(); it != m_queue.end();) {
        const auto item = m_items.constFind(*it);
        if (item == m_items.cend()) {
            it = m_queue.erase(it);
        } else if (item->maxRunningInQueue <= runningCount) {
            ++it;
        } else {
            toStart.append(*it);
            // Counted as running from now on, so that a nested start (a listener of launching,
            // a process failing at once) cannot exceed the limits.
            m_runningQueuedIds.insert(*it);
            ++runningCount;
            it = m_queue.erase(it);
        }
    }
    for (int id : std::as_const(toStart))
        startProcess(id, true);
}

void QtProcessLaunchManager::startProcess(int id, bool fromQueue) {
    auto it = m_items.find(id);
    if (it == m_items.end() || it->process)
        return;
    if (fromQueue)
        m_runningQueuedIds.insert(id);

    Q_EMIT launching(id);
    // A listener of launching may have aborted the launch.
    it = m_items.find(id);
    if (it == m_items.end() || it->process)
        return;
    log(id, QStringLiteral("launching process: %1, with args: %2")
                .arg(it->program, it->arguments.join(QLatin1Char(' '))));

    QProcess* process = createProcess(id, *it);
    it->process = process;
    const LaunchItem item = *it;

    if (item.sandbox.enabled) {
        if (!startInSandbox(item, process))
            failToStart(id, process, QStringLiteral("the sandbox refused to start it"));
        return;
    }
    // The library never writes to a child's standard input.
    process->start(QIODeviceBase::ReadOnly);
}

QProcess* QtProcessLaunchManager::createProcess(int id, const LaunchItem& item) {
    auto* process = new QProcess;
    if (const auto tracker = QtQObjectsTracker::instance())
        tracker->registerObject(process, "QProcess");
    process->setProgram(item.program);
    process->setArguments(item.arguments);
    if (!item.workingDirectory.isEmpty())
        process->setWorkingDirectory(item.workingDirectory);
    if (item.mergeChannels)
        process->setProcessChannelMode(QProcess::MergedChannels);

    connect(process, &QProcess::finished, this, &QtProcessLaunchManager::onProcessFinished);
    connect(process, &QProcess::errorOccurred, this,
            &QtProcessLaunchManager::onProcessErrorOccurred);
    connect(process, &QProcess::readyRead, this, &QtProcessLaunchManager::onProcessReadyRead);
    if (!item.mergeChannels) {
        connect(process, &QProcess::readyReadStandardError, this,
                &QtProcessLaunchManager::onProcessReadyReadStandardError);
    }
    m_processIds.insert(process, id);
    return process;
}

bool QtProcessLaunchManager::startInSandbox(const LaunchItem& item, QProcess* process) {
    const Sandbox& sandbox = item.sandbox;
    if (m_sandboxManager) {
        return m_sandboxManager->startInSandbox(sandbox.settings, sandbox.allowStartWithoutSandbox,
                                                process, QIODeviceBase::ReadOnly);
    }
    if (!sandbox.allowStartWithoutSandbox)
        return false;
    process->start(QIODeviceBase::ReadOnly);
    return true;
}

void QtProcessLaunchManager::failToStart(int id, QProcess* process, const QString& reason) {
    // A process that was never started emits nothing, so its end is reported from here.
    int takenId = 0;
    if (!takeProcessId(process, &takenId) || takenId != id)
        return;
    if (process->state() != QProcess::NotRunning)
        process->kill();
    log(id, QStringLiteral("process failed to start: %1").arg(reason));
    const AbstractError error(
        ProcessFailedErrorCode, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
        QStringLiteral("could not start %1: %2").arg(process->program(), reason).toStdString());
    retireProcess(process);
    onFinished(id, error, 0, {}, {}, false);
}

void QtProcessLaunchManager::onProcessFinished(int exitCode, QProcess::ExitStatus exitStatus) {
    auto* process = qobject_cast<QProcess*>(sender());
    int id = 0;
    if (!takeProcessId(process, &id) || !m_items.contains(id))
        return;
    log(id, QStringLiteral("process finished with exit code: %1 and status: %2")
                .arg(exitCode)
                .arg(int(exitStatus)));
    const QByteArray output = process->readAll();
    const QByteArray errorOutput =
        m_items.value(id).mergeChannels ? QByteArray() : process->readAllStandardError();
    retireProcess(process);
    onFinished(id, AbstractError(), exitCode, output, errorOutput, false);
}

void QtProcessLaunchManager::onProcessErrorOccurred(QProcess::ProcessError processError) {
    auto* process = qobject_cast<QProcess*>(sender());
    int id = 0;
    if (!takeProcessId(process, &id) || !m_items.contains(id))
        return;
    log(id, QStringLiteral("process failed with error: %1").arg(int(processError)));
    const AbstractError error(ProcessFailedErrorCode, AbstractError::GenericError,
                              TERNCL_SOURCE_PLACE,
                              failureText(process, processError).toStdString());
    // A crashed child's last words are already buffered; they help more than they cost.
    QByteArray output, errorOutput;
    if (processError != QProcess::FailedToStart) {
        output = process->readAll();
        if (!m_items.value(id).mergeChannels)
            errorOutput = process->readAllStandardError();
    }
    // Errors such as a failed read leave the child running; nobody would listen to it any more.
    if (process->state() != QProcess::NotRunning)
        process->kill();
    retireProcess(process);
    onFinished(id, error, 0, output, errorOutput, false);
}

void QtProcessLaunchManager::onProcessReadyRead() {
    auto* process = qobject_cast<QProcess*>(sender());
    const auto it = m_processIds.constFind(process);
    if (it == m_processIds.cend())
        return;
    const QByteArray data = process->readAll();
    if (!data.isEmpty())
        Q_EMIT dataFromProcess(*it, data);
}

void QtProcessLaunchManager::onProcessReadyReadStandardError() {
    auto* process = qobject_cast<QProcess*>(sender());
    const auto it = m_processIds.constFind(process);
    if (it == m_processIds.cend())
        return;
    const QByteArray data = process->readAllStandardError();
    if (!data.isEmpty())
        Q_EMIT errorDataFromProcess(*it, data);
}

void QtProcessLaunchManager::onFinished(int id, const AbstractError& error, int exitCode,
                                        const QByteArray& output, const QByteArray& errorOutput,
                                        bool aborted) {
    const FinishedItem finished =
        processFinishedItem(id, error, exitCode, output, errorOutput, aborted);
    restartQueueAfter(finished);
    checkIfAllFinished();
}

QtProcessLaunchManager::FinishedItem
QtProcessLaunchManager::processFinishedItem(int id, const AbstractError& error, int exitCode,
                                            const QByteArray& output, const QByteArray& errorOutput,
                                            bool aborted) {
    FinishedItem finished;
    const auto it = m_items.find(id);
    if (it == m_items.end())
        return finished;
    finished.wasAborted = aborted || it->aborted;
    m_items.erase(it);
    finished.wasQueued = m_runningQueuedIds.remove(id);

    if (!output.isEmpty())
        Q_EMIT dataFromProcess(id, output);
    if (!errorOutput.isEmpty())
        Q_EMIT errorDataFromProcess(id, errorOutput);
    if (finished.wasAborted)
        Q_EMIT this->finished(id, abortError(), 0);
    else
        Q_EMIT this->finished(id, error, exitCode);
    return finished;
}

void QtProcessLaunchManager::restartQueueAfter(const FinishedItem& finished) {
    if (!finished.wasQueued || m_queue.isEmpty() || m_startPending)
        return;
    if (!finished.wasAborted) {
        startNextInQueueIfPossible();
        return;
    }
    // A killed child may still hold its files for a moment; give it time before the next one
    // starts on the same files.
    m_startPending = true;
    QTimer::singleShot(m_queueRestartDelayAfterAbortMs, this,
                       &QtProcessLaunchManager::startNextInQueueIfPossible);
}

void QtProcessLaunchManager::checkIfAllFinished() {
    if (m_items.isEmpty() && m_queue.isEmpty())
        setRunning(false);
}

void QtProcessLaunchManager::setRunning(bool isRunning) {
    if (m_running.exchange(isRunning) != isRunning)
        Q_EMIT running(isRunning);
}

bool QtProcessLaunchManager::takeProcessId(QProcess* process, int* id) {
    const auto it = m_processIds.find(process);
    if (it == m_processIds.end())
        return false;
    *id = *it;
    m_processIds.erase(it);
    return true;
}

void QtProcessLaunchManager::retireProcess(QProcess* process) {
    m_retiredProcesses.removeAll(nullptr);
    m_retiredProcesses.append(process);
    process->deleteLater();
}

void QtProcessLaunchManager::log(int id, const QString& text) const {
    terncl::logLine(QtAppLogger::Info, QtAppLogger::Process,
                    QStringLiteral("[QtProcessLaunchManager #%1]: %2").arg(id).arg(text));
}

AbstractError QtProcessLaunchManager::abortError() {
    return AbstractError(AbortedErrorCode, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                         "the process was aborted");
}
