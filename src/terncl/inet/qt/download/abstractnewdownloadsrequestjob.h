#pragma once

#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>

#include <QList>
#include <QMetaType>
#include <QVariantHash>

// A request to add downloads (from a browser, the clipboard, the command line), handled by
// AbstractIncomingDownloadsProcessor::process.
struct AbstractNewDownloadsRequestJob {
    qint64 id = 0;
    QList<AbstractDownloadPersistentInfo> downloads;
    bool silent = false;  // add without asking the user
    QVariantHash details; // what the requester said beyond the records
};

Q_DECLARE_METATYPE(AbstractNewDownloadsRequestJob)
