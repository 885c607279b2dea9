#pragma once

#include <terncl/inet/qt/download/operationspeedtracker.h>
#include <terncl/ternclshared_export.h>

#include <QHash>
#include <QObject>
#include <QSharedPointer>

#include <ctime>
#include <functional>

class AbstractDownload;

// Measures the combined download speed of the downloads registered with it: on every change of
// a download it adds the growth of the download's downloaded bytes to a shared
// OperationSpeedTracker, and speed() reports the bytes of the last whole second. Bytes present
// before registration and shrinking totals (a restart from zero) are not counted.
// Main thread.
class TERNCL_EXPORT AbstractDownloadsSpeedMeter : public QObject {
    Q_OBJECT

public:
    // Seconds since the epoch. Replaceable so that tests drive time themselves.
    using Clock = std::function<std::time_t()>;

    // A null tracker is replaced with a fresh one.
    explicit AbstractDownloadsSpeedMeter(QSharedPointer<OperationSpeedTracker> tracker = {},
                                         QObject* parent = nullptr);
    ~AbstractDownloadsSpeedMeter() override;

    void registerDownload(AbstractDownload* download);
    // Bytes per second: those of the last closed bucket, or of the current one when the last
    // was empty.
    qint64 speed();

    QSharedPointer<OperationSpeedTracker> tracker() const;
    void setClock(Clock clock);

private Q_SLOTS:
    void onDownloadChanged();
    void onDownloadRunning(bool running);
    void onDownloadDestroyed(QObject* object);
    void processBytesDownloaded(AbstractDownload* download);

private:
    void rollBucket();

    QSharedPointer<OperationSpeedTracker> m_tracker;
    QHash<const QObject*, qint64> m_downloads; // last downloaded-bytes total seen
    Clock m_clock;
};
