#pragma once

#include <QMetaType>

// How a download relates to another one's record (AbstractDownload::compareDownloads), asked
// before a new download is added so that duplicates are caught.
enum class CompareDownloadsResult : qint32 {
    Different = 0,
    Similar = 1,       // same resource, but details differ enough to keep both
    Same = 2,          // a duplicate: the new one adds nothing
    SameMergeable = 3, // a duplicate whose record can be merged into this download
};

Q_DECLARE_METATYPE(CompareDownloadsResult)
