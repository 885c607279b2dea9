#include "ffmpegtestmedia.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace {
// ffmpeg's arguments from one line, its parts separated by single blanks.
QStringList words(const QString& line) {
    return line.split(u' ');
}

const QString quiet = u"-hide_banner -loglevel error -y "_s;
const QString videoAndAudio =
    u"-f lavfi -i testsrc2=size=160x120:rate=25 -f lavfi -i sine=frequency=1000 "
    "-t %1 -c:v libx264 -preset ultrafast -force_key_frames "
    "expr:gte(t,n_forced*%2) -c:a aac "_s;
} // namespace

bool FfmpegTestMedia::run(const QString& program, const QStringList& args, QByteArray* output,
                          QString* error) {
    QProcess process;
    process.start(program, args);
    const bool ok = process.waitForFinished(120000) &&
                    process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (!ok && error) {
        *error = program + u" failed: "_s +
                 QString::fromUtf8(process.readAllStandardError().right(2000));
    }
    if (ok && output)
        *output = process.readAllStandardOutput();
    return ok;
}

QString FfmpegTestMedia::ffmpeg() {
    return QStandardPaths::findExecutable(u"ffmpeg"_s);
}

QString FfmpegTestMedia::ffprobe() {
    return QStandardPaths::findExecutable(u"ffprobe"_s);
}

bool FfmpegTestMedia::makeVideoOnly(const QString& path, int seconds, QString* error) {
    const QString line = quiet + u"-f lavfi -i testsrc2=size=160x120:rate=25 -t %1 "
                                 "-c:v mpeg4"_s;
    return run(ffmpeg(), words(line.arg(seconds)) << path, nullptr, error);
}

bool FfmpegTestMedia::makeAudioOnly(const QString& path, int seconds, QString* error) {
    const QString line = quiet + u"-f lavfi -i sine=frequency=1000 -t %1 -c:a aac"_s;
    return run(ffmpeg(), words(line.arg(seconds)) << path, nullptr, error);
}

bool FfmpegTestMedia::makeHls(const QString& dir, double seconds, double segmentSeconds, bool fmp4,
                              QString* error) {
    QDir().mkpath(dir);
    QStringList args = words(quiet + videoAndAudio.arg(seconds).arg(segmentSeconds) +
                             u"-f hls -hls_time %1 -hls_playlist_type vod "
                             "-hls_list_size 0 -hls_segment_filename"_s.arg(segmentSeconds));
    args << QDir(dir).filePath(fmp4 ? u"seg_%04d.m4s"_s : u"seg_%04d.ts"_s);
    if (fmp4)
        args << words(u"-hls_segment_type fmp4 -hls_fmp4_init_filename init.mp4"_s);
    return run(ffmpeg(), args << QDir(dir).filePath(u"index.m3u8"_s), nullptr, error);
}

bool FfmpegTestMedia::makeDash(const QString& dir, double seconds, double segmentSeconds,
                               QString* error) {
    QDir().mkpath(dir);
    const QString line =
        quiet + videoAndAudio.arg(seconds).arg(segmentSeconds) +
        u"-f dash -seg_duration %1 -use_template 1 -use_timeline 0"_s.arg(segmentSeconds);
    return run(ffmpeg(), words(line) << QDir(dir).filePath(u"manifest.mpd"_s), nullptr, error);
}

QStringList FfmpegTestMedia::segmentFiles(const QString& playlistPath) {
    QStringList files;
    QFile file(playlistPath);
    if (!file.open(QIODevice::ReadOnly))
        return files;
    const QDir dir = QFileInfo(playlistPath).dir();
    for (const QByteArray& raw : file.readAll().split('\n')) {
        const QString line = QString::fromUtf8(raw).trimmed();
        if (line.startsWith(u"#EXT-X-MAP:URI=\""_s)) {
            files.append(dir.filePath(line.section(u'"', 1, 1)));
        } else if (!line.isEmpty() && !line.startsWith(u'#')) {
            files.append(dir.filePath(line));
        }
    }
    return files;
}

bool FfmpegTestMedia::probe(const QString& file, QStringList* streams, double* duration) {
    QByteArray output;
    const QStringList args = words(u"-v error -print_format json -show_format -show_streams"_s)
                             << file;
    if (!run(ffprobe(), args, &output, nullptr))
        return false;
    const QJsonObject root = QJsonDocument::fromJson(output).object();
    streams->clear();
    const QJsonArray list = root.value(u"streams"_s).toArray();
    for (const auto& stream : list)
        streams->append(stream.toObject().value(u"codec_type"_s).toString());
    *duration = root.value(u"format"_s).toObject().value(u"duration"_s).toString().toDouble();
    return true;
}
