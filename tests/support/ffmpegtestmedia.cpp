#include "ffmpegtestmedia.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>

namespace {
bool run(const QString& program, const QStringList& args, QByteArray* output, QString* error) {
    QProcess process;
    process.start(program, args);
    const bool ok = process.waitForFinished(120000) &&
                    process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (!ok && error) {
        *error = program + QStringLiteral(" failed: ") +
                 QString::fromUtf8(process.readAllStandardError().right(2000));
    }
    if (ok && output)
        *output = process.readAllStandardOutput();
    return ok;
}

QStringList lavfiInput(const QString& source, int seconds) {
    return {QStringLiteral("-hide_banner"), QStringLiteral("-loglevel"),
            QStringLiteral("error"),        QStringLiteral("-y"),
            QStringLiteral("-f"),           QStringLiteral("lavfi"),
            QStringLiteral("-i"),           source,
            QStringLiteral("-t"),           QString::number(seconds)};
}
} // namespace

QString FfmpegTestMedia::ffmpeg() {
    return QStandardPaths::findExecutable(QStringLiteral("ffmpeg"));
}

QString FfmpegTestMedia::ffprobe() {
    return QStandardPaths::findExecutable(QStringLiteral("ffprobe"));
}

bool FfmpegTestMedia::makeVideoOnly(const QString& path, int seconds, QString* error) {
    const QStringList args = lavfiInput(QStringLiteral("testsrc2=size=160x120:rate=25"), seconds)
                             << QStringLiteral("-c:v") << QStringLiteral("mpeg4") << path;
    return run(ffmpeg(), args, nullptr, error);
}

bool FfmpegTestMedia::makeAudioOnly(const QString& path, int seconds, QString* error) {
    const QStringList args = lavfiInput(QStringLiteral("sine=frequency=1000"), seconds)
                             << QStringLiteral("-c:a") << QStringLiteral("aac") << path;
    return run(ffmpeg(), args, nullptr, error);
}

bool FfmpegTestMedia::makeHls(const QString& dir, double seconds, double segmentSeconds, bool fmp4,
                              QString* error) {
    QDir().mkpath(dir);
    const QString keyframes = QStringLiteral("expr:gte(t,n_forced*%1)").arg(segmentSeconds);
    QStringList args{QStringLiteral("-hide_banner"),
                     QStringLiteral("-loglevel"),
                     QStringLiteral("error"),
                     QStringLiteral("-y"),
                     QStringLiteral("-f"),
                     QStringLiteral("lavfi"),
                     QStringLiteral("-i"),
                     QStringLiteral("testsrc2=size=160x120:rate=25"),
                     QStringLiteral("-f"),
                     QStringLiteral("lavfi"),
                     QStringLiteral("-i"),
                     QStringLiteral("sine=frequency=1000"),
                     QStringLiteral("-t"),
                     QString::number(seconds),
                     QStringLiteral("-c:v"),
                     QStringLiteral("libx264"),
                     QStringLiteral("-preset"),
                     QStringLiteral("ultrafast"),
                     QStringLiteral("-force_key_frames"),
                     keyframes,
                     QStringLiteral("-c:a"),
                     QStringLiteral("aac"),
                     QStringLiteral("-f"),
                     QStringLiteral("hls"),
                     QStringLiteral("-hls_time"),
                     QString::number(segmentSeconds),
                     QStringLiteral("-hls_playlist_type"),
                     QStringLiteral("vod"),
                     QStringLiteral("-hls_list_size"),
                     QStringLiteral("0")};
    if (fmp4)
        args << QStringLiteral("-hls_segment_type") << QStringLiteral("fmp4")
             << QStringLiteral("-hls_fmp4_init_filename") << QStringLiteral("init.mp4");
    args << QStringLiteral("-hls_segment_filename")
         << QDir(dir).filePath(fmp4 ? QStringLiteral("seg_%04d.m4s")
                                    : QStringLiteral("seg_%04d.ts"))
         << QDir(dir).filePath(QStringLiteral("index.m3u8"));
    return run(ffmpeg(), args, nullptr, error);
}

bool FfmpegTestMedia::makeDash(const QString& dir, double seconds, double segmentSeconds,
                               bool timeline, QString* error) {
    QDir().mkpath(dir);
    const QString command =
        QStringLiteral("-hide_banner -loglevel error -y -f lavfi -i testsrc2=size=160x120:rate=25 "
                       "-f lavfi -i sine=frequency=1000 -t %1 -c:v libx264 -preset ultrafast "
                       "-force_key_frames expr:gte(t,n_forced*%2) -c:a aac -f dash "
                       "-seg_duration %2 -use_template 1 -use_timeline %3")
            .arg(seconds)
            .arg(segmentSeconds)
            .arg(timeline ? 1 : 0);
    QStringList arguments = command.split(u' ');
    // Segments named by $Time$. The first AAC packet starts before zero, and ffmpeg names its
    // file by that time while the timeline says 0: shifting the timestamps to zero keeps both
    // the same.
    if (timeline)
        arguments << QStringLiteral("-avoid_negative_ts") << QStringLiteral("make_zero")
                  << QStringLiteral("-media_seg_name")
                  << QStringLiteral("chunk-$RepresentationID$-$Time$.$ext$");
    return run(ffmpeg(), arguments << QDir(dir).filePath(QStringLiteral("manifest.mpd")), nullptr,
               error);
}

QStringList FfmpegTestMedia::segmentFiles(const QString& playlistPath) {
    QStringList files;
    QFile file(playlistPath);
    if (!file.open(QIODevice::ReadOnly))
        return files;
    const QDir dir = QFileInfo(playlistPath).dir();
    for (const QByteArray& raw : file.readAll().split('\n')) {
        const QString line = QString::fromUtf8(raw).trimmed();
        if (line.startsWith(QStringLiteral("#EXT-X-MAP:URI=\""))) {
            files.append(dir.filePath(line.section(u'"', 1, 1)));
        } else if (!line.isEmpty() && !line.startsWith(u'#')) {
            files.append(dir.filePath(line));
        }
    }
    return files;
}

bool FfmpegTestMedia::probe(const QString& file, QStringList* streams, double* duration) {
    QByteArray output;
    const QStringList args{QStringLiteral("-v"),
                           QStringLiteral("error"),
                           QStringLiteral("-print_format"),
                           QStringLiteral("json"),
                           QStringLiteral("-show_format"),
                           QStringLiteral("-show_streams"),
                           file};
    if (!run(ffprobe(), args, &output, nullptr))
        return false;
    const QJsonObject root = QJsonDocument::fromJson(output).object();
    streams->clear();
    const QJsonArray list = root.value(QStringLiteral("streams")).toArray();
    for (const auto& stream : list)
        streams->append(stream.toObject().value(QStringLiteral("codec_type")).toString());
    *duration = root.value(QStringLiteral("format"))
                    .toObject()
                    .value(QStringLiteral("duration"))
                    .toString()
                    .toDouble();
    return true;
}
