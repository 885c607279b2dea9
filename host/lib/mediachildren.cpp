#include "mediachildren.h"

#include "hostdownloadsfactory.h"
#include "httpdownload.h"
#include "mediaversions.h"
#include "sizeprobedownload.h"
#include "streamsegmentsdownload.h"

#include <terncl/core/sourceplace.h>
#include <terncl/inet/qt/download/abstractdownloadssimplefactory.h>

#include <QUrl>
#include <QVariantHash>

#include <atomic>

namespace {
const QString sourceKey = QStringLiteral("source");
const QString initDataKey = QStringLiteral("initData");

// Codes of the "GenericError"s of a child that cannot be made.
constexpr int noFactoryCode = 1;
constexpr int noSourceCode = 12;

AbstractError childError(int code, const QString& text, std::string place) {
    return AbstractError(code, AbstractError::GenericError, std::move(place), text.toStdString());
}

qint64 nextStreamId() {
    static std::atomic<qint64> next{qint64(1) << 40};
    return next++;
}

AbstractDownloadSourceInfo sourceOf(const QVariant& initData) {
    const QVariant source = initData.toHash().value(sourceKey);
    if (source.typeId() == QMetaType::QVariantHash || source.typeId() == QMetaType::QVariantMap)
        return AbstractDownloadSourceInfo::fromVariantHash(source.toHash());
    AbstractDownloadSourceInfo info;
    info.url = source.typeId() == QMetaType::QUrl ? source.toUrl() : QUrl(source.toString());
    return info;
}

// The source a new child fetches, or its restored record's own address.
AbstractDownloadSourceInfo sourceFor(const AbstractDownloadPersistentInfo& info,
                                     const QVariant& initData) {
    AbstractDownloadSourceInfo source = sourceOf(initData);
    if (source.url.isEmpty())
        source.url = QUrl(info.resourceUrl);
    return source;
}

QSharedPointer<AbstractDownload> makeStream(const MediaChildren::Context& context,
                                            const AbstractDownloadPersistentInfo& info) {
    auto* stream = new StreamSegmentsDownload(context.nextId ? context.nextId() : nextStreamId(),
                                              context.factory, context.speedMeter, context.merger,
                                              context.network);
    QSharedPointer<AbstractDownload> download(stream, &QObject::deleteLater);
    stream->setInfo(info);
    stream->setWritersThread(context.writersThread);
    stream->setMaxConcurrentSegments(context.concurrentSegments);
    return download;
}
} // namespace

MediaChildren::Creator MediaChildren::creator(const QString& moduleName, const Context& context) {
    using Make = QSharedPointer<AbstractDownload> (*)(
        const Context&, AbstractDownloadPersistentInfo, const QVariant&, AbstractError&);
    Make make = nullptr;
    if (moduleName == MediaVersions::PlainFileModule)
        make = &createPlainFile;
    else if (moduleName == MediaVersions::HlsModule)
        make = &createHlsStream;
    else if (moduleName == MediaVersions::FragmentsModule)
        make = &createFragments;
    if (!make)
        return {};
    return [context, make](const AbstractDownloadPersistentInfo& info, const QVariant& initData,
                           AbstractError& error) {
        return make(context, info, initData, error);
    };
}

QStringList MediaChildren::moduleNames() {
    return {MediaVersions::PlainFileModule, MediaVersions::HlsModule,
            MediaVersions::FragmentsModule};
}

// An HTTP download made by the host's factory; its record keeps the module it is made by, so
// that a restored record makes the same download.
QSharedPointer<AbstractDownload> MediaChildren::createPlainFile(const Context& context,
                                                                AbstractDownloadPersistentInfo info,
                                                                const QVariant& initData,
                                                                AbstractError& error) {
    const auto factory = context.factory.toStrongRef();
    if (!factory) {
        error =
            childError(noFactoryCode, QStringLiteral("no downloads factory"), TERNCL_SOURCE_PLACE);
        return {};
    }
    const AbstractDownloadSourceInfo source = sourceFor(info, initData);
    if (info.testFlag(AbstractDownloadPersistentInfo::SizeQueryOnly)) {
        // Only the size is wanted: nothing is fetched, nothing written.
        info.resourceUrl = source.url.toString(QUrl::FullyEncoded);
        QSharedPointer<SizeProbeDownload> probe(
            new SizeProbeDownload(context.nextId ? context.nextId() : nextStreamId(),
                                  context.network),
            &QObject::deleteLater);
        probe->setInfo(info);
        return probe;
    }
    info.moduleName = HostDownloadsFactory::HttpModule;
    info.resourceUrl = source.url.toString(QUrl::FullyEncoded);
    if (!source.requestHeaders.isEmpty() || source.isByteRange())
        info.customData.insert(HttpDownload::SourceKey, source.toVariantHash());
    return factory->createDownload(info, error);
}

QSharedPointer<AbstractDownload> MediaChildren::createHlsStream(const Context& context,
                                                                AbstractDownloadPersistentInfo info,
                                                                const QVariant& initData,
                                                                AbstractError& error) {
    if (initData.isValid()) {
        const QUrl playlist = sourceFor(info, initData).url;
        if (playlist.isEmpty()) {
            error = childError(noSourceCode, QStringLiteral("no media playlist to read"),
                               TERNCL_SOURCE_PLACE);
            return {};
        }
        info.resourceUrl = playlist.toString(QUrl::FullyEncoded);
        StreamSegmentsDownload::describePlaylist(&info, playlist, false);
    }
    info.moduleName = MediaVersions::HlsModule;
    return makeStream(context, info);
}

QSharedPointer<AbstractDownload> MediaChildren::createFragments(const Context& context,
                                                                AbstractDownloadPersistentInfo info,
                                                                const QVariant& initData,
                                                                AbstractError& error) {
    if (initData.isValid()) {
        MediaVersions::Version version;
        version.details = initData.toHash().value(initDataKey);
        const auto sources = MediaVersions::sources(version);
        if (sources.isEmpty()) {
            error = childError(noSourceCode, QStringLiteral("the representation has no segments"),
                               TERNCL_SOURCE_PLACE);
            return {};
        }
        if (info.resourceUrl.isEmpty())
            info.resourceUrl = sourceFor(info, initData).url.toString(QUrl::FullyEncoded);
        StreamSegmentsDownload::describeSources(&info, sources, MediaVersions::needsRemux(version));
    }
    info.moduleName = MediaVersions::FragmentsModule;
    return makeStream(context, info);
}
