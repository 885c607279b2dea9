#include "fakedownload.h"

void FakeDownload::doCommand(AbstractDownloadCommand command) {
    m_commands.append(command);
    if (command == AbstractDownloadCommand::Start)
        onStartCommand();
    else if (command == AbstractDownloadCommand::Stop)
        onStopCommand();
}

bool FakeDownload::updateInfoFields(const AbstractDownloadPersistentInfo& info, qint64 fields,
                                    BitFlagsUpdateMode mode) {
    if (!m_info.updateFields(info, fields, mode))
        return false;
    Q_EMIT changed(false);
    return true;
}

AbstractDownloadTasksProgress FakeDownload::tasksProgress() const {
    if (!m_running)
        return {};
    return {{AbstractDownloadTask::Downloading, {m_info.downloadedBytes(), m_info.totalSize()}}};
}

void FakeDownload::startRunning() {
    if (m_running)
        return;
    clearLastError();
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
    file.sections.last().done += bytes;
    Q_EMIT changed(false);
    Q_EMIT progressChanged(m_info.downloadedBytes(), m_info.totalSize());
}

void FakeDownload::enterFinalizing() {
    for (auto& file : m_info.files) {
        if (file.size < 0)
            file.size = file.downloadedBytes();
    }
    m_finalizing = true;
    Q_EMIT changed(false);
}

void FakeDownload::finish() {
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

void FakeDownload::onStartCommand() {
    if (m_running || m_info.isFinished())
        return;
    startRunning();
}

void FakeDownload::onStopCommand() {
    if (!m_running || m_stopping)
        return;
    m_stopping = true;
    Q_EMIT stopping();
    if (m_stopBehaviour == StopBehaviour::Immediate)
        setRunningState(false);
}

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
    if (!running) {
        m_stopping = false;
        m_finalizing = false;
    }
    if (m_running == running)
        return;
    m_running = running;
    Q_EMIT this->running(running);
}
