#pragma once

#include <terncl/inet/qt/download/abstractdownload.h>

#include <QList>
#include <QPointer>
#include <QThread>

// A download whose life a test scripts: it records the commands it gets, starts and stops on
// them, grows the downloaded bytes of its record on demand and can be told to finish, fail or
// stop unfinished. A run can also be scripted up front (chunks delivered one per event-loop
// turn, then an outcome), so that code which starts downloads itself (a segments downloader, a
// pack) drives them without a test in the loop.
//
// Extension points for fakes that really write data: onStartCommand/onStopCommand decide how
// a command is carried out, onBytesReceived sees every chunk before the record counts it, and
// onFinishing runs before the record is marked finished.
class FakeDownload : public AbstractDownload {
    Q_OBJECT

public:
    enum class Outcome {
        Finish,         // the record is marked finished, then running(false)
        Fail,           // the script's error becomes the last error, then running(false)
        StopUnfinished, // running(false) without an error
        KeepRunning,    // nothing more happens until the test says so
    };

    enum class StopBehaviour {
        Immediate, // stopping() and running(false) within doCommand(Stop)
        Deferred,  // stopping() only; the test ends it with completeStop()
    };

    explicit FakeDownload(qint64 id = 1, QObject* parent = nullptr);
    ~FakeDownload() override;

    // Network consumer.
    void setNetworkSettings(const AbstractNetworkConsumerSettings& settings) override;
    AbstractNetworkConsumerSettings networkSettings() const override { return m_networkSettings; }
    void setNetworkUsageSettings(const NetworkUsageSettings& settings) override;
    NetworkUsageSettings networkUsageSettings() const override { return m_usageSettings; }
    const QtConnectionsMap& connectionsMap() const override { return m_connections; }
    qint64 speed(NetworkTrafficDirection direction, bool currentOnly) const override;
    AbstractError lastError() const override { return m_lastError; }
    QList<QSslError> lastSslErrors() const override { return {}; }
    QtSslHost lastUnknownSslHost() const override { return {}; }
    QDateTime lastErrorTime() const override { return m_lastErrorTime; }
    void clearLastError() override;
    bool isRunning() const override { return m_running; }

    // Download.
    void doCommand(AbstractDownloadCommand command) override;
    const AbstractDownloadPersistentInfo& info() const override { return m_info; }
    bool setInfo(const AbstractDownloadPersistentInfo& info) override;
    bool updateInfoFields(const AbstractDownloadPersistentInfo& info, qint64 fields,
                          BitFlagsUpdateMode mode) override;
    QSet<AbstractDownloadDestinationType> supportedDestinations() const override;
    bool setInitData(const QVariant& data) override;
    bool setWritersThread(QThread* thread) override;
    void setSettings(const AbstractDownloadSettings& settings) override;
    const AbstractDownloadSettings& settings() const override { return m_settings; }
    quint64 currentTasks() const override;
    AbstractDownloadTasksProgress tasksProgress() const override;
    bool isQueryingInfo() const override { return m_queryingInfo; }
    bool isStopping() const override { return m_stopping; }

    // What the download received.
    QList<AbstractDownloadCommand> commands() const { return m_commands; }
    QVariant initData() const { return m_initData; }
    QThread* writersThread() const { return m_writersThread; }
    int setSettingsCalls() const { return m_setSettingsCalls; }

    // Scripting a run in advance: on Start, each chunk arrives in its own event-loop turn,
    // then the outcome happens (with error for Outcome::Fail).
    void setScript(const QList<qint64>& chunks, Outcome outcome, const AbstractError& error = {});
    void setStopBehaviour(StopBehaviour behaviour) { m_stopBehaviour = behaviour; }
    void setSpeed(qint64 bytesPerSecond) { m_speed = bytesPerSecond; }
    void setQueryingInfo(bool querying) { m_queryingInfo = querying; }

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
    void stopUnfinished();
    // Ends a deferred stop.
    void completeStop();

protected:
    virtual void onStartCommand();
    virtual void onStopCommand();
    // A chunk of size bytes for the file at offset, before the record counts it.
    virtual void onBytesReceived(int fileIndex, qint64 offset, qint64 bytes);
    virtual void onFinishing();

    AbstractDownloadFileInfo& ensureFile(int fileIndex);
    void setRunningState(bool running);

private:
    void runScriptStep();

    AbstractDownloadPersistentInfo m_info;
    AbstractDownloadSettings m_settings;
    AbstractNetworkConsumerSettings m_networkSettings;
    NetworkUsageSettings m_usageSettings;
    QtConnectionsMap m_connections;
    AbstractError m_lastError;
    QDateTime m_lastErrorTime;
    QList<AbstractDownloadCommand> m_commands;
    QVariant m_initData;
    QPointer<QThread> m_writersThread;
    int m_setSettingsCalls = 0;
    qint64 m_speed = 0;
    bool m_running = false;
    bool m_stopping = false;
    bool m_queryingInfo = false;
    StopBehaviour m_stopBehaviour = StopBehaviour::Immediate;

    QList<qint64> m_scriptChunks;
    Outcome m_scriptOutcome = Outcome::KeepRunning;
    AbstractError m_scriptError;
    qsizetype m_scriptPosition = 0;
    quint64 m_runGeneration = 0; // a stop invalidates script steps still queued
};
