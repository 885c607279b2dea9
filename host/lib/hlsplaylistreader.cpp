#include "hlsplaylistreader.h"

#include <terncl/core/sourceplace.h>

#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>

#include <algorithm>
#include <limits>
#include <optional>

namespace {

using Reader = HlsPlaylistReader;

struct ByteRange {
    qint64 size = 0;
    std::optional<qint64> offset;
};

bool isNameChar(QChar c) {
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') ||
           c == u'-' || c == u'_';
}

// Attribute lists: NAME=VALUE pairs separated by commas, values quoted or plain. Nothing when
// the list is broken (a missing "=", an unterminated quote, text after a quoted value).
std::optional<QHash<QString, QString>> attributes(const QString& text) {
    QHash<QString, QString> result;
    int i = 0;
    const int n = int(text.size());
    while (i < n) {
        while (i < n && text.at(i) == u' ')
            ++i;
        const int nameStart = i;
        while (i < n && isNameChar(text.at(i)))
            ++i;
        if (i == nameStart || i >= n || text.at(i) != u'=')
            return std::nullopt;
        const QString name = text.mid(nameStart, i - nameStart).toUpper();
        ++i;
        QString value;
        if (i < n && text.at(i) == u'"') {
            const int close = int(text.indexOf(u'"', i + 1));
            if (close < 0)
                return std::nullopt;
            value = text.mid(i + 1, close - i - 1);
            i = close + 1;
            if (i < n && text.at(i) != u',')
                return std::nullopt;
        } else {
            const int comma = int(text.indexOf(u',', i));
            const int end = comma < 0 ? n : comma;
            value = text.mid(i, end - i).trimmed();
            i = end;
        }
        result.insert(name, value);
        ++i; // the comma
    }
    return result;
}

std::optional<ByteRange> parseByteRange(const QString& text) {
    const QStringList parts = text.split(u'@');
    if (parts.size() > 2)
        return std::nullopt;
    bool ok = false;
    ByteRange range;
    range.size = parts.at(0).trimmed().toLongLong(&ok);
    if (!ok || range.size < 0)
        return std::nullopt;
    if (parts.size() == 2) {
        const qint64 offset = parts.at(1).trimmed().toLongLong(&ok);
        if (!ok || offset < 0 || offset > std::numeric_limits<qint64>::max() - range.size)
            return std::nullopt;
        range.offset = offset;
    }
    return range;
}

QString segmentFormat(const QUrl& url) {
    static const QStringList fragmentedMp4{QStringLiteral("m4s"),  QStringLiteral("mp4"),
                                           QStringLiteral("m4v"),  QStringLiteral("m4a"),
                                           QStringLiteral("cmfv"), QStringLiteral("cmfa")};
    const QString suffix = QFileInfo(url.path()).suffix().toLower();
    if (fragmentedMp4.contains(suffix))
        return QStringLiteral("mp4");
    if (suffix == QLatin1String("aac") || suffix == QLatin1String("mp3"))
        return suffix;
    if (suffix == QLatin1String("vtt") || suffix == QLatin1String("webvtt"))
        return QStringLiteral("vtt");
    return QStringLiteral("ts");
}

class Parser {
public:
    Parser(const QUrl& baseUrl, AbstractError* error)
        : m_baseUrl(baseUrl)
        , m_error(error) {}

    Reader::Playlist run(const QByteArray& text);

private:
    using Attributes = QHash<QString, QString>;

    bool parseLine(const QString& line);
    bool parseTag(const QString& line);
    bool parseKey(const QString& method);
    bool parseMap(const QString& value, const QString& line);
    bool parseStreamInf(const QString& value, const QString& line);
    bool parseMedia(const QString& value, const QString& line);
    bool addUri(const QString& line);
    bool addSegment(const QUrl& url, const QString& line);
    bool checkMasterOrMedia(bool master);
    bool checkGroups();
    void finishMediaPlaylist();
    void addRangedBytes(qint64 size);
    std::optional<Attributes> attributesOf(const QString& value, const QString& line);
    std::optional<QUrl> resolve(const QString& uri);
    bool fail(const QString& reason, const QString& line = {},
              MediaParse::ErrorCode code = MediaParse::Malformed);

