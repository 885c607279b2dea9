#include "htmlmediapagereader.h"

#include <terncl/core/sourceplace.h>

#include <QFileInfo>
#include <QSet>
#include <QStringDecoder>

#include <libxml/HTMLparser.h>
#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <limits>
#include <memory>
#include <optional>

namespace {

using Reader = HtmlMediaPageReader;

void ignoreGenericError(void*, const char*, ...) {}
void ignoreStructuredError(void*, xmlErrorPtr) {}

// libxml2 prints what it finds wrong unless told otherwise, and pages are full of it. Its
// handlers are per thread; the previous ones come back when the parse is over.
class QuietLibxml {
public:
    QuietLibxml()
        : m_generic(xmlGenericError)
        , m_genericContext(xmlGenericErrorContext)
        , m_structured(xmlStructuredError)
        , m_structuredContext(xmlStructuredErrorContext) {
        xmlSetGenericErrorFunc(nullptr, ignoreGenericError);
        xmlSetStructuredErrorFunc(nullptr, ignoreStructuredError);
    }
    ~QuietLibxml() {
        xmlSetGenericErrorFunc(m_genericContext, m_generic);
        xmlSetStructuredErrorFunc(m_structuredContext, m_structured);
    }
    QuietLibxml(const QuietLibxml&) = delete;
    QuietLibxml& operator=(const QuietLibxml&) = delete;

private:
    xmlGenericErrorFunc m_generic;
    void* m_genericContext;
    xmlStructuredErrorFunc m_structured;
    void* m_structuredContext;
};

struct DocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

QString attribute(const xmlNode* node, const char* name) {
    xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
    if (!value)
        return {};
    const QString result = QString::fromUtf8(reinterpret_cast<const char*>(value));
    xmlFree(value);
    return result;
}

bool isElement(const xmlNode* node, const char* name) {
    return node->type == XML_ELEMENT_NODE &&
           xmlStrcasecmp(node->name, reinterpret_cast<const xmlChar*>(name)) == 0;
}

// A link as the page writes it, before it is resolved.
struct Candidate {
    QString uri;
    QString type;
    bool explicitMedia = false; // named by a media element or meta tag, not found by its suffix
};

const QStringList& fileSuffixes() {
    static const QStringList suffixes{QStringLiteral("mp4"), QStringLiteral("webm"),
                                      QStringLiteral("m4a"), QStringLiteral("mkv")};
    return suffixes;
}

QString suffixOf(const QUrl& url) {
    return QFileInfo(url.path()).suffix().toLower();
}

std::optional<Reader::LinkKind> kindFromType(const QString& type) {
    if (type == QLatin1String("application/x-mpegurl") ||
        type == QLatin1String("application/vnd.apple.mpegurl") ||
        type == QLatin1String("audio/mpegurl") || type == QLatin1String("audio/x-mpegurl"))
        return Reader::LinkKind::HlsPlaylist;
    if (type == QLatin1String("application/dash+xml"))
        return Reader::LinkKind::DashManifest;
    if (type.startsWith(QLatin1String("video/")) || type.startsWith(QLatin1String("audio/")))
        return Reader::LinkKind::MediaFile;
    return std::nullopt;
}

std::optional<Reader::LinkKind> kindFromSuffix(const QString& suffix) {
    if (suffix == QLatin1String("m3u8"))
        return Reader::LinkKind::HlsPlaylist;
    if (suffix == QLatin1String("mpd"))
        return Reader::LinkKind::DashManifest;
    if (fileSuffixes().contains(suffix))
        return Reader::LinkKind::MediaFile;
    return std::nullopt;
}

QString formatOf(const QString& suffix, const QString& type) {
    static const QStringList containers{
        QStringLiteral("mp4"), QStringLiteral("m4v"), QStringLiteral("webm"), QStringLiteral("m4a"),
        QStringLiteral("mkv"), QStringLiteral("mov"), QStringLiteral("ogg"),  QStringLiteral("ogv"),
        QStringLiteral("mp3"), QStringLiteral("flac")};
    if (containers.contains(suffix))
        return suffix;
    if (type == QLatin1String("audio/mp4"))
        return QStringLiteral("m4a");
    if (type == QLatin1String("audio/mpeg"))
        return QStringLiteral("mp3");
    if (type.endsWith(QLatin1String("matroska")))
        return QStringLiteral("mkv");
    const QString subtype = type.section(u'/', 1);
    return containers.contains(subtype) ? subtype : QString();
}

class Collector {
public:
    void visit(const xmlNode* node);

