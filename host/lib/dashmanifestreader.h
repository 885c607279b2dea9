#pragma once

#include "mediaparse.h"

#include <terncl/core/abstracterror.h>
#include <terncl/inet/qt/download/abstractdownloadsourceinfo.h>

#include <QByteArray>
#include <QList>
#include <QStringList>
#include <QUrl>

// Turns a static DASH manifest (MPD) into its representations, each with the list of sources a
// segments downloader fetches (the init segment first), or with the one file that holds it.
// Segments come from SegmentTemplate ($Number$ or $Time$ with a SegmentTimeline), SegmentList
// or, for a single file, SegmentBase or a BaseURL alone; BaseURL elements resolve level by
// level from the manifest's own URL, and every URI must resolve to http or https. Live
// (dynamic) manifests, encrypted streams and manifests of several periods are refused with an
// error that says so; malformed XML is an error naming the line and column.
class DashManifestReader {
public:
    enum class Kind { Video, Audio, Text };

    struct Representation {
        QString id;
        Kind kind = Kind::Video;
        QString mimeType;   // such as "video/mp4"
        QStringList codecs; // such as "avc1.64001f"
        int width = 0;
        int height = 0;
        double frameRate = 0;
        qint64 bandwidth = 0; // bits per second
        QString language;
        int audioSamplingRate = 0;
        // A single file fetched with one plain request (SegmentBase, or a BaseURL alone).
        bool singleFile = false;
        QUrl url; // the single file, or the base URL the segments resolve against
        // What to fetch, in order: the init segment first when there is one; for a single
        // file, the file alone.
        QList<AbstractDownloadSourceInfo> segments;
        bool hasInitSegment = false;
        // The sum of the segments' sizes when every segment is a byte range; otherwise -1.
        qint64 exactSize = -1;
    };

    struct Manifest {
        double durationSeconds = 0;            // 0 when the manifest does not say
        QList<Representation> representations; // in manifest order
    };

    // At most this many segments in one manifest: more is refused rather than expanded.
    static constexpr int MaxSegments = 300000;

    // Parses text fetched from manifestUrl. On failure returns an empty manifest and sets
    // error (codes of MediaParse).
    static Manifest parse(const QByteArray& text, const QUrl& manifestUrl, AbstractError* error);
};
