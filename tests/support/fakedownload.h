#pragma once

#include <terncl/inet/qt/download/abstractdownload.h>

#include <QList>
#include <QPointer>
#include <QThread>

// A download whose life a test scripts step by step: it records the commands it gets, starts
// and stops on them, grows the downloaded bytes of its record on demand and can be told to
// finish, fail or stop unfinished. Lives on the test's thread.
//
// Fakes that really write data override onStartCommand/onStopCommand to decide how a command
// is carried out, and end the run with the outcome they were planned for.
class FakeDownload : public AbstractDownload {
    Q_OBJECT

public:
    enum class Outcome {
        Finish,         // the record is marked finished, then running(false)
        Fail,           // the planned error becomes the last error, then running(false)
        StopUnfinished, // running(false) without an error
        KeepRunning,    // nothing more happens until the test says so
    };

    enum class StopBehaviour {
        Immediate, // stopping() and running(false) within doCommand(Stop)
        Deferred,  // stopping() only; the test ends the run itself
    };

    explicit FakeDownload(qint64 id = 1, QObject* parent = nullptr)
        : AbstractDownload(id, parent) {}

    // Network consumer.
    void setNetworkSettings(const AbstractNetworkConsumerSettings& settings) override {
        m_networkSettings = settings;
    }
    AbstractNetworkConsumerSettings networkSettings() const override { return m_networkSettings; }
    void setNetworkUsageSettings(const NetworkUsageSettings& settings) override {
        m_usageSettings = settings;
    }
    NetworkUsageSettings networkUsageSettings() const override { return m_usageSettings; }
    const QtConnectionsMap& connectionsMap() const override { return m_connections; }
    qint64 speed(NetworkTrafficDirection, bool) const override { return 0; }
    AbstractError lastError() const override { return m_lastError; }
    QList<QSslError> lastSslErrors() const override { return {}; }
    QtSslHost lastUnknownSslHost() const override { return {}; }
    QDateTime lastErrorTime() const override { return m_lastErrorTime; }
    void clearLastError() override {
        m_lastError = {};
        m_lastErrorTime = {};
    }
    bool isRunning() const override { return m_running; }

    // Download.
    void doCommand(AbstractDownloadCommand command) override;
    const AbstractDownloadPersistentInfo& info() const override { return m_info; }
    bool setInfo(const AbstractDownloadPersistentInfo& info) override {
        m_info = info;
        return true;
    }
    bool updateInfoFields(const AbstractDownloadPersistentInfo& info, qint64 fields,
                          BitFlagsUpdateMode mode) override;
    QSet<AbstractDownloadDestinationType> supportedDestinations() const override {
        return {AbstractDownloadDestinationType::File};
    }
    bool setWritersThread(QThread* thread) override {
        m_writersThread = thread;
        return true;
    }
    void setSettings(const AbstractDownloadSettings& settings) override { m_settings = settings; }
    const AbstractDownloadSettings& settings() const override { return m_settings; }
    quint64 currentTasks() const override {
        return m_running ? quint64(AbstractDownloadTask::Downloading) : 0;
    }
    AbstractDownloadTasksProgress tasksProgress() const override;
    bool isQueryingInfo() const override { return false; }
    bool isStopping() const override { return m_stopping; }
    bool isFinalizing() const override { return m_finalizing; }

    // What the download received.
    QList<AbstractDownloadCommand> commands() const { return m_commands; }
    QThread* writersThread() const { return m_writersThread; }

    void setStopBehaviour(StopBehaviour behaviour) { m_stopBehaviour = behaviour; }
    // As a download does whose bytes have all arrived and only wait to be flushed: sizes
    // unknown so far become the bytes received, then changed(false).
    void enterFinalizing();

    // Scripting step by step.
    void startRunning();
    // The server announced the size of a file; creates the file record if needed.
    void setFileSize(qint64 size, int fileIndex = 0);
    // Adds bytes to the file's last section and emits changed(false) and progressChanged.
    void receive(qint64 bytes, int fileIndex = 0);
    // Marks the record finished (unknown sizes become the bytes received), emits changed(true)
    // and running(false).
    void finish();
    void fail(const AbstractError& error);
    // Also ends a deferred stop.
    void stopUnfinished() { setRunningState(false); }

protected:
    virtual void onStartCommand();
    virtual void onStopCommand();

    AbstractDownloadFileInfo& ensureFile(int fileIndex);
    void setRunningState(bool running);

private:
    AbstractDownloadPersistentInfo m_info;
    AbstractDownloadSettings m_settings;
    AbstractNetworkConsumerSettings m_networkSettings;
    NetworkUsageSettings m_usageSettings;
    QtConnectionsMap m_connections;
    AbstractError m_lastError;
    QDateTime m_lastErrorTime;
    QList<AbstractDownloadCommand> m_commands;
    QPointer<QThread> m_writersThread;
    bool m_running = false;
    bool m_stopping = false;
    bool m_finalizing = false;
    StopBehaviour m_stopBehaviour = StopBehaviour::Immediate;
};
