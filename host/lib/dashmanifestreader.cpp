#include "dashmanifestreader.h"

#include <terncl/core/sourceplace.h>

#include <QHash>
#include <QXmlStreamReader>

#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

namespace {

using Reader = DashManifestReader;

constexpr int maxDepth = 32;

// The manifest as a small tree: the reader needs to look up and down the hierarchy
// (inheritance of segment information, protection anywhere below an adaptation set), and
// manifests do not always keep the schema's order of elements.
struct Element {
    QString name; // local name: namespaces do not matter here
    QHash<QString, QString> attributes;
    QString text;
    qint64 line = 0;
    qint64 column = 0;
    std::vector<std::unique_ptr<Element>> children;

    QString attribute(const char* key) const { return attributes.value(QLatin1String(key)); }
    bool has(const char* key) const { return attributes.contains(QLatin1String(key)); }
    const Element* child(const char* childName) const {
        for (const auto& c : children) {
            if (c->name == QLatin1String(childName))
                return c.get();
        }
        return nullptr;
    }
    QList<const Element*> all(const char* childName) const {
        QList<const Element*> result;
        for (const auto& c : children) {
            if (c->name == QLatin1String(childName))
                result.append(c.get());
        }
        return result;
    }
    const Element* find(const char* descendant) const {
        for (const auto& c : children) {
            if (c->name == QLatin1String(descendant))
                return c.get();
            if (const Element* found = c->find(descendant))
                return found;
        }
        return nullptr;
    }
};

// A parse failure: the place in the text and what is wrong there.
struct Failure {
    qint64 line = 0;
    qint64 column = 0;
    QString text;
    MediaParse::ErrorCode code = MediaParse::Malformed;
};

Failure failureAt(const Element& element, const QString& text,
                  MediaParse::ErrorCode code = MediaParse::Malformed) {
    return {element.line, element.column, text, code};
}

std::optional<qint64> toInteger(const QString& text, qint64 min = 0) {
    bool ok = false;
    const qint64 value = text.trimmed().toLongLong(&ok);
    if (!ok || value < min)
        return std::nullopt;
    return value;
}

// ISO 8601 durations as manifests write them: "PT1H2M3.5S", "P1DT2H". Years and months have no
// fixed length and are refused.
std::optional<double> parseDuration(const QString& text) {
    if (!text.startsWith(u'P'))
        return std::nullopt;
    double seconds = 0;
    bool inTime = false;
    QString number;
    for (int i = 1; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c == u'T') {
            if (inTime || !number.isEmpty())
                return std::nullopt;
            inTime = true;
            continue;
        }
        if (c.isDigit() || c == u'.') {
            number += c;
            continue;
        }
        bool ok = false;
        const double value = number.toDouble(&ok);
        number.clear();
        if (!ok)
            return std::nullopt;
        if (c == u'D' && !inTime)
            seconds += value * 86400;
        else if (c == u'H' && inTime)
            seconds += value * 3600;
        else if (c == u'M' && inTime)
            seconds += value * 60;
        else if (c == u'S' && inTime)
            seconds += value;
        else
            return std::nullopt;
    }
    if (!number.isEmpty() || !std::isfinite(seconds))
        return std::nullopt;
    return seconds;
}

// A small non-negative count such as a width; 0 when missing, invalid or beyond max.
int smallNumber(const QString& text, int max) {
    const qint64 value = toInteger(text).value_or(0);
    return value <= max ? int(value) : 0;
}

double parseFrameRate(const QString& text) {
    const QStringList parts = text.split(u'/');
    bool ok = false;
    const double numerator = parts.value(0).toDouble(&ok);
    if (!ok || parts.size() > 2)
        return 0;
    const double denominator = parts.size() == 2 ? parts.at(1).toDouble(&ok) : 1;
    return ok && denominator > 0 && numerator > 0 && numerator / denominator < 1000
               ? numerator / denominator
               : 0;
}

// "first-last", both inclusive, as a source's range.
bool applyRange(const QString& text, AbstractDownloadSourceInfo* source) {
    const QStringList parts = text.split(u'-');
    if (parts.size() != 2)
        return false;
    const auto first = toInteger(parts.at(0));
    const auto last = toInteger(parts.at(1));
    if (!first || !last || *last < *first || *last == std::numeric_limits<qint64>::max())
        return false;
    source->rangeOffset = *first;
    source->rangeSize = *last - *first + 1;
    return true;
}