    QString title;
    QString baseHref;
    bool sawBase = false;
    QString ogType;
    QList<Candidate> candidates;

private:
    void visitMeta(const xmlNode* node);
};

void Collector::visit(const xmlNode* node) {
    if (isElement(node, "base") && !sawBase && !attribute(node, "href").isEmpty()) {
        // Only the first <base href> counts.
        sawBase = true;
        baseHref = attribute(node, "href");
    } else if (isElement(node, "title") && title.isEmpty()) {
        xmlChar* text = xmlNodeGetContent(node);
        title = QString::fromUtf8(reinterpret_cast<const char*>(text)).simplified();
        xmlFree(text);
    } else if (isElement(node, "video") || isElement(node, "audio")) {
        if (!attribute(node, "src").isEmpty())
            candidates.append({attribute(node, "src"), attribute(node, "type"), true});
    } else if (isElement(node, "source")) {
        if (!attribute(node, "src").isEmpty())
            candidates.append({attribute(node, "src"), attribute(node, "type"), true});
    } else if (isElement(node, "meta")) {
        visitMeta(node);
    } else if (isElement(node, "a")) {
        if (!attribute(node, "href").isEmpty())
            candidates.append({attribute(node, "href"), attribute(node, "type"), false});
    }
}

void Collector::visitMeta(const xmlNode* node) {
    QString property = attribute(node, "property");
    if (property.isEmpty())
        property = attribute(node, "name");
    property = property.trimmed().toLower();
    const QString content = attribute(node, "content");
    if (property == QLatin1String("og:video:type"))
        ogType = content.trimmed().toLower();
    else if ((property == QLatin1String("og:video") || property == QLatin1String("og:video:url") ||
              property == QLatin1String("og:video:secure_url")) &&
             !content.isEmpty())
        candidates.append({content, QStringLiteral("og"), true});
}

// Browsers drop surrounding blanks and line breaks inside a URL and encode spaces.
QString cleanedUri(const QString& uri) {
    QString result = uri.trimmed();
    result.remove(u'\n');
    result.remove(u'\r');
    result.remove(u'\t');
    result.replace(u' ', QStringLiteral("%20"));
    return result;
}

class PageBuilder {
public:
    PageBuilder(const Collector& collector, const QUrl& pageUrl);
    Reader::Page page;

private:
    void add(const Candidate& candidate);

    const Collector& m_collector;
    QUrl m_base;
    QSet<QString> m_seen;
};

PageBuilder::PageBuilder(const Collector& collector, const QUrl& pageUrl)
    : m_collector(collector)
    , m_base(pageUrl) {
    page.title = collector.title;
    if (collector.sawBase) {
        // A <base> that is not http or https makes every relative link unusable: they are
        // refused one by one below.
        const QUrl base(cleanedUri(collector.baseHref));
        m_base = pageUrl.resolved(base);
    }
    for (const Candidate& candidate : collector.candidates)
        add(candidate);
}

void PageBuilder::add(const Candidate& candidate) {
    const QString uri = cleanedUri(candidate.uri);
    const QString suffix = suffixOf(QUrl(uri));
    QString type = candidate.type.section(u';', 0, 0).trimmed().toLower();
    if (type == QLatin1String("og"))
        type = m_collector.ogType;
    std::optional<Reader::LinkKind> kind = kindFromSuffix(suffix);
    if (!kind)
        kind = kindFromType(type);
    // An og:video that is an embedded player page, or a plain link to anything else, is not
    // media.
    if (!kind && candidate.explicitMedia && !type.startsWith(QLatin1String("text/")) &&
        !type.startsWith(QLatin1String("application/")))
        kind = Reader::LinkKind::MediaFile;
    if (!kind)
        return;
    const auto url = MediaParse::resolveUri(m_base, uri, nullptr);
    if (!url) {
        ++page.refusedLinks;
        return;
    }
    const QString key = url->toString(QUrl::FullyEncoded);
    if (m_seen.contains(key))
        return;
    m_seen.insert(key);
    Reader::Link link;
    link.url = *url;
    link.kind = *kind;
    link.mimeType = type;
    if (*kind == Reader::LinkKind::MediaFile)
        link.format = formatOf(suffixOf(*url), type);
    page.links.append(link);
}

void walk(const xmlNode* root, Collector* collector) {
    // Depth first, without recursion: the depth of a page is the page's to choose.
    const xmlNode* node = root;
    while (node) {
        collector->visit(node);
        if (node->children && node->type == XML_ELEMENT_NODE) {
            node = node->children;
            continue;
        }
        while (node && !node->next && node != root)
            node = node->parent;
        if (!node || node == root)
            break;
        node = node->next;
    }
}

QByteArray chosenEncoding(const QByteArray& html, const QByteArray& encoding) {
    if (!encoding.isEmpty())
        return encoding;
    QStringDecoder decoder(QStringConverter::Utf8);
    const QString decoded = decoder.decode(html);
    Q_UNUSED(decoded);
    return decoder.hasError() ? QByteArray() : QByteArrayLiteral("UTF-8");
}

} // namespace

HtmlMediaPageReader::Page HtmlMediaPageReader::parse(const QByteArray& html, const QUrl& pageUrl,
                                                     AbstractError* error,
                                                     const QByteArray& encoding) {
    if (error)
        *error = AbstractError();
    Page page;
    if (html.size() < std::numeric_limits<int>::max()) {
        static const bool initialized = (xmlInitParser(), true);
        Q_UNUSED(initialized);
        const QuietLibxml quiet;
        const QByteArray charset = chosenEncoding(html, encoding);
        const std::unique_ptr<xmlDoc, DocFree> doc(htmlReadMemory(
            html.constData(), int(html.size()), nullptr,
            charset.isEmpty() ? nullptr : charset.constData(),
            HTML_PARSE_RECOVER | HTML_PARSE_NONET | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING));
        if (doc) {
            Collector collector;
            walk(xmlDocGetRootElement(doc.get()), &collector);
            page = PageBuilder(collector, pageUrl).page;
        }
    }
    if (page.links.isEmpty() && error) {
        *error = MediaParse::error(
            MediaParse::NoMedia, QStringLiteral("no media found on the page"), TERNCL_SOURCE_PLACE);
    }
    return page;
}
