#include "abstractdownload.h"

#include "abstractdownloadabortreason.h"
#include "abstractdownloadresourceversionoption.h"
#include "abstractdownloadresourceversionselector.h"
#include "abstractnewdownloadsrequestjob.h"
#include "abstractnewdownloadssource.h"
#include "operationspeedtracker.h"

#include <QCoreApplication>

#include <algorithm>

namespace {
const QString optionsKey = QStringLiteral("options");
const QString optionsBackupKey = QStringLiteral("optionsBackup");
const QString optionIdKey = QStringLiteral("o");
const QString optionValueKey = QStringLiteral("v");

// Option entries come back from JSON or older code as either kind of map.
QVariantHash toVariantHash(const QVariant& value) {
    if (value.typeId() == QMetaType::QVariantHash)
        return value.toHash();
    if (value.typeId() == QMetaType::QVariantMap) {
        const auto map = value.toMap();
        QVariantHash hash;
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            hash.insert(it.key(), it.value());
        return hash;
    }
    return {};
}

QVariantList toOptionsList(const QHash<quint64, QVariant>& options) {
    auto ids = options.keys();
    std::sort(ids.begin(), ids.end()); // a stable order keeps stored records comparable
    QVariantList list;
    list.reserve(ids.size());
    for (const auto id : std::as_const(ids)) {
        list.append(QVariantHash{{optionIdKey, QVariant::fromValue(id)},
                                 {optionValueKey, options.value(id)}});
    }
    return list;
}
} // namespace

AbstractDownload::AbstractDownload(qint64 id, QObject* parent)
    : AbstractNetworkConsumerWithExtraTasks(parent)
    , m_id(id) {}

AbstractDownload::~AbstractDownload() = default;

qint64 AbstractDownload::id() const {
    return m_id;
}

void AbstractDownload::setId(qint64 id) {
    m_id = id;
}

QString AbstractDownload::logHeader() const {
    QString header;
    for (const auto& originator : info().originators)
        header += QLatin1Char('[') + originator + QLatin1Char(']');
    return header + QLatin1Char('[') + selfOriginatorName() + QStringLiteral("]: ");
}

QString AbstractDownload::selfOriginatorName() const {
    return QString::fromLatin1(metaObject()->className()) + QStringLiteral(" #") +
           QString::number(m_id);
}

void AbstractDownload::setupChildOriginatorName(AbstractDownloadPersistentInfo& childInfo) const {
    childInfo.originators = info().originators;
    childInfo.originators.append(selfOriginatorName());
}

void AbstractDownload::setupGenericFieldsBySourceDownload(
    const AbstractDownloadPersistentInfo& source, AbstractDownloadPersistentInfo& target) {
    if (target.destinationPath.isEmpty())
        target.destinationPath = source.destinationPath;
    if (target.title.isEmpty())
        target.title = source.title;
    if (target.referrer.isEmpty())
        target.referrer = source.referrer;
    if (target.requestData.isEmpty())
        target.requestData = source.requestData;
    if (source.testFlag(AbstractDownloadPersistentInfo::Private))
        target.setFlag(AbstractDownloadPersistentInfo::Private);
    if (!target.customData.contains(optionsKey) && source.customData.contains(optionsKey))
        target.customData.insert(optionsKey, source.customData.value(optionsKey));
}

QHash<quint64, QVariant> AbstractDownload::allOptions() const {
    QHash<quint64, QVariant> options;
    const auto list = info().customData.value(optionsKey).toList();
    for (const auto& item : list) {
        const auto entry = toVariantHash(item);
        if (entry.contains(optionIdKey))
            options.insert(entry.value(optionIdKey).toULongLong(), entry.value(optionValueKey));
    }
    return options;
}

void AbstractDownload::backupOptions() {
    auto& customData = rwInfo().customData;
    // Without options the backup is an empty list, so that restoring it removes options set
    // after the backup.
    customData.insert(optionsBackupKey, customData.value(optionsKey, QVariantList{}));
}

