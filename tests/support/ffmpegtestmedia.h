#pragma once

#include <QString>
#include <QStringList>

// Short media made with ffmpeg's synthetic sources, and ffprobe's view of a file.
// Each file takes well under a second to make.
class FfmpegTestMedia {
public:
    static QString ffmpeg();  // empty when ffmpeg is not installed
    static QString ffprobe(); // empty when ffprobe is not installed
    // Runs program to its end; on success its stdout goes to output, on failure the end of its
    // stderr to error (either may be null).
    static bool run(const QString& program, const QStringList& args, QByteArray* output,
                    QString* error);

    // An MP4 file with one video stream and no audio.
    static bool makeVideoOnly(const QString& path, int seconds, QString* error);
    // An M4A file with one AAC audio stream.
    static bool makeAudioOnly(const QString& path, int seconds, QString* error);
    // An HLS stream "index.m3u8" with video and audio in segments of segmentSeconds in dir:
    // MPEG-TS, or fragmented MP4 with an init segment "init.mp4".
    static bool makeHls(const QString& dir, double seconds, double segmentSeconds, bool fmp4,
                        QString* error);
    // A DASH stream "manifest.mpd" with a video and an audio representation in fragmented MP4
    // segments of segmentSeconds in dir, addressed by $Number$.
    static bool makeDash(const QString& dir, double seconds, double segmentSeconds, QString* error);
    // The files an HLS playlist names, in download order (the init segment first).
    static QStringList segmentFiles(const QString& playlistPath);
    // The kinds of the file's streams ("video", "audio") and its duration in seconds.
    static bool probe(const QString& file, QStringList* streams, double* duration);
};
