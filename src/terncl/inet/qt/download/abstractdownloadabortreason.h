#pragma once

#include <QMetaType>

// Why a request for new downloads ended without adding them.
enum class AbstractDownloadAbortReason : qint32 {
    None = 0,
    CancelledByUser = 1,
    AlreadyAdded = 2, // every download of the request exists already
    NotSupported = 3, // no module handles the request
    Failed = 4,       // an error; its text goes with the report
};

Q_DECLARE_METATYPE(AbstractDownloadAbortReason)
