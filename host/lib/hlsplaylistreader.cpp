#include "hlsplaylistreader.h"

#include <terncl/core/sourceplace.h>

#include <QHash>
#include <QRegularExpression>
#include <QStringList>

#include <optional>

namespace {

struct ByteRange {
    qint64 size = 0;
    std::optional<qint64> offset;
};

// Attribute lists: KEY=VALUE pairs separated by commas, values optionally quoted.
QHash<QString, QString> attributes(const QString& text) {
    static const QRegularExpression pair(QStringLiteral(R"(([A-Z0-9-]+)=("[^"]*"|[^,]*))"));
    QHash<QString, QString> result;
    auto it = pair.globalMatch(text);
    while (it.hasNext()) {
        const auto match = it.next();
        QString value = match.captured(2);
        if (value.size() >= 2 && value.startsWith(u'"') && value.endsWith(u'"'))
            value = value.mid(1, value.size() - 2);
        result.insert(match.captured(1), value);
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
        if (!ok || offset < 0)
            return std::nullopt;
        range.offset = offset;
    }
    return range;
}

class Parser {
public:
    Parser(const QUrl& baseUrl, AbstractError* error)
        : m_baseUrl(baseUrl)
        , m_error(error) {}

    HlsPlaylistReader::Playlist run(const QByteArray& text);

private:
    bool parseLine(const QString& line);
    bool parseTag(const QString& line);
    bool addUri(const QString& line);
    bool fail(const QString& reason, const QString& line);
    std::optional<QUrl> resolve(const QString& uri);

    QUrl m_baseUrl;
    AbstractError* m_error;
    HlsPlaylistReader::Playlist m_playlist;
    int m_lineNumber = 0;
    bool m_expectSegmentUri = false;
    bool m_expectVariantUri = false;
    qint64 m_pendingBandwidth = 0;
    QString m_pendingResolution;
    std::optional<ByteRange> m_pendingRange;
    QUrl m_lastRangeUrl;
    qint64 m_nextRangeOffset = 0;
    double m_pendingDuration = 0;
};

HlsPlaylistReader::Playlist Parser::run(const QByteArray& text) {
    const QStringList lines =
        QString::fromUtf8(text).split(QRegularExpression(QStringLiteral("\r?\n")));
    for (const QString& raw : lines) {
        ++m_lineNumber;
        const QString line = raw.trimmed();
        if (m_lineNumber == 1 && line != QStringLiteral("#EXTM3U")) {
            fail(QStringLiteral("not an HLS playlist (no #EXTM3U header)"), line);
            return {};
        }
        if (!parseLine(line))
            return {};
    }
    if (m_expectSegmentUri || m_expectVariantUri) {
        fail(QStringLiteral("a tag expects a URI but the playlist ends"), QString());
        return {};
    }
    return m_playlist;
}

bool Parser::parseLine(const QString& line) {
    if (line.isEmpty() || m_lineNumber == 1)
        return true;
    if (line.startsWith(u'#'))
        return line.startsWith(QStringLiteral("#EXT")) ? parseTag(line) : true;
    return addUri(line);
}

bool Parser::parseTag(const QString& line) {
    const int colon = line.indexOf(u':');
    const QString tag = colon < 0 ? line : line.left(colon);
    const QString value = colon < 0 ? QString() : line.mid(colon + 1);
    if (tag == QStringLiteral("#EXTINF")) {
        bool ok = false;
        m_pendingDuration = value.section(u',', 0, 0).toDouble(&ok);
        if (!ok || m_pendingDuration < 0)
            return fail(QStringLiteral("invalid segment duration"), line);
        m_expectSegmentUri = true;
    } else if (tag == QStringLiteral("#EXT-X-ENDLIST")) {
        m_playlist.complete = true;
    } else if (tag == QStringLiteral("#EXT-X-BYTERANGE")) {
        m_pendingRange = parseByteRange(value);
        if (!m_pendingRange)
            return fail(QStringLiteral("invalid byte range"), line);
    } else if (tag == QStringLiteral("#EXT-X-KEY") || tag == QStringLiteral("#EXT-X-SESSION-KEY")) {
        const QString method = attributes(value).value(QStringLiteral("METHOD"));
        if (method != QStringLiteral("NONE"))
            return fail(
                QStringLiteral("encrypted segments (METHOD=%1) are not supported").arg(method),
                line);
    } else if (tag == QStringLiteral("#EXT-X-MAP")) {
        const auto attrs = attributes(value);
        const auto url = resolve(attrs.value(QStringLiteral("URI")));
        if (!url || attrs.value(QStringLiteral("URI")).isEmpty())
            return fail(QStringLiteral("init segment without a valid URI"), line);
        if (m_playlist.hasInitSegment)
            return fail(QStringLiteral("a second init segment is not supported"), line);
        AbstractDownloadSourceInfo source;
        source.url = *url;
        if (attrs.contains(QStringLiteral("BYTERANGE"))) {
            const auto range = parseByteRange(attrs.value(QStringLiteral("BYTERANGE")));
            if (!range)
                return fail(QStringLiteral("invalid init segment byte range"), line);
            source.rangeOffset = range->offset.value_or(0);
            source.rangeSize = range->size;
        }
        m_playlist.segments.prepend(source);
        m_playlist.hasInitSegment = true;
    } else if (tag == QStringLiteral("#EXT-X-STREAM-INF")) {
        const auto attrs = attributes(value);
        bool ok = false;
        m_pendingBandwidth = attrs.value(QStringLiteral("BANDWIDTH")).toLongLong(&ok);
        if (!ok)
            return fail(QStringLiteral("variant without a valid BANDWIDTH"), line);
        m_pendingResolution = attrs.value(QStringLiteral("RESOLUTION"));
        m_playlist.isMaster = true;
        m_expectVariantUri = true;
    }
    return true;
}

bool Parser::addUri(const QString& line) {
    const auto url = resolve(line);
    if (!url)
        return fail(QStringLiteral("invalid URI"), line);
    if (m_expectVariantUri) {
        m_playlist.variants.append({*url, m_pendingBandwidth, m_pendingResolution});
        m_expectVariantUri = false;
        return true;
    }
    if (!m_expectSegmentUri)
        return fail(QStringLiteral("a URI without a preceding #EXTINF"), line);
    AbstractDownloadSourceInfo source;
    source.url = *url;
    if (m_pendingRange) {
        if (!m_pendingRange->offset && m_lastRangeUrl != *url)
            return fail(QStringLiteral("byte range without an offset after another resource"),
                        line);
        source.rangeOffset = m_pendingRange->offset.value_or(m_nextRangeOffset);
        source.rangeSize = m_pendingRange->size;
        m_nextRangeOffset = source.rangeOffset + source.rangeSize;
        m_lastRangeUrl = *url;
        m_pendingRange.reset();
    }
    m_playlist.segments.append(source);
    m_playlist.totalDurationSeconds += m_pendingDuration;
    m_expectSegmentUri = false;
    return true;
}

std::optional<QUrl> Parser::resolve(const QString& uri) {
    // Control characters, blanks and undecodable bytes mean the text is not a playlist line.
    for (const QChar c : uri) {
        if (c.unicode() <= 0x20 || c.unicode() == 0x7f || c == QChar::ReplacementCharacter)
            return std::nullopt;
    }
    const QUrl relative(uri, QUrl::StrictMode);
    if (!relative.isValid())
        return std::nullopt;
    const QUrl url = m_baseUrl.resolved(relative);
    if (!url.isValid() || url.scheme().isEmpty())
        return std::nullopt;
    return url;
}

bool Parser::fail(const QString& reason, const QString& line) {
    if (m_error) {
        const QString text =
            line.isEmpty() ? QStringLiteral("Playlist line %1: %2").arg(m_lineNumber).arg(reason)
                           : QStringLiteral("Playlist line %1: %2: %3")
                                 .arg(m_lineNumber)
                                 .arg(reason, line.left(200));
        *m_error = AbstractError(HlsPlaylistReader::PlaylistError, AbstractError::GenericError,
                                 TERNCL_SOURCE_PLACE, text.toStdString());
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
