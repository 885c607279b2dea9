#pragma once

#include "dashmanifestreader.h"
#include "hlsplaylistreader.h"
#include "htmlmediapagereader.h"

#include <terncl/inet/qt/download/abstractdownloadresourceversionselector.h>
#include <terncl/inet/qt/download/abstractdownloadsourceinfo.h>

#include <QList>
#include <QString>
#include <QUrl>

#include <utility>

// Turns what the media parsers found into the versions a resource version selector holds, ready
// for a media download's children and for a listing the user picks from.
//
// Every version carries in its details (a QVariantHash) what its child download needs:
// - "id": a short stable name a user can type to pick the version, such as
//   "hls-1080p-2500k+audio-de", "dash-720p-1200k+audio-en-128k" or "file-2" (top-level
//   versions only; unique within a listing);
// - "sources": the AbstractDownloadSourceInfo hashes to fetch, with the request headers: the
//   one file for "downloadswww", the media playlist for "downloadsm3ustm", the init segment and
//   the media segments for "downloadsfragments";
// - "remux": true when the joined segments are fragmented MP4 that must be remuxed;
// - "codecs": the codecs the playlist or manifest names, such as "avc1.64001f" (a QStringList);
// - "estimatedSize": bytes, when the size is not known but bitrate and duration give an
//   estimate. A listing shows it marked as an estimate; it never goes into Version::size.
//
// Media types: a variant or representation with video and audio is VideoWithAudio, a video
// stream whose audio comes apart is VideoOnly, an audio stream AudioOnly. HLS formats at master
// level are a guess from CODECS ("mp4" for codecs only carried in fragmented MP4, such as
// AV1, HEVC, Opus or FLAC; otherwise "ts"), replaced by the truth once applyMediaPlaylist has
// seen the media playlist.
class MediaVersions {
public:
    using Selector = AbstractDownloadResourceVersionSelector;
    using Version = Selector::Version;
    using CompositeVersion = Selector::CompositeVersion;

    // Module names of the child downloads (Version::protocol).
    static const QString PlainFileModule; // "downloadswww"
    static const QString HlsModule;       // "downloadsm3ustm"
    static const QString FragmentsModule; // "downloadsfragments"

    // Version::originType. Only PlainFile versions can be measured by a plain request, which is
    // what a size query does for origin 0 and nothing else.
    enum Origin : int { PlainFile = 0, HlsStream = 1, DashStream = 2 };

    // What every request for a piece of the resource carries.
    struct Request {
        QList<std::pair<QByteArray, QByteArray>> headers;
        QUrl referrer;
    };

    struct Listing {
        QList<CompositeVersion> versions;
        QList<Version> subtitles; // chosen apart from the versions; ids "hls-subs-en" and alike
    };

    // A master playlist: one composite per variant and audio rendition of its group, single
    // versions for variants that carry their audio (or have none), and every audio rendition on
    // its own.
    static Listing fromHlsMaster(const HlsPlaylistReader::Playlist& master, const QUrl& masterUrl,
                                 const Request& request = {});
    // A media playlist given directly: one version, complete with size or estimate.
    static Listing fromHlsMedia(const HlsPlaylistReader::Playlist& media, const QUrl& playlistUrl,
                                const Request& request = {});
    // A DASH manifest: composites of every video and audio representation (video without audio
    // only when there is no audio), and every audio representation on its own.
    static Listing fromDash(const DashManifestReader::Manifest& manifest, const QUrl& manifestUrl,
                            const Request& request = {});
    // The plain media files a page links to. Its playlists and manifests are for the caller to
    // fetch and list with the functions above; append() joins the listings.
    static Listing fromPage(const HtmlMediaPageReader::Page& page, const QUrl& pageUrl,
                            const Request& request = {});
    // Adds more to listing, renaming ids of more that are taken already ("-2", "-3", ...).
    static void append(Listing* listing, const Listing& more);

    // Updates an HLS version (part -1) or one of its parts with its media playlist once read:
    // the format, fragment count and duration, the exact size when every segment is a byte
    // range, and otherwise the version's estimate from its bandwidth and the duration.
    static void applyMediaPlaylist(CompositeVersion* version, int part,
                                   const HlsPlaylistReader::Playlist& media);

    struct Size {
        qint64 bytes = -1; // -1: neither known nor estimated
        bool estimated = false;
    };
    // The size to show: the exact one when every part's size is known, else the estimate.
    static Size sizeOf(const CompositeVersion& version);

    static QString id(const Version& version);
    // The index of the version with the id (compared without regard to case), or -1.
    static int indexOf(const QList<CompositeVersion>& versions, const QString& id);
    static QList<AbstractDownloadSourceInfo> sources(const Version& version);
    static bool needsRemux(const Version& version);
    // The codecs of a version and, in order, of its parts; empty when none were named.
    static QStringList codecs(const CompositeVersion& version);
};
