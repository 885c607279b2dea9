#include "fakedownload.h"

#include <QThread>
#include <QTimer>

FakeDownload::FakeDownload(qint64 id, QObject* parent)
    : AbstractDownload(id, parent) {}

FakeDownload::~FakeDownload() = default;

void FakeDownload::setNetworkSettings(const AbstractNetworkConsumerSettings& settings) {
    m_networkSettings = settings;
}

void FakeDownload::setNetworkUsageSettings(const NetworkUsageSettings& settings) {
    m_usageSettings = settings;
}

qint64 FakeDownload::speed(NetworkTrafficDirection direction, bool) const {
    return direction == NetworkTrafficDirection::Download ? m_speed : 0;
}

void FakeDownload::clearLastError() {
    m_lastError = {};
    m_lastErrorTime = {};
}

void FakeDownload::doCommand(AbstractDownloadCommand command) {
    m_commands.append(command);
    if (command == AbstractDownloadCommand::Start)
        onStartCommand();
    else if (command == AbstractDownloadCommand::Stop)
        onStopCommand();
}

bool FakeDownload::setInfo(const AbstractDownloadPersistentInfo& info) {
    m_info = info;
    return true;
}

bool FakeDownload::updateInfoFields(const AbstractDownloadPersistentInfo& info, qint64 fields,
                                    BitFlagsUpdateMode mode) {
    const bool changedFields = m_info.updateFields(info, fields, mode);
    if (changedFields)
        Q_EMIT changed(false);
    return changedFields;
}

QSet<AbstractDownloadDestinationType> FakeDownload::supportedDestinations() const {
    return {AbstractDownloadDestinationType::File};
}

bool FakeDownload::setInitData(const QVariant& data) {
    m_initData = data;
    return true;
}

bool FakeDownload::setWritersThread(QThread* thread) {
    m_writersThread = thread;
    return true;
}

void FakeDownload::setSettings(const AbstractDownloadSettings& settings) {
    m_settings = settings;
    ++m_setSettingsCalls;
}

quint64 FakeDownload::currentTasks() const {
    return m_running ? quint64(AbstractDownloadTask::Downloading) : 0;
}

AbstractDownloadTasksProgress FakeDownload::tasksProgress() const {
    if (!m_running)
        return {};
    return {{AbstractDownloadTask::Downloading, {m_info.downloadedBytes(), m_info.totalSize()}}};
}

void FakeDownload::setScript(const QList<qint64>& chunks, Outcome outcome,
                             const AbstractError& error) {
    m_scriptChunks = chunks;
    m_scriptOutcome = outcome;
    m_scriptError = error;
    m_scriptPosition = 0;
}

void FakeDownload::startRunning() {
    if (m_running)
        return;
    clearLastError();
    ++m_runGeneration;
    setRunningState(true);
}

void FakeDownload::setFileSize(qint64 size, int fileIndex) {
    auto& file = ensureFile(fileIndex);
    file.size = size;
    if (!file.sections.isEmpty())
        file.sections.last().size = size < 0 ? -1 : size - file.sections.last().offset;
    Q_EMIT changed(false);
}

void FakeDownload::receive(qint64 bytes, int fileIndex) {
    auto& file = ensureFile(fileIndex);
    if (file.sections.isEmpty())
        file.sections.append({0, file.size, 0});
    auto& section = file.sections.last();
    onBytesReceived(fileIndex, section.offset + section.done, bytes);
    section.done += bytes;
    Q_EMIT changed(false);
    Q_EMIT progressChanged(m_info.downloadedBytes(), m_info.totalSize());
}

void FakeDownload::finish() {
    onFinishing();
    for (auto& file : m_info.files) {
        if (file.size < 0)
            file.size = file.downloadedBytes();
        for (auto& section : file.sections) {
            if (section.size < 0)
                section.size = section.done;
        }
    }
    m_info.state = AbstractDownloadPersistentInfo::Finished;
    Q_EMIT changed(true);
    setRunningState(false);
}

void FakeDownload::fail(const AbstractError& error) {
    m_lastError = error;
    m_lastErrorTime = QDateTime::currentDateTime();
    Q_EMIT changed(true);
    setRunningState(false);
}

void FakeDownload::stopUnfinished() {
    setRunningState(false);
}

void FakeDownload::completeStop() {
    if (m_stopping)
        setRunningState(false);
}

void FakeDownload::onStartCommand() {
    if (m_running || m_info.isFinished())
        return;
    startRunning();
    if (!m_scriptChunks.isEmpty() || m_scriptOutcome != Outcome::KeepRunning) {
        const auto generation = m_runGeneration;
        QTimer::singleShot(0, this, [this, generation] {
            if (generation == m_runGeneration)
                runScriptStep();
        });
    }
}

void FakeDownload::onStopCommand() {
    if (!m_running || m_stopping)
        return;
    ++m_runGeneration;
    m_stopping = true;
    Q_EMIT stopping();
    if (m_stopBehaviour == StopBehaviour::Immediate)
        setRunningState(false);
}

void FakeDownload::onBytesReceived(int, qint64, qint64) {}

void FakeDownload::onFinishing() {}

AbstractDownloadFileInfo& FakeDownload::ensureFile(int fileIndex) {
    while (m_info.files.size() <= fileIndex) {
        AbstractDownloadFileInfo file;
        file.name =
            m_info.name.isEmpty() ? QStringLiteral("file%1").arg(m_info.files.size()) : m_info.name;
        m_info.files.append(file);
    }
    return m_info.files[fileIndex];
}

void FakeDownload::setRunningState(bool running) {
    if (!running)
        m_stopping = false;
    if (m_running == running)
        return;
    m_running = running;
    Q_EMIT this->running(running);
}

void FakeDownload::runScriptStep() {
    if (!m_running)
        return;
    if (m_scriptPosition < m_scriptChunks.size()) {
        receive(m_scriptChunks.at(m_scriptPosition++));
        const auto generation = m_runGeneration;
        QTimer::singleShot(0, this, [this, generation] {
            if (generation == m_runGeneration)
                runScriptStep();
        });
        return;
    }
    switch (m_scriptOutcome) {
    case Outcome::Finish:
        finish();
        break;
    case Outcome::Fail:
        fail(m_scriptError);
        break;
    case Outcome::StopUnfinished:
        stopUnfinished();
        break;
    case Outcome::KeepRunning:
        break;
    }
}