// Reads the whole text into a tree; an XML error names the reader's line and column.
class TreeBuilder {
public:
    explicit TreeBuilder(const QByteArray& text)
        : m_xml(text) {}

    std::unique_ptr<Element> build(std::optional<Failure>* failure) {
        std::unique_ptr<Element> root;
        while (!m_xml.atEnd() && !m_xml.hasError()) {
            if (m_xml.readNext() == QXmlStreamReader::StartElement) {
                root = element(0, failure);
                break;
            }
        }
        while (!*failure && !m_xml.atEnd())
            m_xml.readNext(); // what follows the root must be well-formed too
        if (!*failure && m_xml.hasError())
            *failure = Failure{m_xml.lineNumber(), m_xml.columnNumber(), m_xml.errorString()};
        if (!*failure && !root)
            *failure = Failure{m_xml.lineNumber(), m_xml.columnNumber(),
                               QStringLiteral("no manifest (the document is empty)")};
        return root;
    }

private:
    // Called on a start element; reads up to and including its end element.
    std::unique_ptr<Element> element(int depth, std::optional<Failure>* failure) {
        auto result = std::make_unique<Element>();
        result->name = m_xml.name().toString();
        result->line = m_xml.lineNumber();
        result->column = m_xml.columnNumber();
        for (const auto& attribute : m_xml.attributes())
            result->attributes.insert(attribute.name().toString(), attribute.value().toString());
        if (depth > maxDepth) {
            *failure = failureAt(*result, QStringLiteral("elements nested too deep"));
            return result;
        }
        while (!m_xml.atEnd()) {
            const auto token = m_xml.readNext();
            if (token == QXmlStreamReader::StartElement) {
                result->children.push_back(element(depth + 1, failure));
                if (*failure)
                    return result;
            } else if (token == QXmlStreamReader::Characters &&
                       result->name == QLatin1String("BaseURL")) {
                result->text += m_xml.text();
            } else if (token == QXmlStreamReader::EndElement) {
                break;
            }
        }
        return result;
    }

    QXmlStreamReader m_xml;
};

// Segment information of one level (Period, AdaptationSet, Representation); a lower level
// inherits what it does not set itself from the level above, for the same kind of element.
struct SegmentInfo {
    const Element* element = nullptr; // SegmentTemplate, SegmentList or SegmentBase
    QHash<QString, QString> attributes;
    const Element* timeline = nullptr;
    const Element* initialization = nullptr;

    static SegmentInfo of(const Element& level, const SegmentInfo& parent) {
        for (const char* name : {"SegmentTemplate", "SegmentList", "SegmentBase"}) {
            const Element* element = level.child(name);
            if (!element)
                continue;
            SegmentInfo info;
            if (parent.element && parent.element->name == element->name)
                info = parent;
            info.element = element;
            for (auto it = element->attributes.cbegin(); it != element->attributes.cend(); ++it)
                info.attributes.insert(it.key(), it.value());
            if (const Element* timeline = element->child("SegmentTimeline"))
                info.timeline = timeline;
            if (const Element* init = element->child("Initialization"))
                info.initialization = init;
            return info;
        }
        return parent;
    }

    bool is(const char* name) const { return element && element->name == QLatin1String(name); }
    QString attribute(const char* key) const { return attributes.value(QLatin1String(key)); }
};

// Where one level stands: its base URL and whether any BaseURL was given on the way down.
struct Level {
    QUrl base;
    bool hasBaseUrl = false;
    SegmentInfo segments;
};

class Parser {
public:
    Parser(const QUrl& manifestUrl, AbstractError* error)
        : m_manifestUrl(manifestUrl)
        , m_error(error) {}

    Reader::Manifest run(const QByteArray& text);

private:
    std::optional<Failure> parseManifest(const Element& root);
    std::optional<Failure> parsePeriod(const Element& period, const Level& parent);
    std::optional<Failure> parseAdaptationSet(const Element& set, const Level& parent);
    std::optional<Failure> parseRepresentation(const Element& element, const Element& set,
                                               const Level& parent);
    std::optional<Failure> descend(const Element& element, const Level& parent, Level* level);
    std::optional<Failure> buildSegments(const Element& element, const Level& level,
                                         Reader::Representation* rep);
    std::optional<Failure> fromTemplate(const Level& level, Reader::Representation* rep);
    std::optional<Failure> fromList(const Level& level, Reader::Representation* rep);
    std::optional<Failure> addSource(const Element& at, const Level& level, const QString& uri,
                                     const QString& range, Reader::Representation* rep);
    std::optional<QString> expand(const QString& text, const Reader::Representation& rep,
                                  std::optional<qint64> number, std::optional<qint64> time,
                                  QString* problem) const;
    std::optional<Failure> checkCount(const Element& at, qint64 count);

