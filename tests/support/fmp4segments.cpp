#include "fmp4segments.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>

bool Fmp4Segments::make(const QString& dir, int seconds, QStringList* files, QString* error) {
    const QString length = QString::number(seconds);
    const QStringList args{QStringLiteral("-hide_banner"),
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
                           length,
                           QStringLiteral("-c:v"),
                           QStringLiteral("libx264"),
                           QStringLiteral("-preset"),
                           QStringLiteral("ultrafast"),
                           QStringLiteral("-g"),
                           QStringLiteral("25"),
                           QStringLiteral("-sc_threshold"),
                           QStringLiteral("0"),
                           QStringLiteral("-c:a"),
                           QStringLiteral("aac"),
                           QStringLiteral("-f"),
                           QStringLiteral("hls"),
                           QStringLiteral("-hls_time"),
                           QStringLiteral("1"),
                           QStringLiteral("-hls_playlist_type"),
                           QStringLiteral("vod"),
                           QStringLiteral("-hls_segment_type"),
                           QStringLiteral("fmp4"),
                           QStringLiteral("-hls_fmp4_init_filename"),
                           QStringLiteral("init.mp4"),
                           QStringLiteral("-hls_segment_filename"),
                           QDir(dir).filePath(QStringLiteral("seg_%03d.m4s")),
                           QDir(dir).filePath(QStringLiteral("index.m3u8"))};
    QProcess process;
    process.start(QStandardPaths::findExecutable(QStringLiteral("ffmpeg")), args);
    if (!process.waitForFinished(120000) || process.exitCode() != 0) {
        *error = QString::fromUtf8(process.readAllStandardError().right(2000));
        return false;
    }
    QFile playlist(QDir(dir).filePath(QStringLiteral("index.m3u8")));
    if (!playlist.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("no playlist");
        return false;
    }
    files->clear();
    files->append(QDir(dir).filePath(QStringLiteral("init.mp4")));
    while (!playlist.atEnd()) {
        const QString line = QString::fromUtf8(playlist.readLine()).trimmed();
        if (!line.isEmpty() && !line.startsWith(QLatin1Char('#')))
            files->append(QDir(dir).filePath(line));
    }
    return files->size() > 1;
}
