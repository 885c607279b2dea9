#include "abstractmediadownload.h"

#include "abstractchilddownloadsmanager.h"
#include "abstractdownloadresourceversionoption.h"
#include "abstractdownloadresourceversionsquerysizes.h"
#include "abstractdownloadspack.h"
#include "abstractdownloadssimplefactory.h"
#include "mediachilddata_p.h"

#include <terncl/core/qtappdefaultlogger.h>
#include <terncl/core/sourceplace.h>
#include <terncl/fs/qt/utils/filenamerules.h>
#include <terncl/qt/media/ffmpeg/qtffmpegavmerger.h>

#include <QAuthenticator>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QThread>

#include <algorithm>

const QString AbstractMediaDownload::ChildDownloadsInitKey = QStringLiteral("childDownloadsInit");
const QString AbstractMediaDownload::AvDownloadsUuidsKey = QStringLiteral("avDownloadsUuids");
const QString AbstractMediaDownload::AvDownloadsIdsKey = QStringLiteral("avDownloadsIds");
const QString AbstractMediaDownload::ChildDownloadsCountKey = QStringLiteral("childDownloadsCount");
const QString AbstractMediaDownload::MediaPartKey = QStringLiteral("mediaPart");

// The selector of one parse: only this download fills it.
class AbstractMediaDownload::VersionSelector final
    : public AbstractDownloadResourceVersionSelector {
public:
    using AbstractDownloadResourceVersionSelector::setDate;
    using AbstractDownloadResourceVersionSelector::setResourceVersions;
};

namespace {
const QString plainModule = QStringLiteral("downloadswww");
const QString mergingSuffix = QStringLiteral(".merging");

AbstractError genericError(int code, const std::string& place, const QString& text) {
    return AbstractError(code, AbstractError::GenericError, place, text.toStdString());
}

QString errorText(const AbstractError& error) {
    return QString::fromStdString(error.description);
}

quint64 supportedOptionsMask() {
    return PreferredResourceFileType | MaxResourceVideoHeight | PreferredResourceFormat |
           PreferredResourceLanguage | AbstractMediaDownload::MergeFormatOption;
}

// Records read back from JSON hold maps where they were written as hashes.
QVariantHash toHash(const QVariant& value) {
    if (value.typeId() == QMetaType::QVariantMap) {
        const QVariantMap map = value.toMap();
        return QVariantHash(map.cbegin(), map.cend());
    }
    if (value.typeId() == QMetaType::QJsonObject)
        return value.toJsonObject().toVariantHash();
    return value.toHash();
}

bool sameVersion(const AbstractDownloadResourceVersionSelector::CompositeVersion& a,
                 const AbstractDownloadResourceVersionSelector::CompositeVersion& b) {
    if (a.url != b.url || a.title != b.title || a.parts.size() != b.parts.size())
        return false;
    for (qsizetype i = 0; i < a.parts.size(); ++i) {
        if (a.parts.at(i).url != b.parts.at(i).url)
            return false;
    }
    return true;
}

// The primary subtag of a language tag, in lower case ("en" of "en-US").
QString primaryLanguage(const QString& language) {
    return language.section(u'-', 0, 0).section(u'_', 0, 0).toLower();
}

QString extensionOf(const AbstractDownloadResourceVersionSelector::Version& version,
                    const QString& fallback) {
    if (!version.media.format.isEmpty())
        return version.media.format.toLower();
    const QString suffix = QFileInfo(version.url.path()).suffix().toLower();
    return suffix.isEmpty() ? fallback : suffix;
}

void removeFiles(const AbstractDownloadPersistentInfo& info) {
    for (int i = 0; i < info.files.size(); ++i) {
        const QString path = AbstractDownloadFileOps::currentFilePath(info, i);
        if (!path.isEmpty())
            QFile::remove(path);
    }
}

// Released once the event loop turns: the child may be inside one of its own signals.
void releaseLater(const QList<QSharedPointer<AbstractDownload>>& downloads) {
    if (auto* app = QCoreApplication::instance(); app && !downloads.isEmpty())
        QMetaObject::invokeMethod(
            app, [downloads] {}, Qt::QueuedConnection);
}
} // namespace

AbstractMediaDownload::AbstractMediaDownload(qint64 id, const QString& moduleName,
                                             QWeakPointer<AbstractDownloadsSimpleFactory> factory,
                                             const QWeakPointer<QtFfmpegAvMerger>& avMerger,
                                             QObject* parent)
    : AbstractDownload(id, parent)
    , m_moduleName(moduleName)
    , m_factory(std::move(factory))
    , m_children(std::make_unique<AbstractDownloadsPack>(id))
    , m_avMerger(avMerger)
    , m_companion(
          std::make_unique<AbstractDownloadFilesOpsCompanion>(this, m_info, m_settings, avMerger)) {
    const AbstractDownloadsPack* pack = m_children.get();
    connect(pack, &AbstractDownloadsPack::changed, this,
            &AbstractMediaDownload::onChildDownloadsChanged);
    connect(pack, &AbstractDownloadsPack::running, this,
            &AbstractMediaDownload::onChildDownloadsRunning);
    connect(pack, &AbstractNetworkConsumer::connectionsMapChangedDelta, this,
            &AbstractNetworkConsumer::connectionsMapChangedDelta);
    // Both carry out-parameters: the application answers within the emitting call.
    connect(pack, &AbstractNetworkConsumer::authenticationRequired, this,
            &AbstractNetworkConsumer::authenticationRequired, Qt::DirectConnection);
    connect(pack, &AbstractNetworkConsumer::sslAcceptUnknownHostRequired, this,
            &AbstractNetworkConsumer::sslAcceptUnknownHostRequired, Qt::DirectConnection);
    using Companion = AbstractDownloadFilesOpsCompanion;
    const Companion* companion = m_companion.get();
    connect(companion, &Companion::operationFinished, this,
            &AbstractMediaDownload::onPerformFileInitializeOpsFinished);
    connect(companion, &Companion::changed, this, &AbstractDownload::changed);
    connect(companion, &Companion::performingFilesOperations, this,
            &AbstractDownload::signalPerformingFilesOperations);
    connect(companion, &Companion::fileExistsActionRequired, this,
            &AbstractDownload::fileExistsActionRequired);
    connect(companion, &Companion::fileExistsActionApplied, this,
            &AbstractDownload::fileExistsActionApplied);
    m_info.moduleName = m_moduleName;
    m_info.supportedOptions |= supportedOptionsMask();
}

