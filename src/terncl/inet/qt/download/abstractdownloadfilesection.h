#pragma once

#include <QMetaType>
#include <QtGlobal>

// A byte range of a file and how much of it, counted from its start, is downloaded.
struct AbstractDownloadFileSection {
    qint64 offset = 0;
    qint64 size = -1; // -1: up to the end of the file, whose size may be unknown
    qint64 done = 0;

    bool isComplete() const { return size >= 0 && done >= size; }

    bool operator==(const AbstractDownloadFileSection& other) const {
        return offset == other.offset && size == other.size && done == other.done;
    }
    bool operator!=(const AbstractDownloadFileSection& other) const { return !(*this == other); }
};

Q_DECLARE_METATYPE(AbstractDownloadFileSection)
