#include "mediaprobe.h"

#include <terncl/core/sourceplace.h>

#include "curlprobe.h"

#include <QFileInfo>
#include <QSet>

namespace {
constexpr MediaParse::ErrorCode notTextCode = MediaParse::Unsupported;

bool suffixIs(const QUrl& url, const char* suffix) {
    return url.path().endsWith(QLatin1String(suffix), Qt::CaseInsensitive);
}

QByteArray charsetOf(const QString& contentType) {
    for (const QString& parameter : contentType.split(u';').mid(1)) {
        const QString trimmed = parameter.trimmed();
        if (trimmed.startsWith(QLatin1String("charset="), Qt::CaseInsensitive))
            return trimmed.mid(8).remove(u'"').toLatin1();
    }
    return {};
}

// An error status names the address, which a failing variant or link needs to be found by.
AbstractError probeError(const CurlProbe& probe, const QUrl& url) {
    AbstractError error = probe.error();
    if (error.category == AbstractError::HttpError)
        error.description += " " + url.toString().toStdString();
    return error;
}
} // namespace

MediaProbe::MediaProbe(CurlMulti* network, QObject* parent)
    : QObject(parent)
    , m_network(network) {}

MediaProbe::~MediaProbe() {
    abort();
}

MediaProbe::Kind MediaProbe::kindOf(const QByteArray& text, const QString& contentType,
                                    const QUrl& url) {
    const QByteArray start = text.left(1024).trimmed();
    const QString type = contentType.section(u';', 0, 0).trimmed().toLower();
    if (start.startsWith("#EXTM3U"))
        return text.contains("#EXT-X-STREAM-INF") ? Kind::HlsMaster : Kind::HlsMedia;
    if (type.contains(QLatin1String("dash+xml")) || suffixIs(url, ".mpd") ||
        (start.startsWith("<?xml") && start.contains("<MPD")) || start.startsWith("<MPD"))
        return Kind::Dash;
    if (type == QLatin1String("text/html") || type == QLatin1String("application/xhtml+xml") ||
        start.toLower().startsWith("<!doctype html") || start.toLower().startsWith("<html"))
        return Kind::Page;
    return Kind::Unknown;
}

void MediaProbe::start(const QUrl& url, const MediaVersions::Request& request) {
    m_request = request;
    m_title = QFileInfo(url.path()).completeBaseName();
    fetch({url, 0, false});
}

void MediaProbe::abort() {
    m_done = true;
    for (const auto& probe : std::as_const(m_probes))
        delete probe;
    m_probes.clear();
}

void MediaProbe::fetch(const Pending& what) {
    if (!m_network) {
        fail(MediaParse::error(notTextCode, QStringLiteral("no network"), TERNCL_SOURCE_PLACE));
        return;
    }
    CurlTransfer::Request request;
    request.url = what.url;
    request.headers = m_request.headers;
    if (!m_request.referrer.isEmpty())
        request.headers.append({QByteArrayLiteral("Referer"), m_request.referrer.toEncoded()});
    auto* probe = new CurlProbe(m_network, request, this);
    probe->setMaxBodySize(MaxTextBytes);
    probe->wantBody = [](const HttpHeaders&, const QUrl&) {
        return true;
    };
    m_probes.append(probe);
    ++m_inFlight;
    connect(probe, &CurlProbe::finished, this, [this, probe, what] { onFetched(probe, what); });
    probe->start();
}

void MediaProbe::onFetched(CurlProbe* probe, const Pending& what) {
    probe->deleteLater();
    m_probes.removeAll(probe);
    --m_inFlight;
    if (m_done)
        return;
    if (probe->error().isSet()) {
        const AbstractError error = probeError(*probe, what.url);
        // Only the URL itself must be there: a variant or a link that fails leaves the rest.
        if (what.depth == 0 && !what.mediaPlaylist)
            fail(error);
        else if (!m_linkError.isSet())
            m_linkError = error;
        checkDone();
        return;
    }
    const QByteArray text = probe->body();
    const QString type = QString::fromLatin1(probe->headers().value("Content-Type"));
    if (what.mediaPlaylist)
        onMediaPlaylist(text, what.url);
    else if (what.depth == 0 && kindOf(text, type, probe->url()) == Kind::Page)
        onPage(text, charsetOf(type), probe->url());
    else
        onText(text, type, probe->url(), what.depth);
    checkDone();
}