void AbstractDownload::restoreOptions(bool removeBackup) {
    auto& customData = rwInfo().customData;
    if (!customData.contains(optionsBackupKey))
        return;
    customData.insert(optionsKey, customData.value(optionsBackupKey));
    if (removeBackup)
        customData.remove(optionsBackupKey);
}

void AbstractDownload::clearAllOptions() {
    rwInfo().customData.remove(optionsKey);
}

void AbstractDownload::setAllOptions(AbstractDownloadPersistentInfo& info,
                                     const QList<QVariant>& options) {
    info.customData.insert(optionsKey, options);
}

bool AbstractDownload::chooseDefaultResourceVersion() {
    return chooseDefaultResourceVersion(allOptions());
}

bool AbstractDownload::chooseDefaultResourceVersion(const QHash<quint64, QVariant>& options) {
    const auto fileTypeValue = options.value(PreferredResourceFileType);
    const auto fileType = fileTypeValue.metaType() == QMetaType::fromType<AbstractFileType>()
                              ? fileTypeValue.value<AbstractFileType>()
                              : AbstractFileType(fileTypeValue.toInt());
    return chooseDefaultResourceVersion(fileType, options.value(MaxResourceVideoHeight).toInt(),
                                        options.value(PreferredResourceFormat).toString(),
                                        options.value(PreferredResourceLanguage).toString());
}

bool AbstractDownload::chooseDefaultResourceVersion(AbstractFileType fileType, int maxHeight,
                                                    const QString& format,
                                                    const QString& language) {
    const auto selector = resourceVersionSelector();
    if (!selector)
        return false;
    const auto count = selector->resourceVersions().size();
    if (count == 0)
        return false;
    // An index left over from a longer list (removeDashVersions keeps it) is no selection.
    const auto selected = selector->selectedVersion();
    if (selected >= 0 && selected < count)
        return true;
    selector->setSelectedVersion(
        selector->defaultVersionIndex(fileType, maxHeight, format, language));
    return selector->selectedVersion() >= 0;
}

void AbstractDownload::doCustomCommand(const QVariant&, const QVariant&) {}

void AbstractDownload::fileExistsAction(int, AbstractDownloadFileExistsAction) {}

bool AbstractDownload::setInitData(const QVariant&) {
    return false;
}

QSharedPointer<AbstractDownloadResourceVersionSelector>
AbstractDownload::resourceVersionSelector() {
    return {};
}

bool AbstractDownload::setupBySourceDownload(QSharedPointer<AbstractDownload>) {
    return false;
}

CompareDownloadsResult
AbstractDownload::compareDownloads(const AbstractDownloadPersistentInfo& other) const {
    const auto& mine = info();
    if (mine.resourceUrl.isEmpty() || other.resourceUrl.isEmpty())
        return CompareDownloadsResult::Different;
    if (mine.downloadType != other.downloadType || mine.downloadSubtype != other.downloadSubtype ||
        mine.resourceUrl != other.resourceUrl) {
        return CompareDownloadsResult::Different;
    }
    switch (other.downloadType) {
    case AbstractDownloadType::Resource:
        return CompareDownloadsResult::Same;
    case AbstractDownloadType::Collection:
        return CompareDownloadsResult::SameMergeable;
    default:
        return CompareDownloadsResult::Different;
    }
}

bool AbstractDownload::acquireDownloadsMergeOptions(const AbstractDownloadPersistentInfo&,
                                                    AbstractDownloadMergeOptions&,
                                                    AbstractDownloadMergeOptions&) {
    return true;
}

bool AbstractDownload::mergeIntoThisDownload(const AbstractDownloadPersistentInfo&,
                                             const AbstractDownloadMergeOptions&) {
    return true;
}

bool AbstractDownload::mergeIntoOtherDownload(AbstractDownloadPersistentInfo&,
                                              const AbstractDownloadMergeOptions&) {
    return true;
}

bool AbstractDownload::isChildDownloadsManagerRequired() const {
    return false;
}

