#include "mediachilddata_p.h"

namespace terncl::media {

AbstractDownloadSourceInfo
sourceOf(const AbstractDownloadResourceVersionSelector::Version& version) {
    AbstractDownloadSourceInfo source;
    source.url = version.url;
    for (const QString& line : version.requestHeaders) {
        const qsizetype colon = line.indexOf(u':');
        if (colon <= 0)
            continue;
        source.requestHeaders.append(
            {line.left(colon).trimmed().toUtf8(), line.mid(colon + 1).trimmed().toUtf8()});
    }
    return source;
}

QVariantHash childInitData(const AbstractDownloadResourceVersionSelector::Version& version,
                           const AbstractDownloadFileInfo* file) {
    return {
        {QStringLiteral("source"), sourceOf(version).toVariantHash()},
        {QStringLiteral("file"), file ? file->toVariantHash() : QVariantHash()},
        {QStringLiteral("protocol"), version.protocol},
        {QStringLiteral("initData"), version.details},
    };
}

} // namespace terncl::media
