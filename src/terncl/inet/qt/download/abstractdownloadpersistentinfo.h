#pragma once

#include <terncl/inet/qt/download/abstractdownloadfileinfo.h>
#include <terncl/inet/qt/download/abstractdownloadtype.h>
#include <terncl/inet/qt/download/bitflagsupdatemode.h>
#include <terncl/ternclshared_export.h>

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QUuid>
#include <QVariantHash>

// The stored record of a download: everything the application saves between sessions and
// hands back to restore it. Every download, the segments downloader's children, the size
// query and the requests logger read and write it. A plain value; it converts to and from a
// QVariantHash and JSON with a format version, and keys it does not know are kept (extra), so
// that a record written by a newer build loses nothing when an older one rewrites it.
struct TERNCL_EXPORT AbstractDownloadPersistentInfo {
    static constexpr int FormatVersion = 1;

    enum State : qint32 {
        NotFinished = 0,
        Finished = 1,
    };

    enum Flag : quint64 {
        Private = 0x200,         // keep out of history and shared logs; children inherit it
        SizeQueryOnly = 0x40000, // only learn the size; write no data
        PartOfParentDownload = 0x4000000, // a child that exists only inside another download
    };

    // Field groups for AbstractDownload::updateInfoFields.
    enum Field : qint64 {
        FieldFlags = 0x1,
        FieldState = 0x2,
        FieldDestinationPath = 0x4,
        FieldNames = 0x8, // name and title
        FieldResourceUrl = 0x10,
        FieldRequest = 0x20, // referrer and request data
        FieldFilesPriorities = 0x40,
        FieldCustomData = 0x80,
        FieldOriginators = 0x100,
        AllFields = 0x1ff,
    };

    // Identity and kind.
    QList<QString> originators; // the downloads that created this one, outermost first
    AbstractDownloadType downloadType = AbstractDownloadType::Unknown;
    qint32 downloadSubtype = 0; // the module's own kind within downloadType
    QString resourceUrl;        // identifies the resource; compared to find duplicates
    QVariantHash customData;    // free store: "options", "optionsBackup" and engines' keys
    quint64 supportedOptions = 0;
    QUuid uuid;         // stable across sessions, unlike the id
    QString moduleName; // the module that makes downloads of this kind
    // State.
    qint32 state = NotFinished;
    quint64 flags = 0;
    // Where and under which names.
    QString destinationPath;
    QString name;  // the download's own name
    QString title; // a name for display that is not a file name (a page title)
    // How to ask for the resource.
    QString referrer;
    QByteArray requestData; // extra request data, for example a form body
    // Content.
    QList<AbstractDownloadFileInfo> files;
    QString savedFilePath; // the file the body went to, when the download saved one
    QString receivedBody;  // the body, for downloads delivered to memory
    QDateTime creationTime;
    QDateTime completionTime;
    QVariantHash extra; // keys of newer builds, kept as they are

    bool isFinished() const { return state == Finished; }
    bool testFlag(Flag flag) const { return (flags & flag) != 0; }
    void setFlag(Flag flag, bool on = true) { flags = on ? flags | flag : flags & ~quint64(flag); }
    bool hasFiles() const { return !files.isEmpty(); }
    // Bytes downloaded over all files, selected or not.
    qint64 downloadedBytes() const;
    // Sum of the selected files' sizes; -1 when one of them is unknown or there are none.
    qint64 totalSize() const;

    // Copies the given field groups from source; flags follow mode. Returns whether anything
    // changed.
    bool updateFields(const AbstractDownloadPersistentInfo& source, qint64 fields,
                      BitFlagsUpdateMode mode);

    bool operator==(const AbstractDownloadPersistentInfo& other) const;
    bool operator!=(const AbstractDownloadPersistentInfo& other) const { return !(*this == other); }

    // Values of the hash are JSON-safe except inside customData and extra, which are stored as
    // they are (a quint64 travels as the qint64 of the same bits).
    QVariantHash toVariantHash() const;
    // Reads what it can: a missing or mistyped key keeps the default of its field; unknown
    // keys go to extra.
    static AbstractDownloadPersistentInfo fromVariantHash(const QVariantHash& hash);

    QByteArray toJson() const;
    // Malformed JSON gives a default record and, when asked, ok = false.
    static AbstractDownloadPersistentInfo fromJson(const QByteArray& json, bool* ok = nullptr);
};

Q_DECLARE_METATYPE(AbstractDownloadPersistentInfo)
