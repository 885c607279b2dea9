#pragma once

#include <QString>
#include <QStringList>

// Short single-stream media made with ffmpeg's synthetic sources, and ffprobe's view of a file.
// Each file takes well under a second to make.
class FfmpegTestMedia {
public:
    static QString ffmpeg();  // empty when ffmpeg is not installed
    static QString ffprobe(); // empty when ffprobe is not installed

    // An MP4 file with one video stream and no audio.
    static bool makeVideoOnly(const QString& path, int seconds, QString* error);
    // An M4A file with one AAC audio stream.
    static bool makeAudioOnly(const QString& path, int seconds, QString* error);
    // The kinds of the file's streams ("video", "audio") and its duration in seconds.
    static bool probe(const QString& file, QStringList* streams, double* duration);
};