void AbstractDownload::setChildDownloadsManager(
    const QSharedPointer<AbstractChildDownloadsManager>&) {}

const QList<AbstractItemPreviewSource>& AbstractDownload::previews() const {
    static const QList<AbstractItemPreviewSource> none;
    return none;
}

QSharedPointer<AbstractNewDownloadsSource> AbstractDownload::newDownloadsSource() const {
    return {};
}

void AbstractDownload::setOption(quint64 option, const QVariant& value) {
    if ((info().supportedOptions & option) != option)
        return;
    auto options = allOptions();
    options.insert(option, value);
    rwInfo().customData.insert(optionsKey, toOptionsList(options));
}

QVariant AbstractDownload::option(quint64 option) {
    return allOptions().value(option);
}

bool AbstractDownload::isFinalizing() const {
    return false;
}

AbstractDownloadErrorReportData AbstractDownload::errorReportData() const {
    return {};
}

bool AbstractDownload::interactive() const {
    return m_interactive;
}

void AbstractDownload::setInteractive(bool interactive) {
    m_interactive = interactive;
}

bool AbstractDownload::supportsWriteOffset() const {
    return false;
}

QMap<QString, QVariant> AbstractDownload::details() const {
    return {};
}

AbstractDownloadPersistentInfo& AbstractDownload::rwInfo() {
    return const_cast<AbstractDownloadPersistentInfo&>(info());
}

void AbstractDownload::signalPerformingFilesOperations(bool performing) {
    if (m_filesOperationsDepth < 0)
        return;
    if (performing) {
        if (++m_filesOperationsDepth == 1)
            Q_EMIT performingFilesOperations(true);
    } else if (m_filesOperationsDepth != 0) {
        if (--m_filesOperationsDepth == 0)
            Q_EMIT performingFilesOperations(false);
    }
}

namespace {
// Types of the download model that travel in queued signals or are looked up by name.
void registerDownloadMetaTypes() {
    qRegisterMetaType<AbstractDownloadCommand>("AbstractDownloadCommand");
    qRegisterMetaType<AbstractDownloadFileExistsAction>("AbstractDownloadFileExistsAction");
    qRegisterMetaType<AbstractDownloadExistingFileReaction>("AbstractDownloadExistingFileReaction");
    qRegisterMetaType<AbstractDownloadTask>("AbstractDownloadTask");
    qRegisterMetaType<AbstractDownloadType>("AbstractDownloadType");
    qRegisterMetaType<AbstractFileType>("AbstractFileType");
    qRegisterMetaType<AbstractDownloadDestinationType>("AbstractDownloadDestinationType");
    qRegisterMetaType<BitFlagsUpdateMode>("BitFlagsUpdateMode");
    qRegisterMetaType<CompareDownloadsResult>("CompareDownloadsResult");
    qRegisterMetaType<AbstractDownloadSettings>("AbstractDownloadSettings");
    qRegisterMetaType<AbstractDownloadFileSection>("AbstractDownloadFileSection");
    qRegisterMetaType<AbstractDownloadFileInfo>("AbstractDownloadFileInfo");
    qRegisterMetaType<AbstractDownloadPersistentInfo>("AbstractDownloadPersistentInfo");
    qRegisterMetaType<AbstractDownloadMergeOptions>("AbstractDownloadMergeOptions");
    qRegisterMetaType<AbstractItemPreviewSource>("AbstractItemPreviewSource");
    qRegisterMetaType<AbstractDownloadErrorReportData>("AbstractDownloadErrorReportData");
    qRegisterMetaType<AbstractNewDownloadsSource::Downloads>(
        "AbstractNewDownloadsSource::Downloads");
    qRegisterMetaType<AbstractNewDownloadsRequestJob>("AbstractNewDownloadsRequestJob");
    qRegisterMetaType<AbstractDownloadAbortReason>("AbstractDownloadAbortReason");
    qRegisterMetaType<OperationSpeedTracker>("OperationSpeedTracker");
}
} // namespace

Q_COREAPP_STARTUP_FUNCTION(registerDownloadMetaTypes)
