#pragma once

#include <QHash>
#include <QMetaType>

// Where a download can deliver its data (AbstractDownload::supportedDestinations()).
enum class AbstractDownloadDestinationType : qint32 {
    File = 0,   // destinationPath names the file
    Folder = 1, // destinationPath names a folder that receives the files under their names
    Memory = 2, // the body is kept in the record (receivedBody), nothing is written to disk
};

inline size_t qHash(AbstractDownloadDestinationType type, size_t seed = 0) noexcept {
    return qHash(qint32(type), seed);
}

Q_DECLARE_METATYPE(AbstractDownloadDestinationType)
