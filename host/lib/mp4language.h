#pragma once

#include <QString>

// The language of an MP4 file's audio, written in place. A merge copies the streams as they are,
// and an audio rendition whose segments carry no language (the playlist or manifest names it)
// ends up "und"; the two bytes of each audio track's media header then take the language the
// version was chosen for. The file keeps its size and every other byte. Any thread.
class Mp4Language {
public:
    // The ISO 639-2/T code of an ISO 639-1 code or a BCP 47 tag ("de", "de-AT"), or a three-letter
    // code as given; empty when the language is unknown.
    static QString isoCode(const QString& language);

    // Sets the language of every audio track of path whose language is undetermined. False,
    // with error, when the file cannot be read or written or is no MP4; true also when nothing
    // needed a change or the language has no code.
    static bool tagUndeterminedAudio(const QString& path, const QString& language, QString* error);
};
