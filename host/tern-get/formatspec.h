#pragma once

#include <terncl/inet/qt/download/abstractdownloadresourceversionselector.h>

#include <QList>
#include <QString>

// The versions a user asks for with tern-get's -f FORMAT, chosen from a listing (MediaVersions).
//
//   format      = alternative *( "," alternative )   the first alternative that matches wins
//   alternative = ID                                 a version's id as -F lists it (ids may
//                                                    hold "+"), compared without regard to case
//               | term *( "+" term )                 every term applies
//   term        = "best" | "worst"                   video with audio: highest / lowest
//               | "bestvideo" | "worstvideo"         with an audio term: a video part...
//               | "bestaudio" | "worstaudio"         ...and an audio part, fetched apart, merged
//               | "height" ( "<=" | "<" | ">=" | ">" | "=" ) N    the picture's height
//               | "lang=" LANGUAGE                   the audio language; "de" takes "de-AT" too
//
// A video term alone picks among versions of video without audio, an audio term alone among
// audio-only versions, and a video term with an audio term among versions whose video and audio
// come apart. Without either ("best", "worst" or filters alone) the versions with video and
// audio are taken, muxed or apart, or any version when there are none. Higher ranks by height,
// then bitrate, then frame rate; for a video and an audio part the video decides first. A
// version of unknown height or language never passes a filter on it. Examples: "best",
// "height<=720", "bestvideo+bestaudio+lang=de,best", "dash-720p-1200k+audio-en-128k".
class FormatSpec {
public:
    using Versions = QList<AbstractDownloadResourceVersionSelector::CompositeVersion>;

    // A format whose alternatives are not all either terms or possible ids is refused with a
    // text saying which part is wrong.
    static bool isValid(const QString& wanted, QString* error);
    // The index of the chosen version, or -1 when no alternative matches.
    static int choose(const Versions& versions, const QString& wanted);
};
