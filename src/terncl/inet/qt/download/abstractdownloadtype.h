#pragma once

#include <QMetaType>

// What kind of resource a download fetches (AbstractDownloadPersistentInfo::downloadType).
// Values are stored in records, so existing ones never change.
enum class AbstractDownloadType : qint32 {
    Unknown = 0,
    Resource = 1,   // one resource at one address (a file, a segmented stream)
    Collection = 2, // a resource that describes several files fetched together
    Media = 3,      // a media resource found on a web page, fetched in chosen versions
    Pack = 4,       // a group of other downloads
};

Q_DECLARE_METATYPE(AbstractDownloadType)