    QUrl m_manifestUrl;
    AbstractError* m_error;
    Reader::Manifest m_manifest;
    double m_periodSeconds = 0;
    qint64 m_totalSegments = 0;
};

Reader::Manifest Parser::run(const QByteArray& text) {
    std::optional<Failure> failure;
    const auto root = TreeBuilder(text).build(&failure);
    if (!failure)
        failure = parseManifest(*root);
    if (!failure)
        return m_manifest;
    if (m_error) {
        const QString description = QStringLiteral("Manifest line %1, column %2: %3")
                                        .arg(failure->line)
                                        .arg(failure->column)
                                        .arg(failure->text);
        *m_error = MediaParse::error(failure->code, description, TERNCL_SOURCE_PLACE);
    }
    return {};
}

std::optional<Failure> Parser::parseManifest(const Element& root) {
    if (root.name != QLatin1String("MPD"))
        return failureAt(root, QStringLiteral("not a DASH manifest (the root element is %1)")
                                   .arg(MediaParse::shortened(root.name)));
    if (root.attribute("type") == QLatin1String("dynamic"))
        return failureAt(root,
                         QStringLiteral("live manifests (type=\"dynamic\") are not supported"),
                         MediaParse::Unsupported);
    if (root.has("mediaPresentationDuration")) {
        const auto duration = parseDuration(root.attribute("mediaPresentationDuration"));
        if (!duration)
            return failureAt(root, QStringLiteral("invalid mediaPresentationDuration"));
        m_manifest.durationSeconds = *duration;
    }
    Level level;
    level.base = m_manifestUrl;
    Level manifestLevel;
    if (auto failure = descend(root, level, &manifestLevel))
        return failure;
    const auto periods = root.all("Period");
    if (periods.isEmpty())
        return failureAt(root, QStringLiteral("the manifest has no Period"));
    if (periods.size() > 1)
        return failureAt(
            *periods.at(1),
            QStringLiteral("manifests of %1 periods are not supported").arg(periods.size()),
            MediaParse::Unsupported);
    return parsePeriod(*periods.constFirst(), manifestLevel);
}

std::optional<Failure> Parser::parsePeriod(const Element& period, const Level& parent) {
    std::optional<double> start = 0.0;
    if (period.has("start"))
        start = parseDuration(period.attribute("start"));
    std::optional<double> duration = m_manifest.durationSeconds - start.value_or(0);
    if (period.has("duration"))
        duration = parseDuration(period.attribute("duration"));
    if (!start || !duration)
        return failureAt(period, QStringLiteral("invalid period start or duration"));
    m_periodSeconds = *duration;
    if (m_manifest.durationSeconds <= 0)
        m_manifest.durationSeconds = m_periodSeconds;
    Level level;
    if (auto failure = descend(period, parent, &level))
        return failure;
    for (const Element* set : period.all("AdaptationSet")) {
        if (auto failure = parseAdaptationSet(*set, level))
            return failure;
    }
    return std::nullopt;
}

std::optional<Failure> Parser::descend(const Element& element, const Level& parent, Level* level) {
    *level = parent;
    level->segments = SegmentInfo::of(element, parent.segments);
    const Element* baseUrl = element.child("BaseURL");
    if (!baseUrl || baseUrl->text.trimmed().isEmpty())
        return std::nullopt;
    QString reason;
    MediaParse::ErrorCode code = MediaParse::Malformed;
    const auto url = MediaParse::resolveUri(parent.base, baseUrl->text.trimmed(), &reason, &code);
    if (!url)
        return failureAt(*baseUrl, reason, code);
    level->base = *url;
    level->hasBaseUrl = true;
    return std::nullopt;
}