    QUrl m_baseUrl;
    AbstractError* m_error;
    Reader::Playlist m_playlist;
    int m_lineNumber = 0;
    bool m_sawMediaTag = false;
    bool m_expectSegmentUri = false;
    bool m_expectVariantUri = false;
    Reader::Variant m_pendingVariant;
    QList<int> m_variantLines;
    std::optional<ByteRange> m_pendingRange;
    QUrl m_lastRangeUrl;
    qint64 m_nextRangeOffset = 0;
    double m_pendingDuration = 0;
    bool m_everySegmentRanged = true;
    qint64 m_rangedBytes = 0;
};

Reader::Playlist Parser::run(const QByteArray& text) {
    const QStringList lines =
        QString::fromUtf8(text).split(QRegularExpression(QStringLiteral("\r?\n")));
    for (const QString& raw : lines) {
        ++m_lineNumber;
        const QString line = raw.trimmed();
        if (m_lineNumber == 1 && line != QStringLiteral("#EXTM3U")) {
            // The first line is not quoted: whatever was fetched is not a playlist.
            fail(QStringLiteral("not an HLS playlist (no #EXTM3U header)"));
            return {};
        }
        if (!parseLine(line))
            return {};
    }
    if (m_expectSegmentUri || m_expectVariantUri) {
        fail(QStringLiteral("a tag expects a URI but the playlist ends"));
        return {};
    }
    if (m_playlist.isMaster && !checkGroups())
        return {};
    if (!m_playlist.isMaster)
        finishMediaPlaylist();
    return m_playlist;
}

// A sum beyond what a size can hold is no size at all.
void Parser::addRangedBytes(qint64 size) {
    if (size > std::numeric_limits<qint64>::max() - m_rangedBytes)
        m_everySegmentRanged = false;
    else
        m_rangedBytes += size;
}

void Parser::finishMediaPlaylist() {
    if (m_playlist.segments.isEmpty())
        return;
    if (m_everySegmentRanged)
        m_playlist.exactSize = m_rangedBytes;
    // An init segment means fragmented MP4 unless it is plainly a transport stream.
    const QUrl& init = m_playlist.segments.constFirst().url;
    const bool tsInit =
        QFileInfo(init.path()).suffix().compare(QLatin1String("ts"), Qt::CaseInsensitive) == 0;
    if (m_playlist.hasInitSegment)
        m_playlist.format = tsInit ? QStringLiteral("ts") : QStringLiteral("mp4");
    else
        m_playlist.format = segmentFormat(m_playlist.segments.constLast().url);
}

bool Parser::parseLine(const QString& line) {
    if (line.isEmpty() || m_lineNumber == 1)
        return true;
    if (line.startsWith(u'#'))
        return line.startsWith(QStringLiteral("#EXT")) ? parseTag(line) : true;
    return addUri(line);
}

bool Parser::parseTag(const QString& line) {
    const int colon = int(line.indexOf(u':'));
    const QString tag = colon < 0 ? line : line.left(colon);
    const QString value = colon < 0 ? QString() : line.mid(colon + 1);
    if (tag == QStringLiteral("#EXTINF")) {
        bool ok = false;
        m_pendingDuration = value.section(u',', 0, 0).toDouble(&ok);
        if (!ok || m_pendingDuration < 0 || m_pendingDuration > 1e9)
            return fail(QStringLiteral("invalid segment duration"), line);
        m_expectSegmentUri = true;
        return checkMasterOrMedia(false);
    }
    if (tag == QStringLiteral("#EXT-X-ENDLIST")) {
        m_playlist.complete = true;
    } else if (tag == QStringLiteral("#EXT-X-BYTERANGE")) {
        m_pendingRange = parseByteRange(value);
        if (!m_pendingRange)
            return fail(QStringLiteral("invalid byte range"), line);
    } else if (tag == QStringLiteral("#EXT-X-KEY") || tag == QStringLiteral("#EXT-X-SESSION-KEY")) {
        const auto attrs = attributesOf(value, line);
        return attrs && parseKey(attrs->value(QStringLiteral("METHOD")));
    } else if (tag == QStringLiteral("#EXT-X-MAP")) {
        return parseMap(value, line) && checkMasterOrMedia(false);
    } else if (tag == QStringLiteral("#EXT-X-STREAM-INF")) {
        return parseStreamInf(value, line) && checkMasterOrMedia(true);
    } else if (tag == QStringLiteral("#EXT-X-MEDIA")) {
        return parseMedia(value, line) && checkMasterOrMedia(true);
    }
    return true;
}

bool Parser::checkMasterOrMedia(bool master) {
    if (master)
        m_playlist.isMaster = true;
    else
        m_sawMediaTag = true;
    if (m_playlist.isMaster && m_sawMediaTag)
        return fail(QStringLiteral("the playlist mixes variant streams and media segments"));
    return true;
}

bool Parser::parseKey(const QString& method) {
    if (method.isEmpty())
        return fail(QStringLiteral("key without a METHOD"));
    if (method == QStringLiteral("NONE"))
        return true;
    return fail(QStringLiteral("encrypted stream: %1 is not supported").arg(method), {},
                MediaParse::Unsupported);
}

bool Parser::parseMap(const QString& value, const QString& line) {
    const auto attrs = attributesOf(value, line);
    if (!attrs)
        return false;
    if (!attrs->contains(QStringLiteral("URI")))
        return fail(QStringLiteral("init segment without a URI"), line);
    const auto url = resolve(attrs->value(QStringLiteral("URI")));
    if (!url)
        return false;
    if (m_playlist.hasInitSegment)
        return fail(QStringLiteral("a second init segment is not supported"), line);
    AbstractDownloadSourceInfo source;
    source.url = *url;
    if (attrs->contains(QStringLiteral("BYTERANGE"))) {
        const auto range = parseByteRange(attrs->value(QStringLiteral("BYTERANGE")));
        if (!range)
            return fail(QStringLiteral("invalid init segment byte range"), line);
        source.rangeOffset = range->offset.value_or(0);
        source.rangeSize = range->size;
        addRangedBytes(range->size);
    } else {
        m_everySegmentRanged = false;
    }
    m_playlist.segments.prepend(source);
    m_playlist.hasInitSegment = true;
    return true;
}

bool Parser::parseStreamInf(const QString& value, const QString& line) {
    const auto attrs = attributesOf(value, line);
    if (!attrs)
        return false;
    Reader::Variant variant;
    bool ok = false;
    variant.bandwidth = attrs->value(QStringLiteral("BANDWIDTH")).toLongLong(&ok);
    if (!ok || variant.bandwidth < 0)
        return fail(QStringLiteral("variant without a valid BANDWIDTH"), line);
    if (attrs->contains(QStringLiteral("AVERAGE-BANDWIDTH"))) {
        variant.averageBandwidth =
            attrs->value(QStringLiteral("AVERAGE-BANDWIDTH")).toLongLong(&ok);
        if (!ok || variant.averageBandwidth < 0)
            return fail(QStringLiteral("invalid AVERAGE-BANDWIDTH"), line);
    }
    if (attrs->contains(QStringLiteral("RESOLUTION"))) {
        const QStringList size = attrs->value(QStringLiteral("RESOLUTION")).split(u'x');
        bool widthOk = false;
        bool heightOk = false;
        variant.width = size.value(0).toInt(&widthOk);
        variant.height = size.value(1).toInt(&heightOk);
        if (size.size() != 2 || !widthOk || !heightOk || variant.width < 0 || variant.height < 0)
            return fail(QStringLiteral("invalid RESOLUTION"), line);
    }
    if (attrs->contains(QStringLiteral("FRAME-RATE"))) {
        variant.frameRate = attrs->value(QStringLiteral("FRAME-RATE")).toDouble(&ok);
        if (!ok || variant.frameRate < 0 || variant.frameRate > 1000)
            return fail(QStringLiteral("invalid FRAME-RATE"), line);
    }
    for (const QString& codec : attrs->value(QStringLiteral("CODECS")).split(u',')) {
        if (!codec.trimmed().isEmpty())
            variant.codecs.append(codec.trimmed());
    }
    variant.audioGroup = attrs->value(QStringLiteral("AUDIO"));
    variant.subtitlesGroup = attrs->value(QStringLiteral("SUBTITLES"));
    m_pendingVariant = variant;
    m_expectVariantUri = true;
    return true;
}

bool Parser::parseMedia(const QString& value, const QString& line) {
    const auto attrs = attributesOf(value, line);
    if (!attrs)
        return false;
    static const QHash<QString, Reader::RenditionType> types{
        {QStringLiteral("AUDIO"), Reader::RenditionType::Audio},
        {QStringLiteral("SUBTITLES"), Reader::RenditionType::Subtitles},
        {QStringLiteral("VIDEO"), Reader::RenditionType::Video},
        {QStringLiteral("CLOSED-CAPTIONS"), Reader::RenditionType::ClosedCaptions}};
    const auto type = types.constFind(attrs->value(QStringLiteral("TYPE")));
    if (type == types.constEnd())
        return fail(QStringLiteral("rendition without a valid TYPE"), line);
    Reader::Rendition rendition;
    rendition.type = *type;
    rendition.groupId = attrs->value(QStringLiteral("GROUP-ID"));
    if (rendition.groupId.isEmpty())
        return fail(QStringLiteral("rendition without a GROUP-ID"), line);
    rendition.name = attrs->value(QStringLiteral("NAME"));
    rendition.language = attrs->value(QStringLiteral("LANGUAGE"));
    rendition.isDefault = attrs->value(QStringLiteral("DEFAULT")) == QStringLiteral("YES");
    rendition.autoSelect = attrs->value(QStringLiteral("AUTOSELECT")) == QStringLiteral("YES");
    // Closed captions travel inside the video; any other rendition may have a playlist.
    if (attrs->contains(QStringLiteral("URI")) && *type != Reader::RenditionType::ClosedCaptions) {
        const auto url = resolve(attrs->value(QStringLiteral("URI")));
        if (!url)
            return false;
        rendition.url = *url;
    }
    m_playlist.renditions.append(rendition);
    return true;
}

bool Parser::checkGroups() {
    for (int i = 0; i < m_playlist.variants.size(); ++i) {
        const auto& variant = m_playlist.variants.at(i);
        const auto defines = [&](Reader::RenditionType type, const QString& group) {
            return std::any_of(m_playlist.renditions.cbegin(), m_playlist.renditions.cend(),
                               [&](const auto& r) { return r.type == type && r.groupId == group; });
        };
        const bool audioOk = variant.audioGroup.isEmpty() ||
                             defines(Reader::RenditionType::Audio, variant.audioGroup);
        const bool subtitlesOk = variant.subtitlesGroup.isEmpty() ||
                                 defines(Reader::RenditionType::Subtitles, variant.subtitlesGroup);
        if (!audioOk || !subtitlesOk) {
            m_lineNumber = m_variantLines.at(i);
            return fail(QStringLiteral("the variant names a rendition group (%1) that the playlist "
                                       "does not define")
                            .arg(audioOk ? variant.subtitlesGroup : variant.audioGroup));
        }
    }
    return true;
}

bool Parser::addUri(const QString& line) {
    if (!m_expectVariantUri && !m_expectSegmentUri)
        return fail(QStringLiteral("a URI without a preceding #EXTINF"), line);
    const auto url = resolve(line);
    if (!url)
        return false;
    if (m_expectVariantUri) {
        m_pendingVariant.url = *url;
        m_playlist.variants.append(m_pendingVariant);
        m_variantLines.append(m_lineNumber);
        m_expectVariantUri = false;
        return true;
    }
    return addSegment(*url, line);
}

bool Parser::addSegment(const QUrl& url, const QString& line) {
    AbstractDownloadSourceInfo source;
    source.url = url;
    if (m_pendingRange) {
        if (!m_pendingRange->offset && m_lastRangeUrl != url)
            return fail(QStringLiteral("byte range without an offset after another resource"),
                        line);
        source.rangeOffset = m_pendingRange->offset.value_or(m_nextRangeOffset);
        source.rangeSize = m_pendingRange->size;
        if (source.rangeOffset > std::numeric_limits<qint64>::max() - source.rangeSize)
            return fail(QStringLiteral("invalid byte range"), line);
        m_nextRangeOffset = source.rangeOffset + source.rangeSize;
        m_lastRangeUrl = url;
        addRangedBytes(source.rangeSize);
        m_pendingRange.reset();
    } else {
        m_everySegmentRanged = false;
    }
    m_playlist.segments.append(source);
    m_playlist.totalDurationSeconds += m_pendingDuration;
    m_expectSegmentUri = false;
    return true;
}

std::optional<QHash<QString, QString>> Parser::attributesOf(const QString& value,
                                                            const QString& line) {
    auto attrs = attributes(value);
    if (!attrs)
        fail(QStringLiteral("malformed attribute list"), line);
    return attrs;
}

std::optional<QUrl> Parser::resolve(const QString& uri) {
    QString reason;
    MediaParse::ErrorCode code = MediaParse::Malformed;
    auto url = MediaParse::resolveUri(m_baseUrl, uri, &reason, &code);
    if (!url)
        fail(reason, {}, code);
    return url;
}

bool Parser::fail(const QString& reason, const QString& line, MediaParse::ErrorCode code) {
    if (m_error) {
        QString text = QStringLiteral("Playlist line %1: %2").arg(m_lineNumber).arg(reason);
        if (!line.isEmpty())
            text += QStringLiteral(": ") + MediaParse::shortened(line);
        *m_error = MediaParse::error(code, text, TERNCL_SOURCE_PLACE);
    }
    return false;
}

} // namespace

HlsPlaylistReader::Playlist HlsPlaylistReader::parse(const QByteArray& text, const QUrl& baseUrl,
                                                     AbstractError* error) {
    if (error)
        *error = AbstractError();
    return Parser(baseUrl, error).run(text);
}

QUrl HlsPlaylistReader::bestVariant(const Playlist& playlist) {
    const Variant* best = nullptr;
    for (const auto& variant : playlist.variants) {
        if (!best || variant.bandwidth > best->bandwidth)
            best = &variant;
    }
    return best ? best->url : QUrl();
}