AbstractMediaDownload::~AbstractMediaDownload() {
    m_companion->disconnect(this);
    m_children->disconnect(this);
    if (const auto merger = m_avMerger.toStrongRef()) {
        merger->disconnect(this);
        if (m_mergeId != -1)
            merger->abort(m_mergeId);
    }
    m_sizeQuery.reset();
    if (m_children->isRunning())
        m_children->doCommand(AbstractDownloadCommand::Stop);
    const auto children = m_children->downloads();
    m_children->removeDownloads(m_children->downloadsIds());
    releaseLater(children);
}

QSharedPointer<AbstractDownloadResourceVersionSelector>
AbstractMediaDownload::resourceVersionSelector() {
    return m_selector;
}

QList<QSharedPointer<AbstractDownload>> AbstractMediaDownload::childDownloads() const {
    return m_children->downloads();
}

QString AbstractMediaDownload::mergeFormat() const {
    const QString option = allOptions().value(MergeFormatOption).toString().toLower();
    if (option == QLatin1String("mkv") || option == QLatin1String("matroska"))
        return QStringLiteral("mkv");
    if (option.isEmpty() && resultName().endsWith(QLatin1String(".mkv"), Qt::CaseInsensitive))
        return QStringLiteral("mkv");
    return QStringLiteral("mp4");
}

// --- Commands ------------------------------------------------------------------------------------

void AbstractMediaDownload::doCommand(AbstractDownloadCommand command) {
    switch (command) {
    case AbstractDownloadCommand::QueryInfo:
    case AbstractDownloadCommand::RequeryInfo:
    case AbstractDownloadCommand::Start:
        if (isRunning())
            return;
        upgradeOldInfo();
        start(command);
        break;
    case AbstractDownloadCommand::Stop:
        stop(genericError(StopCommandCode, TERNCL_SOURCE_PLACE, QStringLiteral("stopped")));
        break;
    case AbstractDownloadCommand::Restart:
        if (isRunning())
            return;
        upgradeOldInfo();
        performRestart();
        break;
    case AbstractDownloadCommand::VerifyFiles:
        break;
    case AbstractDownloadCommand::Finalize:
        log(QStringLiteral("finalizing..."));
        if (m_children->downloadsIds().isEmpty()) {
            if (!isRunning())
                doCommand(AbstractDownloadCommand::Start);
            return;
        }
        for (const auto& child : m_children->downloads()) {
            if (child->isRunning())
                child->doCommand(AbstractDownloadCommand::Finalize);
        }
        break;
    }
}

void AbstractMediaDownload::fileExistsAction(int fileIndex,
                                             AbstractDownloadFileExistsAction action) {
    m_companion->fileExistsAction(fileIndex, action);
}

// Older records named the merged children by id and counted the children instead of marking
// them made.
void AbstractMediaDownload::upgradeOldInfo() {
    restoreChildrenFromManager();
    auto& customData = m_info.customData;
    bool upgraded = false;
    if (customData.contains(AvDownloadsIdsKey)) {
        QVariantList uuids;
        for (const QVariant& id : customData.value(AvDownloadsIdsKey).toList()) {
            if (const auto child = m_children->download(id.toLongLong()))
                uuids.append(child->info().uuid.toString());
        }
        if (!customData.contains(AvDownloadsUuidsKey))
            customData.insert(AvDownloadsUuidsKey, uuids);
        customData.remove(AvDownloadsIdsKey);
        upgraded = true;
    }
    if (customData.contains(ChildDownloadsCountKey)) {
        if (customData.value(ChildDownloadsCountKey).toInt() > 0)
            customData.insert(ChildDownloadsInitKey, true);
        customData.remove(ChildDownloadsCountKey);
        upgraded = true;
    }
    if (upgraded) {
        log(QStringLiteral("upgraded the record of an older version"));
        Q_EMIT changed(false);
    }
}

void AbstractMediaDownload::start(AbstractDownloadCommand command) {
    if (isRunning())
        return;
    const bool query = command < AbstractDownloadCommand::Start;
    if (isResultFileComplete() && !(m_companion->isStandardOpRequired() && !query)) {
        log(QStringLiteral("can't start: file is finished already."));
        return;
    }
    if (query && !m_children->downloadsIds().isEmpty()) {
        log(QStringLiteral("can't query: have child downloads already."));
        return;
    }
    m_command = command;
    const bool hadError = m_lastError.isSet();
    m_lastError = {};
    m_lastErrorTime = {};
    m_pendingError = {};
    m_sourcesRefreshed = false;
    m_mergeCurrent = m_mergeTotal = -1;
    setRunning(Starting);
    if (hadError)
        Q_EMIT changed(false);
    if (isResultFileComplete()) {
        // Killed between the merge and the move of its result.
        setRunning(Finishing);
        completeRun();
        return;
    }
    if (!checkChildDownloadsCount()) {
        stop(genericError(ChildDownloadsMissingCode, TERNCL_SOURCE_PLACE,
                          QStringLiteral("the child downloads of this record are missing; "
                                         "restart the download")));
        return;
    }
    const bool needParse = query || (m_children->downloadsIds().isEmpty() &&
                                     !m_info.customData.contains(ChildDownloadsInitKey));
    if (!needParse) {
        continueToStart();
        return;
    }
    startParse();
}

void AbstractMediaDownload::startParse() {
    log(QStringLiteral("parsing..."));
    m_parsing = true;
    parse();
}

void AbstractMediaDownload::stop(const AbstractError& error) {
    if (!isRunning())
        return;
    if (!m_stopping) {
        m_stopping = true;
        Q_EMIT stopping();
    }
    if (error.isSet() && !m_pendingError.isSet())
        m_pendingError = error;
    if (std::exchange(m_parsing, false))
        abortParse();
    if (m_sizeQuery)
        m_sizeQuery.release()->deleteLater();
    if (m_mergeId != -1) {
        if (const auto merger = m_avMerger.toStrongRef())
            merger->abort(m_mergeId);
        m_mergeId = -1;
    }
    for (const auto& child : m_children->downloads()) {
        if (child->isRunning() && !child->isStopping())
            child->doCommand(AbstractDownloadCommand::Stop);
    }
    if (!m_children->isRunning() && !m_companion->isPerformingOperation())
        finishStop();
}