std::optional<Failure> Parser::parseAdaptationSet(const Element& set, const Level& parent) {
    // Keys and licences are out of reach: refuse rather than hand out encrypted bytes.
    if (const Element* protection = set.find("ContentProtection")) {
        QString method = protection->attribute("value");
        if (method.isEmpty())
            method = protection->attribute("schemeIdUri");
        return failureAt(*protection,
                         QStringLiteral("encrypted stream: %1 is not supported")
                             .arg(MediaParse::shortened(method)),
                         MediaParse::Unsupported);
    }
    Level level;
    if (auto failure = descend(set, parent, &level))
        return failure;
    for (const Element* rep : set.all("Representation")) {
        if (auto failure = parseRepresentation(*rep, set, level))
            return failure;
    }
    return std::nullopt;
}

std::optional<Reader::Kind> kindOf(const QString& contentType, const QString& mimeType,
                                   const QStringList& codecs) {
    const QString type = contentType.isEmpty() ? mimeType.section(u'/', 0, 0) : contentType;
    if (type == QLatin1String("video"))
        return Reader::Kind::Video;
    if (type == QLatin1String("audio"))
        return Reader::Kind::Audio;
    if (type == QLatin1String("text"))
        return Reader::Kind::Text;
    const QString codec = codecs.value(0).toLower();
    if (codec.startsWith(QLatin1String("stpp")) || codec.startsWith(QLatin1String("wvtt")) ||
        mimeType == QLatin1String("application/ttml+xml"))
        return Reader::Kind::Text;
    return std::nullopt; // thumbnails and the like: not something to download
}

std::optional<Failure> Parser::parseRepresentation(const Element& element, const Element& set,
                                                   const Level& parent) {
    const auto value = [&](const char* key) {
        return element.has(key) ? element.attribute(key) : set.attribute(key);
    };
    Reader::Representation rep;
    rep.id = element.attribute("id");
    rep.mimeType = value("mimeType");
    for (const QString& codec : value("codecs").split(u',')) {
        if (!codec.trimmed().isEmpty())
            rep.codecs.append(codec.trimmed());
    }
    const auto kind = kindOf(set.attribute("contentType"), rep.mimeType, rep.codecs);
    if (!kind)
        return std::nullopt;
    rep.kind = *kind;
    rep.width = smallNumber(value("width"), 1 << 16);
    rep.height = smallNumber(value("height"), 1 << 16);
    rep.frameRate = parseFrameRate(value("frameRate"));
    const auto bandwidth = toInteger(element.attribute("bandwidth"));
    if (!bandwidth)
        return failureAt(element, QStringLiteral("representation without a valid bandwidth"));
    rep.bandwidth = *bandwidth;
    rep.language = set.attribute("lang");
    rep.audioSamplingRate = smallNumber(value("audioSamplingRate"), 1 << 24);
    Level level;
    if (auto failure = descend(element, parent, &level))
        return failure;
    rep.url = level.base;
    if (auto failure = buildSegments(element, level, &rep))
        return failure;
    m_manifest.representations.append(rep);
    return std::nullopt;
}

std::optional<Failure> Parser::buildSegments(const Element& element, const Level& level,
                                             Reader::Representation* rep) {
    if (level.segments.is("SegmentTemplate")) {
        auto failure = fromTemplate(level, rep);
        if (!failure && rep->segments.size() == (rep->hasInitSegment ? 1 : 0))
            failure = failureAt(*level.segments.element,
                                QStringLiteral("representation %1 lists no segments")
                                    .arg(MediaParse::shortened(rep->id)));
        return failure;
    }
    if (level.segments.is("SegmentList"))
        return fromList(level, rep);
    // SegmentBase or nothing: the representation is the one file its BaseURL names.
    if (!level.hasBaseUrl)
        return failureAt(element, QStringLiteral("representation %1 names no media (no BaseURL "
                                                 "and no segments)")
                                      .arg(MediaParse::shortened(rep->id)));
    rep->singleFile = true;
    AbstractDownloadSourceInfo source;
    source.url = level.base;
    rep->segments.append(source);
    return checkCount(element, 1);
}

std::optional<Failure> Parser::checkCount(const Element& at, qint64 count) {
    if (count < 0 || count > Reader::MaxSegments - m_totalSegments)
        return failureAt(at, QStringLiteral("more than %1 segments").arg(Reader::MaxSegments),
                         MediaParse::Unsupported);
    m_totalSegments += count;
    return std::nullopt;
}

