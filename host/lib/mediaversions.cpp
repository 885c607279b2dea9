#include "mediaversions.h"

#include <QFileInfo>
#include <QSet>
#include <QVariantHash>
#include <QVariantList>
#include <QVariantMap>

#include <algorithm>
#include <cmath>
#include <limits>

using Version = MediaVersions::Version;
using CompositeVersion = MediaVersions::CompositeVersion;
using Selector = MediaVersions::Selector;

const QString MediaVersions::PlainFileModule = QStringLiteral("downloadswww");
const QString MediaVersions::HlsModule = QStringLiteral("downloadsm3ustm");
const QString MediaVersions::FragmentsModule = QStringLiteral("downloadsfragments");

namespace {

const QString idKey = QStringLiteral("id");
const QString sourcesKey = QStringLiteral("sources");
const QString remuxKey = QStringLiteral("remux");
const QString estimatedSizeKey = QStringLiteral("estimatedSize");
const QString codecsKey = QStringLiteral("codecs");
// The bits per second an estimate of an HLS version is based on, until its duration is known.
const QString estimateBitrateKey = QStringLiteral("estimateBitrate");

using Request = MediaVersions::Request;

// --- Small helpers ---------------------------------------------------------------------------

int clampedInt(qint64 value) {
    return int(std::clamp<qint64>(value, 0, std::numeric_limits<int>::max()));
}

// Whole seconds of a duration, within what an int holds.
int roundedSeconds(double seconds) {
    return seconds > 0 ? int(std::min(std::round(seconds), double(std::numeric_limits<int>::max())))
                       : 0;
}

// Bytes that bitsPerSecond fill in seconds, within what a size holds.
qint64 estimatedBytes(double bitsPerSecond, double seconds) {
    const double bytes = bitsPerSecond * seconds / 8;
    return bytes >= 9e18 ? qint64(9e18) : qint64(bytes);
}

QVariantHash detailsOf(const Version& version) {
    return version.details.toHash();
}

void setDetail(Version* version, const QString& key, const QVariant& value) {
    QVariantHash details = detailsOf(*version);
    if (value.isValid())
        details.insert(key, value);
    else
        details.remove(key);
    version->details = details;
}

// Lower case letters, digits and dots, other runs of characters as one "-": something a user
// types without quoting.
QString idWord(const QString& text) {
    QString result;
    for (const QChar c : text.toLower()) {
        if ((c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') || c == u'.')
            result += c;
        else if (!result.endsWith(u'-'))
            result += u'-';
    }
    while (result.startsWith(u'-'))
        result.remove(0, 1);
    while (result.endsWith(u'-'))
        result.chop(1);
    return result.left(32);
}

QString kbps(qint64 bitsPerSecond) {
    return QStringLiteral("%1k").arg(qRound64(double(bitsPerSecond) / 1000));
}

QString videoLabel(int height, qint64 bandwidth) {
    return height > 0 ? QStringLiteral("%1p-%2").arg(height).arg(kbps(bandwidth)) : kbps(bandwidth);
}

QString readableRate(qint64 bitsPerSecond) {
    return bitsPerSecond >= 1000000
               ? QStringLiteral("%1 Mbit/s").arg(double(bitsPerSecond) / 1e6, 0, 'f', 1)
               : QStringLiteral("%1 kbit/s").arg(qRound64(double(bitsPerSecond) / 1000));
}

QString videoTitle(const Selector::MediaDescription& media, const QStringList& codecs) {
    QStringList words;
    if (media.width > 0 && media.height > 0)
        words << QStringLiteral("%1x%2").arg(media.width).arg(media.height);
    if (media.fps > 0)
        words << QStringLiteral("%1fps").arg(media.fps);
    if (media.bitrate > 0)
        words << readableRate(media.bitrate);
    if (!codecs.isEmpty())
        words << codecs.join(u',');
    return words.join(u' ');
}

QString audioTitle(const QString& name, const QString& language, qint64 bitrate) {
    QString title = QStringLiteral("audio");
    if (!name.isEmpty())
        title += u' ' + name;
    if (!language.isEmpty())
        title += QStringLiteral(" (%1)").arg(language);
    if (bitrate > 0)
        title += u' ' + readableRate(bitrate);
    return title;
}

AbstractDownloadSourceInfo sourceFor(const QUrl& url, const Request& request) {
    AbstractDownloadSourceInfo source;
    source.url = url;
    source.requestHeaders = request.headers;
    return source;
}

// A stream may list hundreds of thousands of segments. A QHash reserves room for dozens of
// entries on its first insert (kilobytes for a source of two or three fields), so each source is
// kept as a map, which allocates only what it holds; the record it ends up in reads the same.
void setSources(Version* version, QList<AbstractDownloadSourceInfo> sources,
                const Request& request) {
    QVariantList list;
    list.reserve(sources.size());
    for (auto& source : sources) {
        source.requestHeaders = request.headers;
        const QVariantHash hash = source.toVariantHash();
        QVariantMap map;
        for (auto it = hash.cbegin(); it != hash.cend(); ++it)
            map.insert(it.key(), it.value());
        list.append(map);
    }
    setDetail(version, sourcesKey, list);
}

// Fills the request fields every version shares.
Version baseVersion(MediaVersions::Origin origin, const QString& protocol, const QUrl& url,
                    const Request& request) {
    Version version;
    version.originType = origin;
    version.protocol = protocol;
    version.url = url;
    version.referrer = request.referrer;
    for (const auto& [name, value] : request.headers)
        version.requestHeaders.append(QString::fromUtf8(name + ": " + value));
    setSources(&version, {sourceFor(url, request)}, request);
    return version;
}

// A composite of a video and an audio part, described by both.
CompositeVersion composite(const Version& video, const Version& audio, MediaVersions::Origin origin,
                           const QUrl& url, const Request& request) {
    CompositeVersion result(baseVersion(origin, QString(), url, request));
    result.details = QVariantHash();
    result.media = video.media;
    result.media.type = Selector::VideoWithAudio;
    result.media.language = audio.media.language;
    result.title = video.title + QStringLiteral(" + ") + audio.title;
    result.parts = {video, audio};
    return result;
}

void setId(Version* version, const QString& id) {
    setDetail(version, idKey, id);
}

// Renames the ids that a listing has already taken.
template <typename T> void makeIdsUnique(QList<T>* versions, QSet<QString> taken = {}) {
    for (auto& version : *versions) {
        const QString base = MediaVersions::id(version);
        QString id = base;
        for (int n = 2; taken.contains(id.toLower()); ++n)
            id = QStringLiteral("%1-%2").arg(base).arg(n);
        taken.insert(id.toLower());
        setId(&version, id);
    }
}

template <typename T> void appendUnique(QList<T>* into, QList<T> more) {
    QSet<QString> taken;
    for (const auto& version : *into)
        taken.insert(MediaVersions::id(version).toLower());
    makeIdsUnique(&more, taken);
    *into += more;
}

// --- HLS -----------------------------------------------------------------------------------------

bool codecIs(const QString& codec, std::initializer_list<const char*> prefixes) {
    const QString lower = codec.toLower();
    for (const char* prefix : prefixes) {
        if (lower.startsWith(QLatin1String(prefix)))
            return true;
    }
    return false;
}

bool isAudioCodec(const QString& codec) {
    return codecIs(
        codec, {"mp4a", "ac-3", "ec-3", "ac-4", "opus", "flac", "alac", "dts", "mp3", "vorbis"});
}

bool isVideoCodec(const QString& codec) {
    return codecIs(
        codec, {"avc", "hvc", "hev", "dvh", "dva", "av01", "vp8", "vp9", "vp08", "vp09", "mp4v"});
}

bool anyOf(const QStringList& codecs, bool (*test)(const QString&)) {
    return std::any_of(codecs.cbegin(), codecs.cend(), test);
}

// The container a master playlist's codecs allow, until the media playlist tells.
QString guessedHlsFormat(const QStringList& codecs) {
    const bool fragmentedOnly = std::any_of(codecs.cbegin(), codecs.cend(), [](const QString& c) {
        return codecIs(c, {"hvc", "hev", "dvh", "dva", "av01", "vp09", "opus", "flac", "alac"});
    });
    return fragmentedOnly ? QStringLiteral("mp4") : QStringLiteral("ts");
}

using Variant = HlsPlaylistReader::Variant;
using Rendition = HlsPlaylistReader::Rendition;

Version variantVersion(const Variant& variant, int index, int type, const Request& request) {
    Version version =
        baseVersion(MediaVersions::HlsStream, MediaVersions::HlsModule, variant.url, request);
    version.streamIndex = index;
    auto& media = version.media;
    media.type = type;
    media.contentType = QStringLiteral("application/vnd.apple.mpegurl");
    media.format = guessedHlsFormat(variant.codecs);
    media.width = variant.width;
    media.height = variant.height;
    media.bitrate = clampedInt(variant.bandwidth);
    media.fps = qRound(variant.frameRate);
    version.title = type == Selector::AudioOnly
                        ? audioTitle(QString(), QString(), variant.bandwidth)
                        : videoTitle(media, variant.codecs);
    if (!variant.codecs.isEmpty())
        setDetail(&version, codecsKey, variant.codecs);
    return version;
}

void setEstimateBitrate(Version* version, const Variant& variant) {
    setDetail(version, estimateBitrateKey,
              variant.averageBandwidth > 0 ? variant.averageBandwidth : variant.bandwidth);
}

Version renditionVersion(const Rendition& rendition, int index, const Request& request) {
    Version version =
        baseVersion(MediaVersions::HlsStream, MediaVersions::HlsModule, rendition.url, request);
    version.streamIndex = index;
    version.media.type = rendition.type == HlsPlaylistReader::RenditionType::Audio
                             ? Selector::AudioOnly
                             : Selector::UnknownMedia;
    version.media.contentType = QStringLiteral("application/vnd.apple.mpegurl");
    version.media.language = rendition.language;
    version.title =
        rendition.type == HlsPlaylistReader::RenditionType::Audio
            ? audioTitle(rendition.name, rendition.language, 0)
            : QStringLiteral("subtitles %1 (%2)").arg(rendition.name, rendition.language);
    return version;
}

class HlsMasterListing {
public:
    HlsMasterListing(const HlsPlaylistReader::Playlist& master, const QUrl& url,
                     const Request& request)
        : m_master(master)
        , m_url(url)
        , m_request(request) {
        QSet<QString> groups;
        for (const auto& rendition : master.renditions) {
            if (rendition.type == HlsPlaylistReader::RenditionType::Audio)
                groups.insert(rendition.groupId);
        }
        m_severalAudioGroups = groups.size() > 1;
    }

    MediaVersions::Listing run() {
        for (int i = 0; i < m_master.variants.size(); ++i)
            addVariant(m_master.variants.at(i), i);
        addRenditions();
        return m_listing;
    }

private:
    QString audioLabel(const Rendition& rendition) const {
        QString label = idWord(rendition.language);
        if (label.isEmpty())
            label = idWord(rendition.name);
        if (label.isEmpty())
            label = QStringLiteral("default");
        if (m_severalAudioGroups)
            label += u'-' + idWord(rendition.groupId);
        return QStringLiteral("audio-") + label;
    }

    void addVariant(const Variant& variant, int index) {
        QList<int> apart;   // renditions of its group with a playlist of their own
        QList<int> carried; // renditions the variant stream carries itself
        for (int r = 0; r < m_master.renditions.size(); ++r) {
            const auto& rendition = m_master.renditions.at(r);
            if (rendition.type != HlsPlaylistReader::RenditionType::Audio ||
                variant.audioGroup.isEmpty() || rendition.groupId != variant.audioGroup)
                continue;
            (rendition.url.isEmpty() ? carried : apart).append(r);
        }
        const QString label =
            QStringLiteral("hls-") + videoLabel(variant.height, variant.bandwidth);
        const bool audioOnly = !variant.codecs.isEmpty() && !anyOf(variant.codecs, isVideoCodec);
        if (audioOnly) {
            Version version = variantVersion(variant, index, Selector::AudioOnly, m_request);
            setId(&version, QStringLiteral("hls-audio-") + kbps(variant.bandwidth));
            addSingle(version, variant);
            return;
        }
        const bool codecsSayNoAudio =
            !variant.codecs.isEmpty() && !anyOf(variant.codecs, isAudioCodec);
        if (apart.isEmpty() || !carried.isEmpty()) {
            const bool withAudio = !codecsSayNoAudio || !carried.isEmpty();
            Version version = variantVersion(
                variant, index, withAudio ? Selector::VideoWithAudio : Selector::VideoOnly,
                m_request);
            if (!carried.isEmpty())
                version.media.language = m_master.renditions.at(carried.constFirst()).language;
            setId(&version, label);
            addSingle(version, variant);
        }
        for (int r : apart) {
            const Rendition& rendition = m_master.renditions.at(r);
            const Version video = variantVersion(variant, index, Selector::VideoOnly, m_request);
            CompositeVersion version = composite(video, renditionVersion(rendition, r, m_request),
                                                 MediaVersions::HlsStream, m_url, m_request);
            version.media.bitrate = clampedInt(variant.bandwidth);
            setId(&version, label + u'+' + audioLabel(rendition));
            setEstimateBitrate(&version, variant);
            m_listing.versions.append(version);
        }
    }

    void addSingle(Version version, const Variant& variant) {
        setEstimateBitrate(&version, variant);
        m_listing.versions.append(CompositeVersion(version));
    }

    void addRenditions() {
        QSet<QUrl> seen;
        for (int r = 0; r < m_master.renditions.size(); ++r) {
            const Rendition& rendition = m_master.renditions.at(r);
            if (rendition.url.isEmpty() || seen.contains(rendition.url))
                continue;
            seen.insert(rendition.url);
            Version version = renditionVersion(rendition, r, m_request);
            if (rendition.type == HlsPlaylistReader::RenditionType::Audio) {
                setId(&version, QStringLiteral("hls-") + audioLabel(rendition));
                m_listing.versions.append(CompositeVersion(version));
            } else if (rendition.type == HlsPlaylistReader::RenditionType::Subtitles) {
                version.media.format = QStringLiteral("vtt");
                const QString language = idWord(rendition.language);
                setId(&version, QStringLiteral("hls-subs-") +
                                    (language.isEmpty() ? idWord(rendition.name) : language));
                m_listing.subtitles.append(version);
            }
        }
    }

    const HlsPlaylistReader::Playlist& m_master;
    QUrl m_url;
    Request m_request;
    bool m_severalAudioGroups = false;
    MediaVersions::Listing m_listing;
};

// --- DASH ----------------------------------------------------------------------------------------

using Representation = DashManifestReader::Representation;

QString dashFormat(const Representation& rep) {
    const QString subtype = rep.mimeType.section(u'/', 1).toLower();
    if (rep.kind == DashManifestReader::Kind::Audio && subtype == QLatin1String("mp4"))
        return QStringLiteral("m4a");
    return subtype;
}

QString dashLabel(const Representation& rep) {
    const QString language = idWord(rep.language);
    switch (rep.kind) {
    case DashManifestReader::Kind::Video:
        return videoLabel(rep.height, rep.bandwidth);
    case DashManifestReader::Kind::Audio:
        return QStringLiteral("audio-") + (language.isEmpty() ? QString() : language + u'-') +
               kbps(rep.bandwidth);
    case DashManifestReader::Kind::Text:
        break;
    }
    return QStringLiteral("subs-") + (language.isEmpty() ? idWord(rep.id) : language);
}

Version representationVersion(const Representation& rep, int index, double duration,
                              const QUrl& manifestUrl, const Request& request) {
    const bool single = rep.singleFile;
    Version version =
        baseVersion(single ? MediaVersions::PlainFile : MediaVersions::DashStream,
                    single ? MediaVersions::PlainFileModule : MediaVersions::FragmentsModule,
                    single ? rep.url : manifestUrl, request);
    setSources(&version, rep.segments, request);
    version.streamIndex = index;
    version.fragmentCount = single ? 0 : int(rep.segments.size()) - (rep.hasInitSegment ? 1 : 0);
    auto& media = version.media;
    if (rep.kind == DashManifestReader::Kind::Audio)
        media.type = Selector::AudioOnly;
    else if (rep.kind == DashManifestReader::Kind::Video)
        media.type =
            anyOf(rep.codecs, isAudioCodec) ? Selector::VideoWithAudio : Selector::VideoOnly;
    media.contentType = rep.mimeType;
    media.format = dashFormat(rep);
    media.width = rep.width;
    media.height = rep.height;
    media.bitrate = clampedInt(rep.bandwidth);
    media.fps = qRound(rep.frameRate);
    media.duration = roundedSeconds(duration);
    media.language = rep.language;
    version.title = rep.kind == DashManifestReader::Kind::Audio
                        ? audioTitle(QString(), rep.language, rep.bandwidth)
                        : videoTitle(media, rep.codecs);
    version.size = rep.exactSize;
    if (!rep.codecs.isEmpty())
        setDetail(&version, codecsKey, rep.codecs);
    // Joined fragments of video or audio in MP4 (listed as "m4a" for audio) are remuxed.
    if (!single && rep.mimeType.endsWith(QLatin1String("/mp4"), Qt::CaseInsensitive))
        setDetail(&version, remuxKey, true);
    if (rep.exactSize < 0 && !single && duration > 0)
        setDetail(&version, estimatedSizeKey, estimatedBytes(double(rep.bandwidth), duration));
    return version;
}

// The estimate of a composite: every part's exact size or estimate, or nothing.
void setCompositeEstimate(CompositeVersion* version) {
    qint64 total = 0;
    for (const Version& part : version->parts) {
        const qint64 size =
            part.size >= 0 ? part.size : detailsOf(part).value(estimatedSizeKey, -1).toLongLong();
        if (size < 0 || size > std::numeric_limits<qint64>::max() - total)
            return;
        total += size;
    }
    if (version->totalSize() < 0)
        setDetail(version, estimatedSizeKey, total);
}

} // namespace

MediaVersions::Listing MediaVersions::fromHlsMaster(const HlsPlaylistReader::Playlist& master,
                                                    const QUrl& masterUrl, const Request& request) {
    Listing listing = HlsMasterListing(master, masterUrl, request).run();
    makeIdsUnique(&listing.versions);
    makeIdsUnique(&listing.subtitles);
    return listing;
}

MediaVersions::Listing MediaVersions::fromHlsMedia(const HlsPlaylistReader::Playlist& media,
                                                   const QUrl& playlistUrl,
                                                   const Request& request) {
    CompositeVersion version(baseVersion(HlsStream, HlsModule, playlistUrl, request));
    version.media.type = Selector::VideoWithAudio;
    version.media.contentType = QStringLiteral("application/vnd.apple.mpegurl");
    version.title = QFileInfo(playlistUrl.path()).fileName();
    setId(&version, QStringLiteral("hls"));
    applyMediaPlaylist(&version, -1, media);
    return {{version}, {}};
}

MediaVersions::Listing MediaVersions::fromDash(const DashManifestReader::Manifest& manifest,
                                               const QUrl& manifestUrl, const Request& request) {
    QList<Version> videos;
    QList<Version> audios;
    Listing listing;
    for (int i = 0; i < manifest.representations.size(); ++i) {
        const Representation& rep = manifest.representations.at(i);
        Version version =
            representationVersion(rep, i, manifest.durationSeconds, manifestUrl, request);
        setId(&version, QStringLiteral("dash-") + dashLabel(rep));
        if (rep.kind == DashManifestReader::Kind::Video)
            videos.append(version);
        else if (rep.kind == DashManifestReader::Kind::Audio)
            audios.append(version);
        else
            listing.subtitles.append(version);
    }
    for (const Version& video : videos) {
        if (audios.isEmpty() || video.media.type == Selector::VideoWithAudio) {
            listing.versions.append(CompositeVersion(video));
            continue;
        }
        for (const Version& audio : audios) {
            const bool plain = video.originType == PlainFile && audio.originType == PlainFile;
            CompositeVersion version =
                composite(video, audio, plain ? PlainFile : DashStream, manifestUrl, request);
            version.media.bitrate = clampedInt(qint64(video.media.bitrate) + audio.media.bitrate);
            setId(&version, id(video) + u'+' + id(audio).mid(5));
            setCompositeEstimate(&version);
            listing.versions.append(version);
        }
    }
    for (const Version& audio : audios)
        listing.versions.append(CompositeVersion(audio));
    makeIdsUnique(&listing.versions);
    makeIdsUnique(&listing.subtitles);
    return listing;
}

MediaVersions::Listing MediaVersions::fromPage(const HtmlMediaPageReader::Page& page,
                                               const QUrl& pageUrl, const Request& request) {
    Request withReferrer = request;
    if (withReferrer.referrer.isEmpty())
        withReferrer.referrer = pageUrl;
    Listing listing;
    for (const auto& link : page.links) {
        if (link.kind != HtmlMediaPageReader::LinkKind::MediaFile)
            continue;
        CompositeVersion version(baseVersion(PlainFile, PlainFileModule, link.url, withReferrer));
        const bool audio = link.mimeType.startsWith(QLatin1String("audio/")) ||
                           link.format == QLatin1String("m4a") ||
                           link.format == QLatin1String("mp3");
        version.media.type = audio ? Selector::AudioOnly : Selector::VideoWithAudio;
        version.media.contentType = link.mimeType;
        version.media.format = link.format;
        version.title = QFileInfo(link.url.path()).fileName();
        setId(&version, QStringLiteral("file-%1").arg(listing.versions.size() + 1));
        listing.versions.append(version);
    }
    return listing;
}

void MediaVersions::append(Listing* listing, const Listing& more) {
    appendUnique(&listing->versions, more.versions);
    appendUnique(&listing->subtitles, more.subtitles);
}

void MediaVersions::applyMediaPlaylist(CompositeVersion* version, int part,
                                       const HlsPlaylistReader::Playlist& media) {
    Version* target = part < 0 ? version : &version->parts[part];
    if (!media.format.isEmpty())
        target->media.format = media.format;
    target->fragmentCount = int(media.segments.size()) - (media.hasInitSegment ? 1 : 0);
    target->media.duration = roundedSeconds(media.totalDurationSeconds);
    target->size = media.exactSize;
    setDetail(target, remuxKey, media.hasInitSegment ? QVariant(true) : QVariant());
    if (!version->parts.isEmpty()) {
        version->media.format = version->parts.constFirst().media.format;
        version->media.duration = std::max(version->media.duration, target->media.duration);
    } else {
        version->media.duration = target->media.duration;
    }
    // The bandwidth of a variant covers all it plays, its separate audio included.
    const qint64 bitrate = detailsOf(*version).value(estimateBitrateKey, 0).toLongLong();
    const bool exact = version->totalSize() >= 0;
    setDetail(version, estimatedSizeKey,
              !exact && bitrate > 0 && media.totalDurationSeconds > 0
                  ? QVariant(estimatedBytes(double(bitrate), media.totalDurationSeconds))
                  : QVariant());
}

MediaVersions::Size MediaVersions::sizeOf(const CompositeVersion& version) {
    const qint64 exact = version.totalSize();
    if (exact >= 0)
        return {exact, false};
    const QVariant estimate = detailsOf(version).value(estimatedSizeKey);
    return estimate.isValid() ? Size{estimate.toLongLong(), true} : Size{};
}

QString MediaVersions::id(const Version& version) {
    return detailsOf(version).value(idKey).toString();
}

int MediaVersions::indexOf(const QList<CompositeVersion>& versions, const QString& id) {
    for (int i = 0; i < versions.size(); ++i) {
        if (MediaVersions::id(versions.at(i)).compare(id, Qt::CaseInsensitive) == 0)
            return i;
    }
    return -1;
}

QList<AbstractDownloadSourceInfo> MediaVersions::sources(const Version& version) {
    QList<AbstractDownloadSourceInfo> result;
    for (const QVariant& source : detailsOf(version).value(sourcesKey).toList())
        result.append(AbstractDownloadSourceInfo::fromVariantHash(source.toHash()));
    return result;
}

QStringList MediaVersions::codecs(const CompositeVersion& version) {
    QStringList result = detailsOf(version).value(codecsKey).toStringList();
    for (const Version& part : version.parts)
        result += detailsOf(part).value(codecsKey).toStringList();
    return result;
}

bool MediaVersions::needsRemux(const Version& version) {
    return detailsOf(version).value(remuxKey).toBool();
}
