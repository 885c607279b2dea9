#pragma once

#include "curlmulti.h"

#include <terncl/core/abstracterror.h>
#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>

#include <QPointer>
#include <QSharedPointer>
#include <QString>
#include <QVariant>
#include <QWeakPointer>

#include <functional>

class AbstractDownload;
class AbstractDownloadsSimpleFactory;
class AbstractDownloadsSpeedMeter;

class QThread;
class QtFfmpegAvMerger;

// Makes the children of a media download by module name (MediaVersions' module names):
// - "downloadswww": one plain file, an HTTP download of the source (only a size probe when the
//   record asks for its size alone, as a size query's children do);
// - "downloadsm3ustm": an HLS media playlist, read at start and fetched segment by segment;
// - "downloadsfragments": a DASH representation, its init segment and media segments.
//
// A new child is described by its record (files, destination, flags) and initData, a hash:
// "source" is the address to fetch (a URL, its text, or an AbstractDownloadSourceInfo hash):
// the file, or the media playlist; "initData" is the chosen version's details (MediaVersions:
// "sources", "remux"), which a DASH child takes its segments from. A child restored from its
// record has no initData: its record holds all it needs. Main thread.
class MediaChildren {
public:
    struct Context {
        // Makes the plain HTTP downloads: the "downloadswww" children and every segment's child.
        QWeakPointer<AbstractDownloadsSimpleFactory> factory;
        QSharedPointer<AbstractDownloadsSpeedMeter> speedMeter;
        QWeakPointer<QtFfmpegAvMerger> merger;
        QPointer<CurlMulti> network;
        QThread* writersThread = nullptr;
        int concurrentSegments = 1; // segments of a stream child fetched at once
        // Ids of the stream children; by default from a range of their own, far above those the
        // host's factory hands out, so that both kinds can share a pack.
        std::function<qint64()> nextId;
    };

    using Creator = std::function<QSharedPointer<AbstractDownload>(
        const AbstractDownloadPersistentInfo& info, const QVariant& initData,
        AbstractError& error)>;

    // The creator of a module name, or an empty function for a name it does not know.
    static Creator creator(const QString& moduleName, const Context& context);
    static QStringList moduleNames();

    static QSharedPointer<AbstractDownload> createPlainFile(const Context& context,
                                                            AbstractDownloadPersistentInfo info,
                                                            const QVariant& initData,
                                                            AbstractError& error);
    static QSharedPointer<AbstractDownload> createHlsStream(const Context& context,
                                                            AbstractDownloadPersistentInfo info,
                                                            const QVariant& initData,
                                                            AbstractError& error);
    static QSharedPointer<AbstractDownload> createFragments(const Context& context,
                                                            AbstractDownloadPersistentInfo info,
                                                            const QVariant& initData,
                                                            AbstractError& error);
};
