#include "abstractdownloadsourceinfo.h"

#include <QCoreApplication>
#include <QVariantList>

namespace {
const QString kUrl = QStringLiteral("url");
const QString kHeaders = QStringLiteral("headers");
const QString kRangeOffset = QStringLiteral("rangeOffset");
const QString kRangeSize = QStringLiteral("rangeSize");

QVariantList headersToList(const QList<std::pair<QByteArray, QByteArray>>& headers) {
    QVariantList list;
    for (const auto& [name, value] : headers)
        list.append(QVariant(QVariantList{QString::fromLatin1(name), QString::fromLatin1(value)}));
    return list;
}

QList<std::pair<QByteArray, QByteArray>> headersFromList(const QVariantList& list) {
    QList<std::pair<QByteArray, QByteArray>> headers;
    for (const auto& entry : list) {
        const QVariantList pair = entry.toList();
        if (pair.size() == 2)
            headers.append({pair.at(0).toString().toLatin1(), pair.at(1).toString().toLatin1()});
    }
    return headers;
}
} // namespace

bool AbstractDownloadSourceInfo::operator==(const AbstractDownloadSourceInfo& other) const {
    return url == other.url && requestHeaders == other.requestHeaders &&
           rangeOffset == other.rangeOffset && rangeSize == other.rangeSize && extra == other.extra;
}

QVariantHash AbstractDownloadSourceInfo::toVariantHash() const {
    QVariantHash hash = extra;
    hash.insert(kUrl, url.toString(QUrl::FullyEncoded));
    if (!requestHeaders.isEmpty())
        hash.insert(kHeaders, headersToList(requestHeaders));
    if (isByteRange()) {
        hash.insert(kRangeOffset, rangeOffset);
        hash.insert(kRangeSize, rangeSize);
    }
    return hash;
}

AbstractDownloadSourceInfo AbstractDownloadSourceInfo::fromVariantHash(const QVariantHash& hash) {
    AbstractDownloadSourceInfo info;
    info.url = QUrl(hash.value(kUrl).toString(), QUrl::StrictMode);
    info.requestHeaders = headersFromList(hash.value(kHeaders).toList());
    bool ok = false;
    const qint64 offset = hash.value(kRangeOffset).toLongLong(&ok);
    info.rangeOffset = ok && offset >= 0 ? offset : 0;
    const qint64 size = hash.value(kRangeSize).toLongLong(&ok);
    info.rangeSize = ok && size >= -1 ? size : -1;
    // Only unknown keys are copied: a copy of the whole hash with the known keys taken out would
    // keep the hash's full allocation (kilobytes) in every source of a stream, empty or not.
    for (auto it = hash.cbegin(); it != hash.cend(); ++it) {
        if (it.key() != kUrl && it.key() != kHeaders && it.key() != kRangeOffset &&
            it.key() != kRangeSize)
            info.extra.insert(it.key(), it.value());
    }
    return info;
}

namespace {
void registerSourceInfoMetaType() {
    qRegisterMetaType<AbstractDownloadSourceInfo>("AbstractDownloadSourceInfo");
}
} // namespace

Q_COREAPP_STARTUP_FUNCTION(registerSourceInfoMetaType)
