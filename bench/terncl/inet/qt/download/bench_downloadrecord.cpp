// How long storing and restoring a download record takes as it grows, and how many change
// notifications per second the speed meter absorbs.
// Run: bench_downloadrecord [FILES=1000] [SECTIONS=16] [ROUNDS=50]
#include <terncl/inet/qt/download/abstractdownload.h>
#include <terncl/inet/qt/download/abstractdownloadsspeedmeter.h>

#include <QCoreApplication>
#include <QElapsedTimer>

#include <cstdio>

namespace {
class CountingDownload : public AbstractDownload {
public:
    CountingDownload()
        : AbstractDownload(1) {
        m_info.files.append(AbstractDownloadFileInfo());
    }

    void grow(qint64 bytes) {
        m_info.files.first().sections = {{0, -1, m_info.downloadedBytes() + bytes}};
        Q_EMIT changed(false);
    }

    void setNetworkSettings(const AbstractNetworkConsumerSettings&) override {}
    AbstractNetworkConsumerSettings networkSettings() const override { return {}; }
    void setNetworkUsageSettings(const NetworkUsageSettings&) override {}
    NetworkUsageSettings networkUsageSettings() const override { return {}; }
    const QtConnectionsMap& connectionsMap() const override { return m_connections; }
    qint64 speed(NetworkTrafficDirection, bool) const override { return 0; }
    AbstractError lastError() const override { return {}; }
    QList<QSslError> lastSslErrors() const override { return {}; }
    QtSslHost lastUnknownSslHost() const override { return {}; }
    QDateTime lastErrorTime() const override { return {}; }
    void clearLastError() override {}
    bool isRunning() const override { return true; }
    void doCommand(AbstractDownloadCommand) override {}
    const AbstractDownloadPersistentInfo& info() const override { return m_info; }
    bool setInfo(const AbstractDownloadPersistentInfo& info) override {
        m_info = info;
        return true;
    }
    bool updateInfoFields(const AbstractDownloadPersistentInfo&, qint64,
                          BitFlagsUpdateMode) override {
        return false;
    }
    QSet<AbstractDownloadDestinationType> supportedDestinations() const override { return {}; }
    bool setWritersThread(QThread*) override { return false; }
    void setSettings(const AbstractDownloadSettings&) override {}
    const AbstractDownloadSettings& settings() const override { return m_settings; }
    quint64 currentTasks() const override { return 0; }
    AbstractDownloadTasksProgress tasksProgress() const override { return {}; }
    bool isQueryingInfo() const override { return false; }
    bool isStopping() const override { return false; }

private:
    AbstractDownloadPersistentInfo m_info;
    AbstractDownloadSettings m_settings;
    QtConnectionsMap m_connections;
};

AbstractDownloadPersistentInfo makeRecord(int files, int sections) {
    AbstractDownloadPersistentInfo info;
    info.resourceUrl = QStringLiteral("https://example.org/collection");
    info.customData.insert(QStringLiteral("downloadedSegmentsTotalBytes"), qint64(1) << 33);
    for (int f = 0; f < files; ++f) {
        AbstractDownloadFileInfo file;
        file.name = QStringLiteral("folder/file %1.bin").arg(f);
        file.size = qint64(sections) * 1'000'000;
        for (int s = 0; s < sections; ++s)
            file.sections.append({qint64(s) * 1'000'000, 1'000'000, 500'000});
        info.files.append(file);
    }
    return info;
}

double microsecondsPer(qint64 nanoseconds, int rounds) {
    return double(nanoseconds) / 1000.0 / rounds;
}
} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int files = argc > 1 ? std::atoi(argv[1]) : 1000;
    const int sections = argc > 2 ? std::atoi(argv[2]) : 16;
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 50;

    const auto record = makeRecord(files, sections);
    QElapsedTimer timer;
    timer.start();
    QByteArray json;
    for (int i = 0; i < rounds; ++i)
        json = record.toJson();
    const auto toJson = timer.nsecsElapsed();
    timer.restart();
    AbstractDownloadPersistentInfo back;
    for (int i = 0; i < rounds; ++i)
        back = AbstractDownloadPersistentInfo::fromJson(json);
    const auto fromJson = timer.nsecsElapsed();
    if (back != record) {
        std::fprintf(stderr, "round trip changed the record\n");
        return 1;
    }
    std::printf("record of %d files x %d sections, %lld bytes of JSON\n", files, sections,
                static_cast<long long>(json.size()));
    std::printf("  toJson:   %.1f us\n", microsecondsPer(toJson, rounds));
    std::printf("  fromJson: %.1f us\n", microsecondsPer(fromJson, rounds));

    CountingDownload download;
    AbstractDownloadsSpeedMeter meter;
    meter.registerDownload(&download);
    constexpr int changes = 1'000'000;
    timer.restart();
    for (int i = 0; i < changes; ++i)
        download.grow(1000);
    const auto metering = timer.nsecsElapsed();
    std::printf("speed meter: %.0f changes per second (%lld bytes counted)\n",
                changes / (double(metering) / 1e9),
                static_cast<long long>(meter.tracker()->totalBytes));
    return 0;
}
