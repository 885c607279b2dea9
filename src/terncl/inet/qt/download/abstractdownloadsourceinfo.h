#pragma once

#include <terncl/ternclshared_export.h>

#include <QByteArray>
#include <QList>
#include <QMetaType>
#include <QUrl>
#include <QVariantHash>

#include <utility>

// Where one piece of a resource comes from: its address, the request headers to send and,
// for resources that are byte ranges of a larger file, the range. Segment downloaders store it
// in a download's custom data, so it converts to and from a QVariantHash; keys it does not know
// are kept so that a record written by a newer build survives a round trip.
struct TERNCL_EXPORT AbstractDownloadSourceInfo {
    QUrl url;
    QList<std::pair<QByteArray, QByteArray>> requestHeaders;
    qint64 rangeOffset = 0; // first byte of the range within the resource
    qint64 rangeSize = -1;  // -1: up to the end of the resource
    QVariantHash extra;     // keys of newer builds, kept as they are

    bool isByteRange() const { return rangeOffset != 0 || rangeSize >= 0; }

    bool operator==(const AbstractDownloadSourceInfo& other) const;
    bool operator!=(const AbstractDownloadSourceInfo& other) const { return !(*this == other); }

    QVariantHash toVariantHash() const;
    static AbstractDownloadSourceInfo fromVariantHash(const QVariantHash& hash);
};

Q_DECLARE_METATYPE(AbstractDownloadSourceInfo)
