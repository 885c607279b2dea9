#pragma once

#include "curlmulti.h"
#include "curlprobe.h"

#include <terncl/inet/qt/download/abstractdownload.h>

#include <QPointer>

// What a size query's child of a plain file does here: learns the file's size from the head of
// one GET of its first byte (the total of a 206's Content-Range, or a 200's length), reads no
// body, writes no data, and finishes. The size goes into its one file record; a size
// the server does not give stays -1, which is no error. Main thread.
class SizeProbeDownload final : public AbstractDownload {
    Q_OBJECT

public:
    SizeProbeDownload(qint64 id, CurlMulti* network, QObject* parent = nullptr);
    ~SizeProbeDownload() override;

    void doCommand(AbstractDownloadCommand command) override;
    const AbstractDownloadPersistentInfo& info() const override { return m_info; }
    bool setInfo(const AbstractDownloadPersistentInfo& info) override;
    bool updateInfoFields(const AbstractDownloadPersistentInfo& info, qint64 fields,
                          BitFlagsUpdateMode mode) override;
    QSet<AbstractDownloadDestinationType> supportedDestinations() const override { return {}; }
    bool setWritersThread(QThread*) override { return true; }
    void setSettings(const AbstractDownloadSettings& settings) override { m_settings = settings; }
    const AbstractDownloadSettings& settings() const override { return m_settings; }
    quint64 currentTasks() const override;
    AbstractDownloadTasksProgress tasksProgress() const override { return {}; }
    bool isQueryingInfo() const override { return !m_probe.isNull(); }
    bool isStopping() const override { return false; }

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
    void clearLastError() override;
    bool isRunning() const override { return !m_probe.isNull(); }

protected:
    AbstractDownloadPersistentInfo& rwInfo() override { return m_info; }

private:
    void request();
    void onFinished(CurlProbe* probe);
    void end(qint64 size, const AbstractError& error);

    QPointer<CurlMulti> m_network;
    QPointer<CurlProbe> m_probe;
    AbstractDownloadPersistentInfo m_info;
    AbstractDownloadSettings m_settings;
    AbstractNetworkConsumerSettings m_networkSettings;
    NetworkUsageSettings m_usageSettings;
    QtConnectionsMap m_connections;
    AbstractError m_lastError;
    QDateTime m_lastErrorTime;
};