void AbstractMediaDownload::finishStop() {
    if (!isRunning())
        return;
    m_stopping = false;
    const AbstractError pending = std::exchange(m_pendingError, {});
    if (pending.isSet()) {
        m_lastError = pending;
        m_lastErrorTime = QDateTime::currentDateTime();
        log(QStringLiteral("stopped with error: ") + pending.toText());
        Q_EMIT changed(true);
    }
    setRunning(NotRunning);
}

// Children, their files and the result go; the next start parses again.
void AbstractMediaDownload::performRestart() {
    log(QStringLiteral("restart"));
    const auto children = m_children->downloads();
    const QList<qint64> ids = m_children->downloadsIds();
    if (m_manager && !ids.isEmpty()) {
        m_manager->removeDownloads(ids, true);
    } else {
        for (const auto& child : children)
            removeFiles(child->info());
    }
    m_children->removeDownloads(ids);
    releaseLater(children);
    removeFiles(m_info); // the result of the earlier run, merged or half-merged
    m_info.customData.remove(AvDownloadsUuidsKey);
    m_info.customData.remove(ChildDownloadsInitKey);
    m_info.files.clear();
    m_info.state = AbstractDownloadPersistentInfo::NotFinished;
    m_info.completionTime = {};
    Q_EMIT changed(true);
    start(AbstractDownloadCommand::Start);
}

// With "childDownloadsInit" the children must be there: every one named for the merge, and at
// least one in all.
bool AbstractMediaDownload::checkChildDownloadsCount() {
    restoreChildrenFromManager();
    if (!m_info.customData.contains(ChildDownloadsInitKey))
        return true;
    if (m_children->downloadsIds().isEmpty()) {
        log(QStringLiteral("WARNING: missing child downloads"));
        return false;
    }
    const QList<QUuid> uuids = avDownloadsUuids();
    if (std::any_of(uuids.cbegin(), uuids.cend(),
                    [this](const QUuid& uuid) { return !childByUuid(uuid); })) {
        log(QStringLiteral("WARNING: missing audio video downloads"));
        return false;
    }
    return true;
}

// --- Parse and sizes -----------------------------------------------------------------------------

void AbstractMediaDownload::setParseResult(const QList<CompositeVersion>& versions,
                                           const QList<Version>& subtitles) {
    auto selector = QSharedPointer<VersionSelector>::create();
    selector->setResourceVersions(versions);
    selector->setDate(QDateTime::currentDateTime());
    if (m_selector) {
        const auto previous = m_selector->resourceVersions();
        const int selected = m_selector->selectedVersion();
        if (selected >= 0 && selected < previous.size()) {
            const auto found =
                std::find_if(versions.cbegin(), versions.cend(), [&](const CompositeVersion& v) {
                    return sameVersion(v, previous.at(selected));
                });
            if (found != versions.cend())
                selector->setSelectedVersion(int(found - versions.cbegin()));
        }
        m_selector->disconnect(this);
    }
    m_selector = selector;
    m_subtitles = subtitles;
}

void AbstractMediaDownload::onParseFinished(const AbstractError& error, bool temporary) {
    if (!std::exchange(m_parsing, false) || m_stage != Starting || m_stopping)
        return;
    if (error.isSet()) {
        finishParse(error, temporary);
        return;
    }
    if (!m_selector || m_selector->resourceVersions().isEmpty()) {
        finishParse(genericError(NothingParsedCode, TERNCL_SOURCE_PLACE,
                                 QStringLiteral("no resource versions found")),
                    false);
        return;
    }
    connect(m_selector.data(), &AbstractDownloadResourceVersionSelector::selectedVersionChanged,
            this, &AbstractMediaDownload::onResourceSelectedVersionChanged, Qt::UniqueConnection);
    log(QStringLiteral("querying resources sizes..."));
    m_sizeQuery =
        std::make_unique<AbstractDownloadResourceVersionsQuerySizes>(m_selector, m_factory);
    connect(m_sizeQuery.get(), &AbstractDownloadResourceVersionsQuerySizes::finished, this,
            &AbstractMediaDownload::onRvQuerySizesFinished);
    m_sizeQuery->query();
}

void AbstractMediaDownload::onParseFailed(const AbstractError&, bool) {}

void AbstractMediaDownload::finishParse(const AbstractError& error, bool temporary) {
    onParseFailed(error, temporary);
    log(QStringLiteral("parse error: ") + error.toText());
    stop(error);
}

// A failed measurement leaves sizes unknown: for a query that is its result, and its error is
// the query's; a start goes on, since the chosen version's child meets any real failure itself.
void AbstractMediaDownload::onRvQuerySizesFinished(const AbstractError& error) {
    if (!m_sizeQuery || m_stage != Starting || m_stopping)
        return;
    m_sizeQuery.release()->deleteLater();
    log(QStringLiteral("querying resources sizes finished"));
    if (error.isSet())
        log(QStringLiteral("querying resources sizes failed: ") + error.toText());
    if (!m_selector || m_selector->resourceVersions().isEmpty()) {
        log(QStringLiteral("no resource versions found"));
        finishParse(AbstractError(NoResourceVersionsCode, AbstractError::DownloadError,
                                  TERNCL_SOURCE_PLACE, "no resource versions found"),
                    false);
        return;
    }
    Q_EMIT changed(false);
    if (m_children->downloadsIds().isEmpty()) {
        if (m_command >= AbstractDownloadCommand::Start) {
            continueToStart();
            return;
        }
        m_pendingError = error;
        finishStop();
        return;
    }
    AbstractError reapplyError;
    if (!reapplyParseResultToChildDownloads(reapplyError)) {
        log(errorText(reapplyError));
        stop(reapplyError);
        return;
    }
    continueToStart();
}

void AbstractMediaDownload::onResourceSelectedVersionChanged() {
    if (m_selector)
        log(QStringLiteral("selected version: %1").arg(m_selector->selectedVersion()));
    Q_EMIT changed(false);
}

// --- Children ------------------------------------------------------------------------------------

