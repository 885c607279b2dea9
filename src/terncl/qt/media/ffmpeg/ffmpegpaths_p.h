#pragma once

#include <QString>

namespace terncl {

// The folder part of a file path as ffmpeg gets it for its working directory: the text before
// the last slash or backslash. The root separator is kept ("/a" gives "/", "C:\a" gives "C:\");
// a bare file name gives an empty string.
QString ffmpegDirectoryPart(const QString& path);

} // namespace terncl
