#pragma once

#include <terncl/inet/qt/download/abstractdownloadfilesection.h>
#include <terncl/inet/qt/download/abstractfiletype.h>
#include <terncl/ternclshared_export.h>

#include <QDateTime>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariantHash>

// The record of one file of a download: what it is, how big, which parts of it are done and
// where its unfinished data lives. Part of AbstractDownloadPersistentInfo; stored on its own
// too (a segments downloader keeps its half-done segment's record in custom data), so it
// converts to and from a QVariantHash. Keys it does not know are kept in extra.
struct TERNCL_EXPORT AbstractDownloadFileInfo {
    enum Priority : qint32 {
        NotSelected = 0, // the file is not wanted
        LowPriority = 1,
        NormalPriority = 2,
        HighPriority = 3,
    };

    enum Flag : quint64 {
        Created = 0x1,      // the file exists on disk (at tmpPath when that is set)
        Preallocated = 0x2, // its full size is reserved on disk
        Initialized = 0x4,  // the initialize operations ran: it is at its final name
    };

    enum ResumeSupport : qint32 {
        ResumeUnknown = 0,
        ResumeSupported = 1,
        ResumeNotSupported = 2,
    };

    // Description: names, content and times, as the server or the parser gave them.
    QString name; // file name, relative to the download's destination folder
    QString contentType;
    QDateTime lastModified;
    AbstractFileType fileType = AbstractFileType::Unknown;
    // Content and progress.
    qint64 size = -1; // -1: unknown
    QList<AbstractDownloadFileSection> sections;
    qint32 priority = NormalPriority;
    qint64 writeOffset = 0; // where this file's data starts in the file it is written to
    QString tmpPath;        // unfinished data; empty when written at the final name
    quint64 flags = 0;
    qint32 resumeSupport = ResumeUnknown;
    QVariantHash extra; // keys of newer builds, kept as they are

    bool isSelected() const { return priority != NotSelected; }
    bool testFlag(Flag flag) const { return (flags & flag) != 0; }
    // Sum of the sections' done bytes.
    qint64 downloadedBytes() const;
    // The size is known and every byte of it is done.
    bool isComplete() const;

    bool hasSameDescription(const AbstractDownloadFileInfo& other) const;
    // Copies name, content type, last-modified time and file type; returns whether any changed.
    bool assignDescription(const AbstractDownloadFileInfo& other);

    bool operator==(const AbstractDownloadFileInfo& other) const;
    bool operator!=(const AbstractDownloadFileInfo& other) const { return !(*this == other); }

    QVariantHash toVariantHash() const;
    // Reads what it can: a missing or mistyped key keeps the default of its field.
    static AbstractDownloadFileInfo fromVariantHash(const QVariantHash& hash);
};

Q_DECLARE_METATYPE(AbstractDownloadFileInfo)
