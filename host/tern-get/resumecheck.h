#pragma once

#include "recordstore.h"

#include <QString>

// What tern-get keeps beside a download's record, and the checks a saved entry passes before a
// run resumes it. A record is only a claim about its data file: a file cut short, deleted or
// grown since must not turn into a result with a zero-filled gap or a tail of stale bytes, and a
// record no download could have written (more bytes done than the size, negative counts) is not
// resumed at all. Pure functions on values; the caller does the file work.
class ResumeCheck {
public:
    // Keys of the host notes.
    static const QString KindKey;          // "file" or "hls"
    static const QString OutputKey;        // absolute path of the result
    static const QString PlaylistUrlKey;   // a stream's media playlist
    static const QString SegmentsDoneKey;  // segments of the playlist already in the data file
    static const QString SegmentsTotalKey; // segments the playlist lists
    // A stream's bytes in the data file after 0, 1, ... SegmentsDoneKey segments: where a file
    // cut short may resume without a partial segment.
    static const QString SegmentEndsKey;

    // Why entry cannot be resumed as it is, or an empty string when it can.
    static QString impossibility(const RecordStore::Entry& entry);
    // The file that holds the record's data so far (its finished result, once finished).
    static QString dataPath(const RecordStore::Entry& entry);
    // Lowers what an unfinished entry claims to what a data file of fileSize bytes (-1: missing)
    // holds; a stream falls back to a whole segment. Sets *cutTo to the length the file must be
    // cut to for the claims to end where the file does (-1: leave the file alone). Returns a note
    // for the user when claimed bytes were missing.
    static QString fitToFile(RecordStore::Entry& entry, qint64 fileSize, qint64* cutTo);
};
