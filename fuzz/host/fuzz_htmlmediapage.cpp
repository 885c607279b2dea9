// Feeds arbitrary bytes to the web page reader as if fetched from an https URL, and lists its
// plain files as versions.
#include "htmlmediapagereader.h"
#include "mediafuzzchecks.h"

#include <QByteArray>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray html(reinterpret_cast<const char*>(data), qsizetype(size));
    const QUrl base(QStringLiteral("https://host/path/page.html"));
    AbstractError error;
    const auto page = HtmlMediaPageReader::parse(html, base, &error);
    check(page.refusedLinks >= 0);
    if (error.isSet()) {
        checkError(error);
        check(page.links.isEmpty());
        return 0;
    }
    QSet<QString> seen;
    for (const auto& link : page.links) {
        checkUrl(link.url);
        check(!seen.contains(link.url.toString()));
        seen.insert(link.url.toString());
    }
    checkListing(MediaVersions::fromPage(page, base));
    return 0;
}
