#include "ffmpegtestmedia.h"

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
