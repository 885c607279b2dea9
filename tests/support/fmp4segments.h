#pragma once

#include <QString>
#include <QStringList>

// Fragmented MP4 segments of a short HLS stream (video and audio from ffmpeg's synthetic
// sources), as a segments downloader fetches them: the init segment first, then the media
// segments. Made with ffmpeg in well under a second.
class Fmp4Segments {
public:
    // Writes the stream into dir; files receives the segment paths in download order.
    static bool make(const QString& dir, int seconds, QStringList* files, QString* error);
};
