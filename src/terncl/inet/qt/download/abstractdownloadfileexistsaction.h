#pragma once

#include <QMetaType>

// The answer to AbstractDownload::fileExistsActionRequired: what to do about a target file
// that exists already. Queued by name as "AbstractDownloadFileExistsAction".
enum class AbstractDownloadFileExistsAction : qint32 {
    Abort = 0,     // leave the existing file alone and stop
    Overwrite = 1, // replace the existing file
    Rename = 2,    // give the new file a unique name next to the existing one
};

Q_DECLARE_METATYPE(AbstractDownloadFileExistsAction)