void AbstractMediaDownload::continueToStart() {
    setRunning(Starting);
    AbstractError error;
    if (!prepareChildDownloads(error)) {
        log(error.toText());
        Q_EMIT changed(false);
        stop(error);
        return;
    }
    m_startingChildren = true;
    for (const auto& child : m_children->downloads()) {
        if (!child->info().isFinished() && !child->isRunning())
            child->doCommand(AbstractDownloadCommand::Start);
    }
    m_startingChildren = false;
    if (!isRunning() || m_stopping)
        return;
    if (!m_children->isRunning() && checkIfChildDownloadsFinished())
        return;
    setRunning(DownloadingChildren);
}

bool AbstractMediaDownload::prepareChildDownloads(AbstractError& error) {
    if (m_info.customData.contains(ChildDownloadsInitKey))
        return true;
    if (!m_selector || m_selector->resourceVersions().isEmpty()) {
        error = genericError(ChildCreationFailedCode, TERNCL_SOURCE_PLACE,
                             QStringLiteral("no resource versions to download"));
        return false;
    }
    chooseDefaultResourceVersion();
    const auto versions = m_selector->resourceVersions();
    const int selected = m_selector->selectedVersion();
    if (selected < 0 || selected >= versions.size()) {
        error = genericError(ChildCreationFailedCode, TERNCL_SOURCE_PLACE,
                             QStringLiteral("no resource version is selected"));
        return false;
    }
    const CompositeVersion& version = versions.at(selected);
    log(QStringLiteral("preparing the child downloads of version %1: %2")
            .arg(selected)
            .arg(version.title));
    return makeChildren(version, error);
}

QList<std::pair<AbstractMediaDownload::Version, AbstractMediaDownload::ChildKind>>
AbstractMediaDownload::childVersionsOf(const CompositeVersion& version) {
    if (version.parts.isEmpty())
        return {{version, WholeVersion}};
    if (version.parts.size() == 1)
        return {{version.parts.constFirst(), WholeVersion}};
    if (version.parts.size() != 2)
        return {};
    const int audio = version.parts.at(0).media.type == Selector::AudioOnly &&
                              version.parts.at(1).media.type != Selector::AudioOnly
                          ? 0
                          : 1;
    return {{version.parts.at(1 - audio), VideoPart}, {version.parts.at(audio), AudioPart}};
}

bool AbstractMediaDownload::makeChildren(const CompositeVersion& version, AbstractError& error) {
    auto wanted = childVersionsOf(version);
    if (wanted.isEmpty()) {
        error = genericError(
            ChildCreationFailedCode, TERNCL_SOURCE_PLACE,
            QStringLiteral("a version of %1 parts cannot be merged").arg(version.parts.size()));
        return false;
    }
    const bool merged = wanted.size() == 2;
    m_info.files.clear();
    if (merged) {
        AbstractDownloadFileInfo result;
        result.name = resultFileName(version);
        result.fileType = AbstractFileType::Video;
        result.tmpPath = QDir(temporaryFolder()).filePath(result.name + mergingSuffix);
        m_info.files.append(result);
    }
    for (const Version& subtitle : chooseSubtitles())
        wanted.append({subtitle, SubtitlesPart});

    QList<QSharedPointer<AbstractDownload>> children;
    for (const auto& [part, kind] : std::as_const(wanted)) {
        ChildDownloadDescription description;
        if (!makeChildDownloadDescription(part, kind, description, error))
            return false;
        const auto child = createChild(description, error);
        if (!child)
            return false;
        children.append(child);
    }
    if (m_manager) {
        m_manager->addDownloads(children);
        if (AbstractError saveError; !m_manager->saveDownloads(saveError))
            log(QStringLiteral("WARNING: the child downloads were not saved: ") +
                saveError.toText());
    }
    addChildren(children);
    if (merged) {
        m_info.customData.insert(AvDownloadsUuidsKey,
                                 QVariantList{children.at(0)->info().uuid.toString(),
                                              children.at(1)->info().uuid.toString()});
    }
    m_info.customData.insert(ChildDownloadsInitKey, true);
    Q_EMIT changed(true);
    return true;
}

bool AbstractMediaDownload::makeChildDownloadDescription(const Version& version, ChildKind kind,
                                                         ChildDownloadDescription& child,
                                                         AbstractError&) const {
    child.kind = kind;
    child.moduleName = version.protocol.isEmpty() ? plainModule : version.protocol;
    auto& info = child.info;
    setupChildOriginatorName(info);
    info.downloadType = AbstractDownloadType::Resource;
    info.resourceUrl = version.url.toString();
    info.referrer = version.referrer.isEmpty() ? m_info.referrer : version.referrer.toString();
    info.requestData = version.requestData;
    info.title = m_info.title;
    info.uuid = QUuid::createUuid();
    info.creationTime = QDateTime::currentDateTime();
    info.flags = (m_info.flags & AbstractDownloadPersistentInfo::Private) |
                 AbstractDownloadPersistentInfo::PartOfParentDownload;

    AbstractDownloadFileInfo file = childFile(version, kind);
    info.destinationPath =
        kind == VideoPart || kind == AudioPart ? childrenFolder() : m_info.destinationPath;
    info.name = file.name;
    info.files = {file};
    info.customData.insert(MediaPartKey,
                           QVariantHash{
                               {QStringLiteral("kind"), int(kind)},
                               {QStringLiteral("media"), version.media.toVariantHash()},
                               {QStringLiteral("title"), version.title},
                               {QStringLiteral("protocol"), version.protocol},
                           });
    child.initData = terncl::media::childInitData(version, &file);
    return true;
}

// "<result>" for a whole version, "<base>.video.<ext>", "<base>.audio.<ext>" for parts,
// "<base>.<language>.<ext>" for subtitles.
AbstractDownloadFileInfo AbstractMediaDownload::childFile(const Version& version,
                                                          ChildKind kind) const {
    AbstractDownloadFileInfo file;
    const QString base = resultBaseName();
    QString word;
    QString extension;
    switch (kind) {
    case WholeVersion:
        file.name = resultFileName(CompositeVersion(version));
        file.fileType = AbstractFileType::Video;
        break;
    case VideoPart:
        word = QStringLiteral("video");
        extension = extensionOf(version, QStringLiteral("mp4"));
        file.fileType = AbstractFileType::Video;
        break;
    case AudioPart:
        word = QStringLiteral("audio");
        extension = extensionOf(version, QStringLiteral("m4a"));
        file.fileType = AbstractFileType::Audio;
        break;
    case SubtitlesPart:
        word =
            version.media.language.isEmpty() ? QStringLiteral("subtitles") : version.media.language;
        extension = extensionOf(version, QStringLiteral("vtt"));
        file.fileType = AbstractFileType::Subtitles;
        break;
    }
    if (file.name.isEmpty())
        file.name = QStringLiteral("%1.%2.%3").arg(base, word, extension);
    file.name = FileNameRules::sanitizedFileName(file.name, true, QStringLiteral("_"));
    file.size = version.size;
    return file;
}

