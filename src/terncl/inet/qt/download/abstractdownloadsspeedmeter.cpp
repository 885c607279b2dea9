#include "abstractdownloadsspeedmeter.h"

#include "abstractdownload.h"

AbstractDownloadsSpeedMeter::AbstractDownloadsSpeedMeter(
    QSharedPointer<OperationSpeedTracker> tracker, QObject* parent)
    : QObject(parent)
    , m_tracker(tracker ? std::move(tracker) : QSharedPointer<OperationSpeedTracker>::create())
    , m_clock([] { return std::time(nullptr); }) {}

AbstractDownloadsSpeedMeter::~AbstractDownloadsSpeedMeter() = default;

void AbstractDownloadsSpeedMeter::registerDownload(AbstractDownload* download) {
    if (!download || m_downloads.contains(download))
        return;
    // Bytes present before registration are never counted.
    m_downloads.insert(download, download->info().downloadedBytes());
    connect(download, &AbstractDownload::changed, this,
            &AbstractDownloadsSpeedMeter::onDownloadChanged);
    connect(download, &AbstractDownload::running, this,
            &AbstractDownloadsSpeedMeter::onDownloadRunning);
    connect(download, &QObject::destroyed, this, &AbstractDownloadsSpeedMeter::onDownloadDestroyed);
}

qint64 AbstractDownloadsSpeedMeter::speed() {
    rollBucket();
    return m_tracker->lastBucketBytes != 0 ? m_tracker->lastBucketBytes
                                           : m_tracker->currentBucketBytes;
}

QSharedPointer<OperationSpeedTracker> AbstractDownloadsSpeedMeter::tracker() const {
    return m_tracker;
}

void AbstractDownloadsSpeedMeter::setClock(Clock clock) {
    if (clock)
        m_clock = std::move(clock);
}

void AbstractDownloadsSpeedMeter::onDownloadChanged() {
    if (auto* download = qobject_cast<AbstractDownload*>(sender()))
        processBytesDownloaded(download);
}

void AbstractDownloadsSpeedMeter::onDownloadRunning(bool running) {
    // The last bytes of a run may arrive with the stop itself.
    if (running)
        return;
    if (auto* download = qobject_cast<AbstractDownload*>(sender()))
        processBytesDownloaded(download);
}

void AbstractDownloadsSpeedMeter::onDownloadDestroyed(QObject* object) {
    m_downloads.remove(object ? object : sender());
}

void AbstractDownloadsSpeedMeter::processBytesDownloaded(AbstractDownload* download) {
    const qint64 current = download->info().downloadedBytes();
    qint64& seen = m_downloads[download];
    if (current == seen)
        return;
    if (current > seen) {
        rollBucket();
        m_tracker->currentBucketBytes += current - seen;
        m_tracker->totalBytes += current - seen;
    }
    // A shrinking total (a restart from zero) only moves the baseline.
    seen = current;
}

void AbstractDownloadsSpeedMeter::rollBucket() {
    const std::time_t now = m_clock();
    if (std::difftime(now, m_tracker->bucketStart) < 1.0)
        return;
    m_tracker->lastBucketBytes = m_tracker->currentBucketBytes;
    m_tracker->currentBucketBytes = 0;
    m_tracker->bucketStart = now;
}
