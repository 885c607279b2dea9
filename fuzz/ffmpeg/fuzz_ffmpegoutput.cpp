// Feeds ffmpeg console output to the manager's parser in randomly sized chunks and checks what
// it reports: progress only once a duration is known, never beyond it, durations that only
// grow. The first byte of an input seeds the chunking; the rest is the output. The seed corpus
// is real ffmpeg output (a merge, a probe, a transcode with frequent progress lines).

#include <terncl/qt/media/ffmpeg/qtffmpegmanager.h>

#include <QCoreApplication>

#include <cstdint>
#include <cstdlib>

namespace {
void check(bool condition) {
    if (!condition)
        std::abort();
}

// What the manager reported for one launch, checked as it arrives.
struct Observer {
    int duration = -1;

    void onDuration(int seconds) {
        check(seconds >= 0);
        // Only a time beyond the known duration replaces it.
        check(duration == -1 || seconds > duration);
        duration = seconds;
    }
    void onProgress(qint64 current, qint64 total) {
        check(duration != -1);
        check(total == duration);
        check(current >= 0 && current <= total);
    }
};

void checkTimeHelpers(const uint8_t* data, size_t size) {
    const QString text = QString::fromLatin1(reinterpret_cast<const char*>(data),
                                             static_cast<qsizetype>(qMin<size_t>(size, 32)));
    const int parsed = QtFfmpegManager::secondsFromFfmpegTimeString(text);
    check(parsed >= -1 || text.contains(QLatin1Char('-')));
    uint32_t value = 0;
    for (size_t i = 0; i < qMin<size_t>(size, 4); ++i)
        value = value << 8 | data[i];
    const int seconds = static_cast<int>(value % (100 * 3600));
    check(QtFfmpegManager::secondsFromFfmpegTimeString(
              QtFfmpegManager::secondsToFfmpegString(seconds)) == seconds);
}
} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    new QCoreApplication(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    checkTimeHelpers(data + 1, size - 1);

    QtFfmpegManager manager(QString(), QStringLiteral("ffmpeg"), nullptr);
    Observer observer;
    QObject::connect(&manager, &QtFfmpegManager::duration,
                     [&](int, int seconds) { observer.onDuration(seconds); });
    QObject::connect(
        &manager, &QtProcessLaunchManager::progress,
        [&](int, qint64 current, qint64 total) { observer.onProgress(current, total); });

    // The parser listens to the manager's own signals, as it does for a real process.
    const int id = 1;
    Q_EMIT manager.launching(id);
    uint32_t random = data[0] * 2654435761u + 1;
    size_t offset = 1;
    while (offset < size) {
        random = random * 1664525u + 1013904223u;
        const size_t chunk = qMin<size_t>(size - offset, 1 + (random >> 24) % 64);
        Q_EMIT manager.dataFromProcess(
            id, QByteArray(reinterpret_cast<const char*>(data + offset), qsizetype(chunk)));
        offset += chunk;
    }
    Q_EMIT manager.finished(id, AbstractError(), 0);
    return 0;
}
