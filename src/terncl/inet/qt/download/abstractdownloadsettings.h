#pragma once

#include <terncl/inet/qt/download/abstractdownloadexistingfilereaction.h>

#include <QMetaType>
#include <QString>

// Settings the application pushes into a download (AbstractDownload::setSettings); packs hand
// theirs to every child. Copied whole.
struct AbstractDownloadSettings {
    enum Flag : qint32 {
        TruncateFilesWhenCreating = 0x1, // a file created for writing starts empty
        SkipPreallocation = 0x2,         // do not reserve the file's size on disk up front
    };

    QString temporaryFolder; // where unfinished files are kept; empty: next to their target
    qint32 flags = 0;
    AbstractDownloadExistingFileReaction existingFileReaction =
        AbstractDownloadExistingFileReaction::Ask;

    bool testFlag(Flag flag) const { return (flags & flag) != 0; }

    bool operator==(const AbstractDownloadSettings& other) const {
        return temporaryFolder == other.temporaryFolder && flags == other.flags &&
               existingFileReaction == other.existingFileReaction;
    }
    bool operator!=(const AbstractDownloadSettings& other) const { return !(*this == other); }
};

Q_DECLARE_METATYPE(AbstractDownloadSettings)
