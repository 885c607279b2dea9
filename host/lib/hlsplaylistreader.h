#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/inet/qt/download/abstractdownloadsourceinfo.h>

#include <QByteArray>
#include <QList>
#include <QUrl>

// Turns an HLS playlist into what a segments downloader needs: the list of segment sources,
// whether the list is final, and whether the segments are fragmented MP4 that must be remuxed.
// A master playlist yields its variants instead. Anything it cannot download correctly
// (encrypted segments, malformed lines) is an error naming the line; it never guesses.
class HlsPlaylistReader {
public:
    struct Variant {
        QUrl url;
        qint64 bandwidth = 0;
        QString resolution;
    };

    struct Playlist {
        bool isMaster = false;
        QList<Variant> variants;                    // master playlists only
        QList<AbstractDownloadSourceInfo> segments; // media playlists: init segment first
        bool complete = false;                      // "#EXT-X-ENDLIST" was present
        bool hasInitSegment = false;                // "#EXT-X-MAP": fragmented MP4
        double totalDurationSeconds = 0;
    };

    // Code of the "GenericError" that a playlist the reader cannot handle produces.
    static constexpr int PlaylistError = 3;

    // Parses text fetched from baseUrl; relative URIs resolve against it.
    static Playlist parse(const QByteArray& text, const QUrl& baseUrl, AbstractError* error);
    // The variant with the highest bandwidth, or an invalid URL without variants.
    static QUrl bestVariant(const Playlist& playlist);
};
