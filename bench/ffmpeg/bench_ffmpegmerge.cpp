// Merges a 60 s video file and a 60 s audio file through QtFfmpegAvMerger and by running the
// same ffmpeg command directly, alternating rounds in the same run, and prints the time of each
// and their ratio (merger / direct; the target is at most 1.05).
//
// Usage: bench_ffmpegmerge [ROUNDS=9] [SECONDS=60]

#include <terncl/qt/media/ffmpeg/qtffmpegavmerger.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {
bool run(const QString& program, const QStringList& args) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, args, QIODeviceBase::ReadOnly);
    return process.waitForFinished(-1) && process.exitStatus() == QProcess::NormalExit &&
           process.exitCode() == 0;
}

bool makeInputs(const QString& ffmpeg, const QString& video, const QString& audio, int seconds) {
    const QString duration = QString::number(seconds);
    const QStringList common{QStringLiteral("-hide_banner"), QStringLiteral("-y"),
                             QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i")};
    return run(ffmpeg, QStringList(common)
                           << QStringLiteral("testsrc2=size=640x360:rate=25")
                           << QStringLiteral("-t") << duration << QStringLiteral("-c:v")
                           << QStringLiteral("mpeg4") << QStringLiteral("-q:v")
                           << QStringLiteral("5") << video) &&
           run(ffmpeg, QStringList(common)
                           << QStringLiteral("sine=frequency=440:sample_rate=48000")
                           << QStringLiteral("-t") << duration << QStringLiteral("-c:a")
                           << QStringLiteral("aac") << audio);
}

// The command the merger builds for these files.
QStringList mergeArguments(const QString& video, const QString& audio, const QString& result) {
    return {QStringLiteral("-y"),
            QStringLiteral("-i"),
            video,
            QStringLiteral("-i"),
            audio,
            QStringLiteral("-vcodec"),
            QStringLiteral("copy"),
            QStringLiteral("-acodec"),
            QStringLiteral("copy"),
            result};
}

double directMs(const QString& ffmpeg, const QStringList& args, const QString& workingDir) {
    QElapsedTimer timer;
    timer.start();
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setWorkingDirectory(workingDir);
    process.start(ffmpeg, args, QIODeviceBase::ReadOnly);
    if (!process.waitForFinished(-1) || process.exitCode() != 0)
        std::fprintf(stderr, "direct merge failed\n");
    return double(timer.nsecsElapsed()) / 1e6;
}

double mergerMs(QtFfmpegAvMerger& merger, const QString& video, const QString& audio,
                const QString& result) {
    QEventLoop loop;
    const int id = merger.nextId();
    const auto connection = QObject::connect(
        &merger, &QtFfmpegAvMerger::finished,
        [&](int finishedId, const AbstractError& error, qint64 size) {
            if (finishedId != id)
                return;
            if (error.isSet() || size <= 0)
                std::fprintf(stderr, "merge failed: %s\n", qPrintable(error.toText()));
            loop.quit();
        });
    QElapsedTimer timer;
    timer.start();
    merger.merge(id, video, audio, result, QString());
    loop.exec();
    const double ms = double(timer.nsecsElapsed()) / 1e6;
    QObject::disconnect(connection);
    return ms;
}

double median(QList<double> values) {
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}
} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 9;
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 60;
    const QString ffmpeg = QStandardPaths::findExecutable(QStringLiteral("ffmpeg"));
    QTemporaryDir dir;
    if (ffmpeg.isEmpty() || !dir.isValid()) {
        std::fprintf(stderr, "ffmpeg or a temporary folder is missing\n");
        return 1;
    }
    const QString video = dir.filePath(QStringLiteral("video.mp4"));
    const QString audio = dir.filePath(QStringLiteral("audio.m4a"));
    if (!makeInputs(ffmpeg, video, audio, seconds)) {
        std::fprintf(stderr, "could not make the inputs\n");
        return 1;
    }
    std::printf("inputs: %lld + %lld bytes, %d s\n", QFileInfo(video).size(),
                QFileInfo(audio).size(), seconds);

    auto manager = QSharedPointer<QtFfmpegManager>::create(QFileInfo(ffmpeg).path(),
                                                           QStringLiteral("ffmpeg"), nullptr);
    QtFfmpegAvMerger merger(manager);
    const QString direct = dir.filePath(QStringLiteral("direct.mp4"));
    const QString merged = dir.filePath(QStringLiteral("merged.mp4"));
    QList<double> directTimes, mergerTimes;
    for (int round = 0; round < rounds; ++round) {
        // Alternating which goes first keeps the disk cache from favouring either side.
        if (round % 2 == 0) {
            directTimes << directMs(ffmpeg, mergeArguments(video, audio, direct), dir.path());
            mergerTimes << mergerMs(merger, video, audio, merged);
        } else {
            mergerTimes << mergerMs(merger, video, audio, merged);
            directTimes << directMs(ffmpeg, mergeArguments(video, audio, direct), dir.path());
        }
        std::printf("round %d: direct %.0f ms, merger %.0f ms\n", round + 1, directTimes.last(),
                    mergerTimes.last());
    }
    const double directMedian = median(directTimes), mergerMedian = median(mergerTimes);
    std::printf("median of %d rounds: direct %.0f ms, merger %.0f ms\n", rounds, directMedian,
                mergerMedian);
    std::printf("ratio merger/direct: %.3f (target <= 1.05)\n", mergerMedian / directMedian);
    return 0;
}