QList<AbstractMediaDownload::Version> AbstractMediaDownload::chooseSubtitles() const {
    const QString wanted =
        primaryLanguage(allOptions().value(PreferredResourceLanguage).toString());
    QList<Version> chosen;
    if (wanted.isEmpty())
        return chosen;
    for (const Version& subtitle : m_subtitles) {
        if (primaryLanguage(subtitle.media.language) == wanted)
            chosen.append(subtitle);
    }
    return chosen;
}

QSharedPointer<AbstractDownload>
AbstractMediaDownload::createChild(const ChildDownloadDescription& description,
                                   AbstractError& error) {
    AbstractError made;
    QSharedPointer<AbstractDownload> child;
    if (m_manager) {
        child = m_manager->createDownload(description.moduleName, description.info,
                                          description.initData, made);
    } else if (const auto factory = m_factory.toStrongRef()) {
        child = factory->createModuleDownload(description.moduleName, description.info,
                                              description.initData, made);
    } else {
        made = genericError(ChildCreationFailedCode, TERNCL_SOURCE_PLACE,
                            QStringLiteral("the downloads factory is gone"));
    }
    if (!child) {
        error = genericError(ChildCreationFailedCode, TERNCL_SOURCE_PLACE,
                             QStringLiteral("cannot create the child download of %1: %2")
                                 .arg(description.info.resourceUrl, made.toText()));
        return {};
    }
    log(QStringLiteral("child download #%1 (%2): %3")
            .arg(child->id())
            .arg(description.moduleName, description.info.name));
    return child;
}

void AbstractMediaDownload::addChildren(const QList<QSharedPointer<AbstractDownload>>& children) {
    for (const auto& child : children) {
        child->setInteractive(false);
        if (m_writersThread)
            child->setWritersThread(m_writersThread);
        connect(child.data(), &AbstractDownload::sendingRequestHeaders, this,
                &AbstractDownload::sendingRequestHeaders, Qt::UniqueConnection);
        connect(child.data(), &AbstractDownload::gotResponseHeaders, this,
                &AbstractDownload::gotResponseHeaders, Qt::UniqueConnection);
    }
    m_children->addDownloads(children);
    m_children->setNetworkSettings(m_networkSettings);
    m_children->setNetworkUsageSettings(m_usageSettings);
}

// After a restart of the program the children are the manager's.
void AbstractMediaDownload::restoreChildrenFromManager() {
    if (!m_manager || !m_children->downloadsIds().isEmpty())
        return;
    const auto& customData = m_info.customData;
    if (!customData.contains(ChildDownloadsInitKey) && !customData.contains(ChildDownloadsCountKey))
        return;
    auto children = m_manager->downloads();
    if (children.isEmpty()) {
        if (AbstractError error; !m_manager->loadDownloads(error))
            log(QStringLiteral("WARNING: the child downloads were not loaded: ") + error.toText());
        children = m_manager->downloads();
    }
    if (!children.isEmpty())
        addChildren(children);
}

void AbstractMediaDownload::onChildDownloadsChanged(bool criticalChange) {
    Q_EMIT changed(criticalChange);
    const auto progress = childrenProgress();
    Q_EMIT progressChanged(progress.first, progress.second);
}

std::pair<qint64, qint64> AbstractMediaDownload::childrenProgress() const {
    qint64 done = 0;
    qint64 total = 0;
    for (const auto& child : m_children->downloads()) {
        const auto& info = child->info();
        done += info.downloadedBytes();
        const qint64 size = info.totalSize();
        total = (size < 0 || total < 0) ? -1 : total + size;
    }
    return {done, total};
}

void AbstractMediaDownload::onChildDownloadsRunning(bool isRunning) {
    if (isRunning || m_startingChildren || !this->isRunning())
        return;
    if (m_stopping) {
        if (!m_companion->isPerformingOperation())
            finishStop();
        return;
    }
    if (m_stage == DownloadingChildren)
        checkIfChildDownloadsFinished();
}

// Examined once no child runs any more: a refusal of a child's resource may be an expired link.
void AbstractMediaDownload::onChildDownloadFailed(const AbstractError& childError) {
    log(QStringLiteral("child download(s) failed with error: ") + childError.toText());
    if ((childError.category == AbstractError::HttpError ||
         childError.category == AbstractError::QtNetworkError) &&
        refreshSourcesAfter(childError))
        return;
    stop(childError);
}

// Links of media pages often expire: a child refused its resource is worth one new parse per
// run, whose result gives the children fresh sources.
bool AbstractMediaDownload::refreshSourcesAfter(const AbstractError& childError) {
    static const QList<int> httpCodes = {401, 403, 404, 410};
    static const QList<int> networkCodes = {201, 203, 208}; // access denied, not found, gone
    const bool expired = childError.category == AbstractError::HttpError
                             ? httpCodes.contains(childError.code)
                             : networkCodes.contains(childError.code);
    if (!expired || m_sourcesRefreshed)
        return false;
    m_sourcesRefreshed = true;
    log(QStringLiteral("the sources may have expired: parsing again"));
    setRunning(Starting);
    startParse();
    return true;
}

bool AbstractMediaDownload::checkIfChildDownloadsFinished() {
    if (m_stage != Starting && m_stage != DownloadingChildren)
        return false;
    for (const QUuid& uuid : avDownloadsUuids()) {
        if (!childByUuid(uuid)) {
            log(QStringLiteral("WARNING: missing audio video downloads"));
            stop(genericError(ChildDownloadsMissingCode, TERNCL_SOURCE_PLACE,
                              QStringLiteral("child download %1 is missing")
                                  .arg(uuid.toString(QUuid::WithoutBraces))));
            return true;
        }
    }
    QSharedPointer<AbstractDownload> unfinished;
    for (const qint64 id : m_children->downloadsIds()) {
        const auto child = m_children->download(id);
        if (!child) {
            stop(genericError(ChildDownloadsMissingCode, TERNCL_SOURCE_PLACE,
                              QStringLiteral("child download #%1 is missing").arg(id)));
            return true;
        }
        if (child->isRunning())
            return false;
        // The first failure, else the first child that stopped silently.
        if (!child->info().isFinished() &&
            (!unfinished || (child->lastError().isSet() && !unfinished->lastError().isSet())))
            unfinished = child;
    }
    if (unfinished) {
        const AbstractError error = unfinished->lastError();
        onChildDownloadFailed(
            error.isSet() ? error
                          : genericError(MergeFailedCode, TERNCL_SOURCE_PLACE,
                                         QStringLiteral("child download #%1 stopped unfinished")
                                             .arg(unfinished->id())));
        return true;
    }
    gatherChildFiles();
    setRunning(Finishing);
    if (avDownloadsUuids().isEmpty())
        completeRun();
    else
        startMerge();
    return true;
}

