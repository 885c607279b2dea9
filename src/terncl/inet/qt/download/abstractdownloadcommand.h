#pragma once

#include <QMetaType>

// What a download is told to do (AbstractDownload::doCommand). Queued by name, so the value
// travels as the meta-type "AbstractDownloadCommand".
enum class AbstractDownloadCommand : int {
    QueryInfo = 0,   // learn what the resource is (names, sizes, versions) without fetching it
    RequeryInfo = 1, // the same, asked again for a download whose information may be outdated
    Start = 2,
    Stop = 3,
    Restart = 4,     // forget the progress and start from the beginning
    VerifyFiles = 5, // check the downloaded data; downloads that cannot verify ignore it
    Finalize = 6,    // finish with what is there (for example stop a live stream and keep it)
};

Q_DECLARE_METATYPE(AbstractDownloadCommand)
