#pragma once

#include "mediaparse.h"

#include <terncl/core/abstracterror.h>
#include <terncl/inet/qt/download/abstractdownloadsourceinfo.h>

#include <QByteArray>
#include <QList>
#include <QStringList>
#include <QUrl>

// Turns an HLS playlist into what the host needs to fetch it. A media playlist yields what a
// segments downloader takes: the segment sources, whether the list is final, and whether the
// segments are fragmented MP4 that must be remuxed. A master playlist yields its variant
// streams and its renditions (alternative audio and subtitles). Every URI resolves to http or
// https or the playlist is refused; anything the host cannot fetch correctly (encrypted
// segments, malformed lines) is an error naming the line: the reader never guesses.
class HlsPlaylistReader {
public:
    // One "#EXT-X-STREAM-INF" entry of a master playlist.
    struct Variant {
        QUrl url; // its media playlist
        qint64 bandwidth = 0;
        qint64 averageBandwidth = 0; // 0 when the playlist does not give it
        int width = 0;               // 0 when the playlist gives no RESOLUTION
        int height = 0;
        double frameRate = 0;
        QStringList codecs; // as listed, such as "avc1.64001f" and "mp4a.40.2"
        QString audioGroup; // GROUP-ID of its audio renditions; empty: none
        QString subtitlesGroup;
    };

    enum class RenditionType { Audio, Subtitles, Video, ClosedCaptions };

    // One "#EXT-X-MEDIA" entry of a master playlist.
    struct Rendition {
        RenditionType type = RenditionType::Audio;
        QString groupId;
        QString name;
        QString language;
        bool isDefault = false;
        bool autoSelect = false;
        QUrl url; // empty: the rendition is carried in the variant stream itself
    };

    struct Playlist {
        bool isMaster = false;
        QList<Variant> variants;                    // master playlists only
        QList<Rendition> renditions;                // master playlists only
        QList<AbstractDownloadSourceInfo> segments; // media playlists: init segment first
        bool complete = false;                      // "#EXT-X-ENDLIST" was present
        bool hasInitSegment = false;                // "#EXT-X-MAP"
        double totalDurationSeconds = 0;
        // The sum of the segments' sizes when every segment (the init segment too) is a byte
        // range; otherwise -1.
        qint64 exactSize = -1;
        // The container of a media playlist's segments: "mp4" for fragmented MP4 (an init
        // segment, or segment names ending in ".m4s", ".mp4" and the like), "aac" or "mp3" for
        // packed audio, "vtt" for subtitles, otherwise "ts".
        QString format;
    };

    // Code of the "GenericError" that a malformed playlist produces.
    static constexpr int PlaylistError = MediaParse::Malformed;

    // Parses text fetched from baseUrl; relative URIs resolve against it. On failure returns an
    // empty playlist and sets error (codes of MediaParse).
    static Playlist parse(const QByteArray& text, const QUrl& baseUrl, AbstractError* error);
    // The variant with the highest bandwidth, or an invalid URL without variants.
    static QUrl bestVariant(const Playlist& playlist);
};