// The record lists the result first, then the subtitles beside it.
void AbstractMediaDownload::gatherChildFiles() {
    QList<AbstractDownloadFileInfo> files;
    if (!avDownloadsUuids().isEmpty() && m_info.hasFiles())
        files.append(m_info.files.constFirst());
    for (const auto& child : m_children->downloads()) {
        const int kind = toHash(child->info().customData.value(MediaPartKey))
                             .value(QStringLiteral("kind"))
                             .toInt();
        if (kind == WholeVersion)
            files = child->info().files + files;
        else if (kind == SubtitlesPart)
            files += child->info().files;
    }
    m_info.files = files;
    Q_EMIT changed(true);
}

// --- The end -------------------------------------------------------------------------------------

void AbstractMediaDownload::startMerge() {
    log(QStringLiteral("merging..."));
    const auto merger = m_avMerger.toStrongRef();
    if (!merger) {
        failMerge(QStringLiteral("merge failed: no avMerger"));
        return;
    }
    const QList<QUuid> uuids = avDownloadsUuids();
    if (uuids.size() != 2) {
        failMerge(QStringLiteral("merge failed: missing downloads"));
        return;
    }
    const auto video = childByUuid(uuids.at(0));
    const auto audio = childByUuid(uuids.at(1));
    if (!video || !audio) {
        failMerge(QStringLiteral("merge failed: missing download"));
        return;
    }
    const QString videoPath = AbstractDownloadFileOps::currentFilePath(video->info(), 0);
    const QString audioPath = AbstractDownloadFileOps::currentFilePath(audio->info(), 0);
    const QString resultPath = AbstractDownloadFileOps::currentFilePath(m_info, 0);
    if (videoPath.isEmpty() || audioPath.isEmpty() || resultPath.isEmpty() ||
        !QDir().mkpath(QFileInfo(resultPath).path())) {
        failMerge(QStringLiteral("merge failed: unexpected error"));
        return;
    }
    m_mergeId = merger->nextId();
    connect(merger.data(), &QtFfmpegAvMerger::progress, this,
            &AbstractMediaDownload::onMergeProgress, Qt::UniqueConnection);
    connect(merger.data(), &QtFfmpegAvMerger::finished, this,
            &AbstractMediaDownload::onMergeFinished, Qt::UniqueConnection);
    merger->merge(m_mergeId, videoPath, audioPath, resultPath,
                  mergeFormat() == QLatin1String("mkv") ? QStringLiteral("matroska")
                                                        : QStringLiteral("mp4"));
}

void AbstractMediaDownload::failMerge(const QString& text) {
    log(text);
    stop(genericError(MergeFailedCode, TERNCL_SOURCE_PLACE, text));
}

void AbstractMediaDownload::onMergeProgress(int id, int current, int total) {
    if (id != m_mergeId)
        return;
    m_mergeCurrent = current;
    m_mergeTotal = total;
}

void AbstractMediaDownload::onMergeFinished(int id, const AbstractError& error, qint64 fileSize) {
    if (id != m_mergeId || m_mergeId == -1)
        return;
    m_mergeId = -1;
    if (error.isSet()) {
        log(QStringLiteral("merge failed: ") + error.toText());
        stop(error);
        return;
    }
    log(QStringLiteral("merge finished"));
    auto& result = m_info.files.first();
    result.size = fileSize;
    result.sections = {{0, fileSize, fileSize}};
    result.flags |= AbstractDownloadFileInfo::Created;
    removeMergedChildren();
    m_info.customData.remove(AvDownloadsUuidsKey);
    Q_EMIT changed(true);
    completeRun();
}

void AbstractMediaDownload::removeMergedChildren() {
    QList<qint64> ids;
    QList<QSharedPointer<AbstractDownload>> merged;
    for (const QUuid& uuid : avDownloadsUuids()) {
        if (const auto child = childByUuid(uuid)) {
            ids.append(child->id());
            merged.append(child);
        }
    }
    if (m_manager) {
        m_manager->removeDownloads(ids, true);
    } else {
        for (const auto& child : std::as_const(merged))
            removeFiles(child->info());
    }
    m_children->removeDownloads(ids);
    releaseLater(merged);
}

// The data is complete: the record is finished, and what is left (the move of the result to its
// destination name) is work on the file that a start resumes.
void AbstractMediaDownload::completeRun() {
    m_info.state = AbstractDownloadPersistentInfo::Finished;
    if (!m_info.completionTime.isValid())
        m_info.completionTime = QDateTime::currentDateTime();
    if (m_companion->isStandardOpRequired()) {
        log(QStringLiteral("performing the files operation..."));
        m_companion->performRequiredStandardOp();
        return;
    }
    finishRun();
}

void AbstractMediaDownload::finishRun() {
    qint64 bytes = 0;
    for (const auto& file : std::as_const(m_info.files))
        bytes += qMax<qint64>(file.size, 0);
    log(QStringLiteral("finished (%1 file(s), %2 bytes, %3)")
            .arg(m_info.files.size())
            .arg(bytes)
            .arg(m_info.hasFiles() ? AbstractDownloadFileOps::currentFilePath(m_info, 0)
                                   : QString()));
    Q_EMIT changed(true);
    setRunning(NotRunning);
}

void AbstractMediaDownload::onPerformFileInitializeOpsFinished(
    AbstractDownloadFilesOpsCompanion::OperationType, const AbstractError& error) {
    if (!isRunning())
        return;
    if (m_stopping) {
        if (!m_children->isRunning())
            finishStop();
        return;
    }
    if (error.isSet()) {
        stop(error);
        return;
    }
    finishRun();
}