std::optional<Failure> Parser::addSource(const Element& at, const Level& level, const QString& uri,
                                         const QString& range, Reader::Representation* rep) {
    AbstractDownloadSourceInfo source;
    source.url = level.base;
    if (!uri.isEmpty()) {
        QString reason;
        MediaParse::ErrorCode code = MediaParse::Malformed;
        const auto url = MediaParse::resolveUri(level.base, uri, &reason, &code);
        if (!url)
            return failureAt(at, reason, code);
        source.url = *url;
    }
    if (!range.isEmpty() && !applyRange(range, &source))
        return failureAt(at, QStringLiteral("invalid byte range %1").arg(range.left(60)));
    rep->segments.append(source);
    return std::nullopt;
}

// Template identifiers: $RepresentationID$, $Bandwidth$, $Number$ and $Time$ with an optional
// width such as $Number%05d$, and $$ for a dollar sign.
std::optional<QString> Parser::expand(const QString& text, const Reader::Representation& rep,
                                      std::optional<qint64> number, std::optional<qint64> time,
                                      QString* problem) const {
    QString result;
    int i = 0;
    while (i < text.size()) {
        const int open = int(text.indexOf(u'$', i));
        if (open < 0) {
            result += text.mid(i);
            break;
        }
        const int close = int(text.indexOf(u'$', open + 1));
        if (close < 0) {
            *problem = QStringLiteral("unterminated identifier in template");
            return std::nullopt;
        }
        result += text.mid(i, open - i);
        i = close + 1;
        const QString identifier = text.mid(open + 1, close - open - 1);
        if (identifier.isEmpty()) {
            result += u'$';
            continue;
        }
        const QString name = identifier.section(u'%', 0, 0);
        const QString format = identifier.mid(name.size());
        int width = 1;
        if (!format.isEmpty()) {
            bool ok = format.size() >= 2 && format.endsWith(u'd');
            const QString digits = format.mid(1, format.size() - 2);
            width = digits.isEmpty() ? 1 : digits.toInt(&ok);
            if (!ok || width < 1 || width > 32 || name == QLatin1String("RepresentationID")) {
                *problem = QStringLiteral("invalid format in template: $%1$")
                               .arg(MediaParse::shortened(identifier));
                return std::nullopt;
            }
        }
        std::optional<qint64> value;
        if (name == QLatin1String("RepresentationID")) {
            result += rep.id;
            continue;
        } else if (name == QLatin1String("Bandwidth")) {
            value = rep.bandwidth;
        } else if (name == QLatin1String("Number")) {
            value = number;
        } else if (name == QLatin1String("Time")) {
            value = time;
        }
        if (!value) {
            *problem = QStringLiteral("template identifier $%1$ cannot be used here")
                           .arg(MediaParse::shortened(identifier));
            return std::nullopt;
        }
        result += QStringLiteral("%1").arg(*value, width, 10, QLatin1Char('0'));
    }
    return result;
}