void MediaProbe::onText(const QByteArray& text, const QString& contentType, const QUrl& url,
                        int depth) {
    const Kind kind = kindOf(text, contentType, url);
    if (depth == 0)
        m_kind = kind;
    AbstractError error;
    if (kind == Kind::HlsMaster || kind == Kind::HlsMedia) {
        const auto playlist = HlsPlaylistReader::parse(text, url, &error);
        if (!error.isSet() && playlist.isMaster)
            addListing(MediaVersions::fromHlsMaster(playlist, url, m_request));
        else if (!error.isSet())
            addListing(MediaVersions::fromHlsMedia(playlist, url, m_request));
    } else if (kind == Kind::Dash) {
        const auto manifest = DashManifestReader::parse(text, url, &error);
        if (!error.isSet())
            addListing(MediaVersions::fromDash(manifest, url, m_request));
    } else {
        error = MediaParse::error(
            notTextCode,
            QStringLiteral("not an HLS playlist, DASH manifest or web page: ") + url.toString(),
            TERNCL_SOURCE_PLACE);
    }
    if (error.isSet() && depth == 0)
        fail(error);
    else if (error.isSet() && !m_linkError.isSet())
        m_linkError = error;
}

void MediaProbe::onPage(const QByteArray& text, const QByteArray& charset, const QUrl& url) {
    m_kind = Kind::Page;
    AbstractError error;
    const auto page = HtmlMediaPageReader::parse(text, url, &error, charset);
    if (error.isSet()) {
        fail(error);
        return;
    }
    if (!page.title.isEmpty())
        m_title = page.title;
    m_request.referrer = m_request.referrer.isEmpty() ? url : m_request.referrer;
    addListing(MediaVersions::fromPage(page, url, m_request));
    for (const auto& link : page.links) {
        if (link.kind != HtmlMediaPageReader::LinkKind::MediaFile)
            fetch({link.url, 1, false});
    }
}

void MediaProbe::onMediaPlaylist(const QByteArray& text, const QUrl& url) {
    AbstractError error;
    const auto playlist = HlsPlaylistReader::parse(text, url, &error);
    if (error.isSet() || playlist.isMaster) {
        if (!m_linkError.isSet() && error.isSet())
            m_linkError = error;
        return;
    }
    m_mediaPlaylists.insert(url, playlist);
}

void MediaProbe::addListing(const MediaVersions::Listing& listing) {
    MediaVersions::append(&m_listing, listing);
}

// The media playlists of the HLS versions, each address once.
void MediaProbe::fetchMediaPlaylists() {
    m_expanded = true;
    QSet<QUrl> urls;
    for (const auto& version : std::as_const(m_listing.versions)) {
        if (version.originType != MediaVersions::HlsStream)
            continue;
        if (version.parts.isEmpty() && version.media.duration == 0)
            urls.insert(version.url);
        for (const auto& part : version.parts)
            urls.insert(part.url);
    }
    for (const QUrl& url : std::as_const(urls))
        fetch({url, 1, true});
}

void MediaProbe::checkDone() {
    if (m_done || m_inFlight > 0)
        return;
    if (!m_expanded) {
        fetchMediaPlaylists();
        if (m_inFlight > 0)
            return;
    }
    for (auto& version : m_listing.versions) {
        if (version.originType != MediaVersions::HlsStream)
            continue;
        if (version.parts.isEmpty() && m_mediaPlaylists.contains(version.url))
            MediaVersions::applyMediaPlaylist(&version, -1, m_mediaPlaylists.value(version.url));
        for (int p = 0; p < version.parts.size(); ++p) {
            const QUrl url = version.parts.at(p).url;
            if (m_mediaPlaylists.contains(url))
                MediaVersions::applyMediaPlaylist(&version, p, m_mediaPlaylists.value(url));
        }
    }
    m_done = true;
    Q_EMIT finished(m_listing.versions.isEmpty() ? m_linkError : AbstractError());
}

void MediaProbe::fail(const AbstractError& error) {
    if (m_done)
        return;
    abort();
    Q_EMIT finished(error);
}