// --- Reapplying a new parse ----------------------------------------------------------------------

bool AbstractMediaDownload::reapplyParseResultToChildDownloads(AbstractError& error) {
    const QString prefix = QStringLiteral("failed to reapplyParseResultToChildDownloads: ");
    for (const QUuid& uuid : avDownloadsUuids()) {
        if (!childByUuid(uuid)) {
            error = genericError(ReapplyFailedCode, TERNCL_SOURCE_PLACE,
                                 prefix + QStringLiteral("could not find child download"));
            return false;
        }
    }
    for (const auto& child : m_children->downloads()) {
        if (child->info().isFinished())
            continue;
        Version version;
        if (!findSameResource(child->info(), version)) {
            error = genericError(ReapplyFailedCode, TERNCL_SOURCE_PLACE,
                                 prefix + QStringLiteral("could not find the same resource"));
            return false;
        }
        AbstractDownloadPersistentInfo update = child->info();
        update.resourceUrl = version.url.toString();
        if (!version.referrer.isEmpty())
            update.referrer = version.referrer.toString();
        update.requestData = version.requestData;
        child->updateInfoFields(update,
                                AbstractDownloadPersistentInfo::FieldResourceUrl |
                                    AbstractDownloadPersistentInfo::FieldRequest,
                                BitFlagsUpdateMode::Replace);
        const auto& files = child->info().files;
        child->setInitData(
            terncl::media::childInitData(version, files.isEmpty() ? nullptr : &files.first()));
    }
    return true;
}

// The selected version first, then every other one: of the same kind, with the same media
// description or, failing that, the same title.
bool AbstractMediaDownload::findSameResource(const AbstractDownloadPersistentInfo& childInfo,
                                             Version& found) const {
    const QVariantHash part = toHash(childInfo.customData.value(MediaPartKey));
    const int kind = part.value(QStringLiteral("kind"), -1).toInt();
    const auto media =
        Selector::MediaDescription::fromVariantHash(toHash(part.value(QStringLiteral("media"))));
    const QString title = part.value(QStringLiteral("title")).toString();
    QList<std::pair<Version, ChildKind>> candidates;
    const auto versions = m_selector ? m_selector->resourceVersions() : QList<CompositeVersion>();
    const int selected = m_selector ? m_selector->selectedVersion() : -1;
    if (selected >= 0 && selected < versions.size())
        candidates += childVersionsOf(versions.at(selected));
    for (const auto& version : versions)
        candidates += childVersionsOf(version);
    for (const auto& subtitle : m_subtitles)
        candidates.append({subtitle, SubtitlesPart});
    for (const bool byTitle : {false, true}) {
        for (const auto& [version, candidateKind] : std::as_const(candidates)) {
            if (candidateKind != kind)
                continue;
            if (byTitle ? (!title.isEmpty() && version.title == title) : version.media == media) {
                found = version;
                return true;
            }
        }
    }
    return false;
}

// --- Helpers -------------------------------------------------------------------------------------

QList<QUuid> AbstractMediaDownload::avDownloadsUuids() const {
    QList<QUuid> uuids;
    for (const QVariant& value : m_info.customData.value(AvDownloadsUuidsKey).toList())
        uuids.append(QUuid::fromString(value.toString()));
    return uuids;
}

QSharedPointer<AbstractDownload> AbstractMediaDownload::childByUuid(const QUuid& uuid) const {
    if (uuid.isNull())
        return {};
    for (const auto& child : m_children->downloads()) {
        if (child->info().uuid == uuid)
            return child;
    }
    return {};
}

bool AbstractMediaDownload::isResultFileComplete() const {
    if (!m_info.hasFiles())
        return false;
    const auto& file = m_info.files.constFirst();
    return file.size >= 0 && file.size == file.downloadedBytes();
}

void AbstractMediaDownload::setRunning(RunStage stage) {
    if (stage == m_stage)
        return;
    const bool wasRunning = isRunning();
    m_stage = stage;
    log(QStringLiteral("run stage: %1").arg(int(stage)));
    if (wasRunning == isRunning())
        return;
    log(QStringLiteral("running: ") +
        (isRunning() ? QStringLiteral("true") : QStringLiteral("false")));
    Q_EMIT running(isRunning());
}

QString AbstractMediaDownload::resultName() const {
    if (m_info.hasFiles() && !m_info.files.constFirst().name.isEmpty())
        return m_info.files.constFirst().name;
    return m_info.name;
}

// The result's name without the extension of a media container, which the version decides.
QString AbstractMediaDownload::resultBaseName() const {
    static const QStringList mediaSuffixes = {
        QStringLiteral("mp4"), QStringLiteral("m4v"),  QStringLiteral("m4a"),
        QStringLiteral("mkv"), QStringLiteral("webm"), QStringLiteral("mov"),
        QStringLiteral("ts"),  QStringLiteral("mp3"),  QStringLiteral("aac"),
        QStringLiteral("ogg"), QStringLiteral("opus"), QStringLiteral("flv"),
        QStringLiteral("3gp"), QStringLiteral("m3u8"), QStringLiteral("mpd")};
    QString name = resultName();
    const QString suffix = QFileInfo(name).suffix();
    if (mediaSuffixes.contains(suffix.toLower()))
        name.chop(suffix.size() + 1);
    return name.isEmpty() ? QStringLiteral("media") : name;
}

QString AbstractMediaDownload::resultFileName(const CompositeVersion& version) const {
    const auto children = childVersionsOf(version);
    const Version& whole = children.isEmpty() ? version : children.constFirst().first;
    const QString extension =
        children.size() == 2 ? mergeFormat() : extensionOf(whole, QStringLiteral("mp4"));
    return FileNameRules::sanitizedFileName(resultBaseName() + u'.' + extension, true,
                                            QStringLiteral("_"));
}

QString AbstractMediaDownload::temporaryFolder() const {
    return m_settings.temporaryFolder.isEmpty() ? m_info.destinationPath
                                                : m_settings.temporaryFolder;
}

QString AbstractMediaDownload::childrenFolder() const {
    if (m_manager && !m_manager->downloadsFolder().isEmpty())
        return m_manager->downloadsFolder();
    return temporaryFolder();
}

void AbstractMediaDownload::log(const QString& text) const {
    terncl::logLine(QtAppLogger::Info, QtAppLogger::Download, logHeader() + text);
}