std::optional<Failure> Parser::fromTemplate(const Level& level, Reader::Representation* rep) {
    const SegmentInfo& info = level.segments;
    const Element& at = *info.element;
    const auto timescale = toInteger(
        info.attribute("timescale").isEmpty() ? QStringLiteral("1") : info.attribute("timescale"),
        1);
    const auto startNumber =
        toInteger(info.attribute("startNumber").isEmpty() ? QStringLiteral("1")
                                                          : info.attribute("startNumber"));
    // Numbers stay far from the end of the integer range, so that counting up cannot overflow.
    constexpr qint64 maxStartNumber = qint64(1) << 53;
    if (!timescale || !startNumber || *startNumber > maxStartNumber)
        return failureAt(at, QStringLiteral("invalid timescale or startNumber"));
    QString problem;
    if (info.attributes.contains(QStringLiteral("initialization"))) {
        const auto init = expand(info.attribute("initialization"), *rep, {}, {}, &problem);
        if (!init)
            return failureAt(at, problem);
        if (auto failure = addSource(at, level, *init, {}, rep))
            return failure;
        if (auto failure = checkCount(at, 1)) // an init segment is fetched like any other
            return failure;
        rep->hasInitSegment = true;
    }
    const QString media = info.attribute("media");
    if (media.isEmpty())
        return failureAt(at, QStringLiteral("segment template without media"));
    const auto add = [&](qint64 number, std::optional<qint64> time) -> std::optional<Failure> {
        const auto uri = expand(media, *rep, number, time, &problem);
        if (!uri)
            return failureAt(at, problem);
        return addSource(at, level, *uri, {}, rep);
    };
    qint64 number = *startNumber;
    if (!info.timeline) {
        const auto duration = toInteger(info.attribute("duration"), 1);
        if (!duration)
            return failureAt(at, QStringLiteral("segment template without a duration or a "
                                                "SegmentTimeline"));
        if (m_periodSeconds <= 0)
            return failureAt(at, QStringLiteral("the length of the presentation is not given"));
        const double count =
            std::ceil(m_periodSeconds * double(*timescale) / double(*duration) - 1e-6);
        if (count > Reader::MaxSegments)
            return checkCount(at, Reader::MaxSegments + 1);
        if (auto failure = checkCount(at, qint64(count)))
            return failure;
        for (qint64 i = 0; i < qint64(count); ++i) {
            if (auto failure = add(number + i, std::nullopt))
                return failure;
        }
        return std::nullopt;
    }
    // Media times of the period start at its presentation time offset.
    const double periodEnd =
        double(toInteger(info.attribute("presentationTimeOffset")).value_or(0)) +
        m_periodSeconds * double(*timescale);
    const auto entries = info.timeline->all("S");
    qint64 time = 0;
    for (int i = 0; i < entries.size(); ++i) {
        const Element& s = *entries.at(i);
        const auto t = s.has("t") ? toInteger(s.attribute("t")) : std::optional<qint64>(time);
        const auto d = toInteger(s.attribute("d"), 1);
        const auto r = s.has("r") ? toInteger(s.attribute("r"), -1) : std::optional<qint64>(0);
        if (!t || !d || !r)
            return failureAt(s, QStringLiteral("invalid segment timeline entry"));
        time = *t;
        qint64 repeats = *r;
        if (repeats == -1) {
            // Repeat up to the next entry's start, or to the end of the period.
            const Element* next = i + 1 < entries.size() ? entries.at(i + 1) : nullptr;
            const auto nextStart =
                next && next->has("t") ? toInteger(next->attribute("t")) : std::nullopt;
            const double end = nextStart ? double(*nextStart) : periodEnd;
            if (end <= double(time))
                return failureAt(s, QStringLiteral("a repeat up to an unknown end"));
            const double count = std::ceil((end - double(time)) / double(*d) - 1e-6);
            repeats = count > Reader::MaxSegments ? Reader::MaxSegments : qint64(count) - 1;
        }
        if (repeats >= Reader::MaxSegments)
            return checkCount(s, Reader::MaxSegments + 1);
        if (auto failure = checkCount(s, repeats + 1))
            return failure;
        for (qint64 k = 0; k <= repeats; ++k) {
            if (auto failure = add(number++, time))
                return failure;
            if (time > std::numeric_limits<qint64>::max() - *d)
                return failureAt(s, QStringLiteral("segment time out of range"));
            time += *d;
        }
    }
    return std::nullopt;
}

std::optional<Failure> Parser::fromList(const Level& level, Reader::Representation* rep) {
    const SegmentInfo& info = level.segments;
    bool everyRanged = true;
    qint64 bytes = 0;
    const auto addRanged = [&](const Element& at, const QString& uri,
                               const QString& range) -> std::optional<Failure> {
        if (auto failure = addSource(at, level, uri, range, rep))
            return failure;
        const qint64 size = rep->segments.constLast().rangeSize;
        everyRanged =
            everyRanged && !range.isEmpty() && size <= std::numeric_limits<qint64>::max() - bytes;
        if (everyRanged)
            bytes += size;
        return std::nullopt;
    };
    if (info.initialization) {
        const Element& init = *info.initialization;
        if (auto failure = addRanged(init, init.attribute("sourceURL"), init.attribute("range")))
            return failure;
        if (auto failure = checkCount(init, 1))
            return failure;
        rep->hasInitSegment = true;
    }
    const auto segments = info.element->all("SegmentURL");
    if (segments.isEmpty())
        return failureAt(*info.element, QStringLiteral("segment list without SegmentURL"));
    if (auto failure = checkCount(*info.element, qint64(segments.size())))
        return failure;
    for (const Element* segment : segments) {
        if (auto failure =
                addRanged(*segment, segment->attribute("media"), segment->attribute("mediaRange")))
            return failure;
    }
    if (everyRanged)
        rep->exactSize = bytes;
    return std::nullopt;
}

} // namespace

DashManifestReader::Manifest
DashManifestReader::parse(const QByteArray& text, const QUrl& manifestUrl, AbstractError* error) {
    if (error)
        *error = AbstractError();
    return Parser(manifestUrl, error).run(text);
}
