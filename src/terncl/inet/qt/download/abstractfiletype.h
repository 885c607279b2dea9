#pragma once

#include <QMetaType>

// What a file holds, as far as the download knows. Stored in file records.
enum class AbstractFileType : qint32 {
    Unknown = 0,
    Video = 1,
    Audio = 2,
    Subtitles = 3,
    Image = 4,
    Archive = 5,
    Document = 6,
    Program = 7,
    Playlist = 8,
    Other = 9,
};

Q_DECLARE_METATYPE(AbstractFileType)
