#pragma once

#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>

#include <QString>
#include <QVariantHash>

#include <optional>

// Keeps each download's persistent record as a JSON file in a state folder, next to the host's
// own notes about it (what it was started with, how far a segment list got). A record is written
// to a temporary file that then replaces the old one, so a process killed at any moment leaves
// either the old record or the new one, never a broken file. One writer per key at a time.
class RecordStore {
public:
    struct Entry {
        AbstractDownloadPersistentInfo record;
        QVariantHash host; // the host's notes; the library never reads them
    };

    explicit RecordStore(QString folder);

    // A stable file name for a download key (for example its URL and output path).
    QString pathFor(const QString& key) const;
    bool save(const QString& key, const Entry& entry, QString* error) const;
    // No entry is not an error; a file that cannot be read or parsed is.
    std::optional<Entry> load(const QString& key, QString* error) const;
    bool remove(const QString& key) const;
    // Renames the key's file to "<file>.rejected-<UTC time>" and returns the new path (empty,
    // with error set, when it cannot): a record the host will not resume is kept for a look.
    QString setAside(const QString& key, QString* error) const;

    // An entry from the text of a saved file; on failure nothing, and error says why.
    static std::optional<Entry> parse(const QByteArray& json, QString* error);

private:
    bool makeFolder(QString* error) const;

    QString m_folder;
    mutable bool m_folderMade = false;
};
