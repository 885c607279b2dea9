#pragma once

#include "curlmulti.h"
#include "curlprobe.h"
#include "mediaversions.h"

#include <terncl/core/abstracterror.h>

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QUrl>

// Finds out what a media URL offers: reads it (an HLS master or media playlist, a DASH manifest
// or a web page), expands the playlists and manifests a page links to, and reads the media
// playlist of every HLS version, so that the listing has formats, durations and exact sizes or
// estimates. Media segments are never requested. Playlists are read at once, each address once.
// Main thread; one probe per object.
class MediaProbe : public QObject {
    Q_OBJECT

public:
    enum class Kind { Unknown, HlsMaster, HlsMedia, Dash, Page };

    // At most this many bytes of a playlist, manifest or page.
    static constexpr qint64 MaxTextBytes = 16 * 1024 * 1024;

    MediaProbe(CurlMulti* network, QObject* parent = nullptr);
    ~MediaProbe() override;

    // What the text fetched from url is, judged by its start, then its type and the address.
    static Kind kindOf(const QByteArray& text, const QString& contentType, const QUrl& url);

    void start(const QUrl& url, const MediaVersions::Request& request = {});
    void abort();

    Kind kind() const { return m_kind; }
    QString title() const { return m_title; } // the page's title, or the address's base name
    const MediaVersions::Listing& listing() const { return m_listing; }

Q_SIGNALS:
    void finished(const AbstractError& error);

private:
    struct Pending {
        QUrl url;
        int depth = 0; // 0: the URL itself; 1: linked from a page
        bool mediaPlaylist = false;
    };

    void fetch(const Pending& what);
    void onFetched(CurlProbe* probe, const Pending& what);
    void onText(const QByteArray& text, const QString& contentType, const QUrl& url, int depth);
    void onPage(const QByteArray& text, const QByteArray& charset, const QUrl& url);
    void onMediaPlaylist(const QByteArray& text, const QUrl& url);
    void addListing(const MediaVersions::Listing& listing);
    void fetchMediaPlaylists();
    void fail(const AbstractError& error);
    void checkDone();

    QPointer<CurlMulti> m_network;
    MediaVersions::Request m_request;
    QList<QPointer<CurlProbe>> m_probes;
    QHash<QUrl, HlsPlaylistReader::Playlist> m_mediaPlaylists;
    Kind m_kind = Kind::Unknown;
    QString m_title;
    MediaVersions::Listing m_listing;
    AbstractError m_linkError; // of a linked playlist or manifest; the page goes on without it
    int m_inFlight = 0;
    bool m_done = false;
    bool m_expanded = false; // media playlists requested
};
