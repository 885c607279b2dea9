#pragma once

#include <QString>
#include <QStringList>

// Makes short test media with ffmpeg's synthetic sources, in well under a second each.
class MediaMaker {
public:
    static QString ffmpeg();  // empty when ffmpeg is not installed
    static QString ffprobe(); // empty when ffprobe is not installed

    // An HLS stream "index.m3u8" with segments of segmentSeconds in dir (MPEG-TS, or fragmented
    // MP4 with an init segment). Returns false and fills error on failure.
    static bool makeHls(const QString& dir, double seconds, double segmentSeconds, bool fmp4,
                        QString* error);
    // The segment files of an HLS stream in playlist order.
    static QStringList segmentFiles(const QString& playlistPath);
    // ffprobe's view of a media file: stream kinds ("video", "audio") and duration in seconds.
    static bool probe(const QString& file, QStringList* streams, double* duration);
};