// --- Accessors -----------------------------------------------------------------------------------

void AbstractMediaDownload::setNetworkSettings(const AbstractNetworkConsumerSettings& settings) {
    m_networkSettings = settings;
    m_children->setNetworkSettings(settings);
}

AbstractNetworkConsumerSettings AbstractMediaDownload::networkSettings() const {
    return m_networkSettings;
}

void AbstractMediaDownload::setNetworkUsageSettings(const NetworkUsageSettings& settings) {
    m_usageSettings = settings;
    m_children->setNetworkUsageSettings(settings);
}

NetworkUsageSettings AbstractMediaDownload::networkUsageSettings() const {
    return m_usageSettings;
}

const QtConnectionsMap& AbstractMediaDownload::connectionsMap() const {
    return m_children->connectionsMap();
}

qint64 AbstractMediaDownload::speed(NetworkTrafficDirection direction, bool currentOnly) const {
    return m_children->speed(direction, currentOnly);
}

AbstractError AbstractMediaDownload::lastError() const {
    return m_lastError;
}

QList<QSslError> AbstractMediaDownload::lastSslErrors() const {
    return m_children->lastSslErrors();
}

QtSslHost AbstractMediaDownload::lastUnknownSslHost() const {
    return m_children->lastUnknownSslHost();
}

QDateTime AbstractMediaDownload::lastErrorTime() const {
    return m_lastErrorTime;
}

void AbstractMediaDownload::clearLastError() {
    m_lastError = {};
    m_lastErrorTime = {};
}

bool AbstractMediaDownload::isRunning() const {
    return m_stage != NotRunning;
}

const AbstractDownloadPersistentInfo& AbstractMediaDownload::info() const {
    return m_info;
}

AbstractDownloadPersistentInfo& AbstractMediaDownload::rwInfo() {
    return m_info;
}

// The children of the record being replaced go; the manager's come back for the new one.
bool AbstractMediaDownload::setInfo(const AbstractDownloadPersistentInfo& info) {
    if (isRunning())
        return false;
    m_info = info;
    if (m_info.moduleName.isEmpty())
        m_info.moduleName = m_moduleName;
    m_info.supportedOptions |= supportedOptionsMask();
    const auto children = m_children->downloads();
    m_children->removeDownloads(m_children->downloadsIds());
    releaseLater(children);
    restoreChildrenFromManager();
    return true;
}

bool AbstractMediaDownload::updateInfoFields(const AbstractDownloadPersistentInfo& info,
                                             qint64 fields, BitFlagsUpdateMode mode) {
    const bool changedFields = m_info.updateFields(info, fields, mode);
    if (changedFields)
        Q_EMIT changed(false);
    return changedFields;
}

QSet<AbstractDownloadDestinationType> AbstractMediaDownload::supportedDestinations() const {
    return {AbstractDownloadDestinationType::File};
}

bool AbstractMediaDownload::setWritersThread(QThread* thread) {
    m_writersThread = thread;
    m_companion->setWritersThread(thread);
    m_children->setWritersThread(thread);
    return true;
}

void AbstractMediaDownload::setSettings(const AbstractDownloadSettings& settings) {
    m_settings = settings;
    m_children->setSettings(settings);
}

const AbstractDownloadSettings& AbstractMediaDownload::settings() const {
    return m_settings;
}

void AbstractMediaDownload::setOption(quint64 option, const QVariant& value) {
    AbstractDownload::setOption(option, value);
}

quint64 AbstractMediaDownload::currentTasks() const {
    switch (m_stage) {
    case Starting:
        return quint64(AbstractDownloadTask::QueryingInfo);
    case DownloadingChildren:
        return quint64(AbstractDownloadTask::Downloading);
    case Finishing:
        return quint64(m_mergeId != -1 ? AbstractDownloadTask::Merging
                                       : AbstractDownloadTask::PerformingFilesOperations);
    default:
        return 0;
    }
}

AbstractDownloadTasksProgress AbstractMediaDownload::tasksProgress() const {
    switch (m_stage) {
    case Starting:
        return {{AbstractDownloadTask::QueryingInfo, {0, 0}}};
    case DownloadingChildren:
        return {{AbstractDownloadTask::Downloading, childrenProgress()}};
    case Finishing:
        if (m_mergeId != -1 && m_mergeCurrent >= 0 && m_mergeTotal >= m_mergeCurrent)
            return {{AbstractDownloadTask::Merging, {m_mergeCurrent, m_mergeTotal}}};
        return {{AbstractDownloadTask(currentTasks()), {0, 0}}};
    default:
        return {};
    }
}

bool AbstractMediaDownload::isQueryingInfo() const {
    return m_stage == Starting;
}

bool AbstractMediaDownload::isStopping() const {
    return m_stopping;
}

bool AbstractMediaDownload::isFinalizing() const {
    return m_stage == Finishing || m_companion->isPerformingOperation();
}

void AbstractMediaDownload::setChildDownloadsManager(
    const QSharedPointer<AbstractChildDownloadsManager>& manager) {
    if (isRunning())
        return;
    m_manager = manager;
    restoreChildrenFromManager();
}

AbstractDownloadErrorReportData AbstractMediaDownload::errorReportData() const {
    AbstractDownloadErrorReportData data;
    if (m_lastError.isSet())
        data.text = m_lastError.toText();
    QJsonObject details{
        {QStringLiteral("module"), m_moduleName},
        {QStringLiteral("runStage"), int(m_stage)},
        {QStringLiteral("versions"), m_selector ? int(m_selector->resourceVersions().size()) : 0},
        {QStringLiteral("selectedVersion"), m_selector ? m_selector->selectedVersion() : -1},
        {QStringLiteral("childDownloads"), int(m_children->downloadsIds().size())},
        {QStringLiteral("childDownloadsInit"), m_info.customData.contains(ChildDownloadsInitKey)},
    };
    data.details = QJsonDocument(details);
    return data;
}

QMap<QString, QVariant> AbstractMediaDownload::details() const {
    return {
        {QStringLiteral("runStage"), int(m_stage)},
        {QStringLiteral("selectedVersion"), m_selector ? m_selector->selectedVersion() : -1},
        {QStringLiteral("childDownloads"), int(m_children->downloadsIds().size())},
        {QStringLiteral("mergeFormat"), mergeFormat()},
    };
}
