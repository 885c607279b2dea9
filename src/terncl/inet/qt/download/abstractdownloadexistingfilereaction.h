#pragma once

#include <QMetaType>

// The standing rule for target files that exist already (AbstractDownloadSettings). Ask falls
// back to RenameToUniqueName for a download that is not interactive.
enum class AbstractDownloadExistingFileReaction : qint32 {
    RenameToUniqueName = 0,
    Overwrite = 1,
    Ask = 2,
};

Q_DECLARE_METATYPE(AbstractDownloadExistingFileReaction)
