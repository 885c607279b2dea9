#include "abstractdownloadpersistentinfo.h"

#include "recordvariants_p.h"

#include <QJsonDocument>
#include <QJsonObject>

using namespace terncl::record;

namespace {
const QString formatVersionKey = QStringLiteral("formatVersion");

QVariantList filesToList(const QList<AbstractDownloadFileInfo>& files) {
    QVariantList list;
    list.reserve(files.size());
    for (const auto& file : files)
        list.append(file.toVariantHash());
    return list;
}

QList<AbstractDownloadFileInfo> filesFromList(const QVariantList& list) {
    QList<AbstractDownloadFileInfo> files;
    for (const auto& item : list) {
        // A file record that is not a map at all is dropped rather than made up.
        if (item.typeId() == QMetaType::QVariantHash || item.typeId() == QMetaType::QVariantMap)
            files.append(AbstractDownloadFileInfo::fromVariantHash(readHash(item)));
    }
    return files;
}

template <typename T> bool assignIfDifferent(T& target, const T& source) {
    if (target == source)
        return false;
    target = source;
    return true;
}
} // namespace

qint64 AbstractDownloadPersistentInfo::downloadedBytes() const {
    qint64 total = 0;
    for (const auto& file : files)
        total += file.downloadedBytes();
    return total;
}

qint64 AbstractDownloadPersistentInfo::totalSize() const {
    qint64 total = 0;
    bool anySelected = false;
    for (const auto& file : files) {
        if (!file.isSelected())
            continue;
        if (file.size < 0)
            return -1;
        anySelected = true;
        total += file.size;
    }
    return anySelected ? total : -1;
}

bool AbstractDownloadPersistentInfo::updateFields(const AbstractDownloadPersistentInfo& source,
                                                  qint64 fields, BitFlagsUpdateMode mode) {
    bool changed = false;
    if (fields & FieldFlags)
        changed |= assignIfDifferent(flags, terncl::updatedBitFlags(flags, source.flags, mode));
    if (fields & FieldState)
        changed |= assignIfDifferent(state, source.state);
    if (fields & FieldDestinationPath)
        changed |= assignIfDifferent(destinationPath, source.destinationPath);
    if (fields & FieldNames) {
        changed |= assignIfDifferent(name, source.name);
        changed |= assignIfDifferent(title, source.title);
    }
    if (fields & FieldResourceUrl)
        changed |= assignIfDifferent(resourceUrl, source.resourceUrl);
    if (fields & FieldRequest) {
        changed |= assignIfDifferent(referrer, source.referrer);
        changed |= assignIfDifferent(requestData, source.requestData);
    }
    if (fields & FieldFilesPriorities) {
        // Files are matched by position; files only one side has are left alone.
        for (qsizetype i = 0; i < qMin(files.size(), source.files.size()); ++i)
            changed |= assignIfDifferent(files[i].priority, source.files.at(i).priority);
    }
    if (fields & FieldCustomData)
        changed |= assignIfDifferent(customData, source.customData);
    if (fields & FieldOriginators)
        changed |= assignIfDifferent(originators, source.originators);
    return changed;
}

bool AbstractDownloadPersistentInfo::operator==(const AbstractDownloadPersistentInfo& other) const {
    return originators == other.originators && downloadType == other.downloadType &&
           downloadSubtype == other.downloadSubtype && resourceUrl == other.resourceUrl &&
           customData == other.customData && supportedOptions == other.supportedOptions &&
           uuid == other.uuid && moduleName == other.moduleName && state == other.state &&
           flags == other.flags && destinationPath == other.destinationPath && name == other.name &&
           title == other.title && referrer == other.referrer && requestData == other.requestData &&
           files == other.files && savedFilePath == other.savedFilePath &&
           receivedBody == other.receivedBody && creationTime == other.creationTime &&
           completionTime == other.completionTime && extra == other.extra;
}

QVariantHash AbstractDownloadPersistentInfo::toVariantHash() const {
    // A record read from a newer format keeps claiming it, so that the newer build reading it
    // back knows which of its keys to expect.
    const int version = qMax(FormatVersion, readInt32(extra.value(formatVersionKey), 0));
    QVariantList originatorsList;
    for (const auto& originator : originators)
        originatorsList.append(originator);
    return withExtra(extra, {
                                {formatVersionKey, version},
                                {QStringLiteral("originators"), originatorsList},
                                {QStringLiteral("downloadType"), qint32(downloadType)},
                                {QStringLiteral("downloadSubtype"), downloadSubtype},
                                {QStringLiteral("resourceUrl"), resourceUrl},
                                {QStringLiteral("customData"), customData},
                                {QStringLiteral("supportedOptions"), writeUInt64(supportedOptions)},
                                {QStringLiteral("uuid"), writeUuid(uuid)},
                                {QStringLiteral("moduleName"), moduleName},
                                {QStringLiteral("state"), state},
                                {QStringLiteral("flags"), writeUInt64(flags)},
                                {QStringLiteral("destinationPath"), destinationPath},
                                {QStringLiteral("name"), name},
                                {QStringLiteral("title"), title},
                                {QStringLiteral("referrer"), referrer},
                                {QStringLiteral("requestData"), writeBytes(requestData)},
                                {QStringLiteral("files"), filesToList(files)},
                                {QStringLiteral("savedFilePath"), savedFilePath},
                                {QStringLiteral("receivedBody"), receivedBody},
                                {QStringLiteral("creationTime"), writeDateTime(creationTime)},
                                {QStringLiteral("completionTime"), writeDateTime(completionTime)},
                            });
}

AbstractDownloadPersistentInfo
AbstractDownloadPersistentInfo::fromVariantHash(const QVariantHash& hash) {
    AbstractDownloadPersistentInfo info;
    info.originators = readStrings(hash.value(QStringLiteral("originators")));
    info.downloadType =
        AbstractDownloadType(readInt32(hash.value(QStringLiteral("downloadType")), 0));
    info.downloadSubtype = readInt32(hash.value(QStringLiteral("downloadSubtype")), 0);
    info.resourceUrl = readString(hash.value(QStringLiteral("resourceUrl")));
    info.customData = readHash(hash.value(QStringLiteral("customData")));
    info.supportedOptions = readUInt64(hash.value(QStringLiteral("supportedOptions")), 0);
    info.uuid = readUuid(hash.value(QStringLiteral("uuid")));
    info.moduleName = readString(hash.value(QStringLiteral("moduleName")));
    info.state = readInt32(hash.value(QStringLiteral("state")), NotFinished);
    info.flags = readUInt64(hash.value(QStringLiteral("flags")), 0);
    info.destinationPath = readString(hash.value(QStringLiteral("destinationPath")));
    info.name = readString(hash.value(QStringLiteral("name")));
    info.title = readString(hash.value(QStringLiteral("title")));
    info.referrer = readString(hash.value(QStringLiteral("referrer")));
    info.requestData = readBytes(hash.value(QStringLiteral("requestData")));
    info.files = filesFromList(readList(hash.value(QStringLiteral("files"))));
    info.savedFilePath = readString(hash.value(QStringLiteral("savedFilePath")));
    info.receivedBody = readString(hash.value(QStringLiteral("receivedBody")));
    info.creationTime = readDateTime(hash.value(QStringLiteral("creationTime")));
    info.completionTime = readDateTime(hash.value(QStringLiteral("completionTime")));
    info.extra = unknownKeys(hash, {"formatVersion",
                                    "originators",
                                    "downloadType",
                                    "downloadSubtype",
                                    "resourceUrl",
                                    "customData",
                                    "supportedOptions",
                                    "uuid",
                                    "moduleName",
                                    "state",
                                    "flags",
                                    "destinationPath",
                                    "name",
                                    "title",
                                    "referrer",
                                    "requestData",
                                    "files",
                                    "savedFilePath",
                                    "receivedBody",
                                    "creationTime",
                                    "completionTime"});
    if (readInt32(hash.value(formatVersionKey), 0) > FormatVersion)
        info.extra.insert(formatVersionKey, hash.value(formatVersionKey));
    return info;
}

QByteArray AbstractDownloadPersistentInfo::toJson() const {
    QByteArray json;
    terncl::record::appendJsonText(json, QVariant(toVariantHash()));
    return json;
}

AbstractDownloadPersistentInfo AbstractDownloadPersistentInfo::fromJson(const QByteArray& json,
                                                                        bool* ok) {
    QJsonParseError error;
    const auto document = QJsonDocument::fromJson(json, &error);
    const bool valid = error.error == QJsonParseError::NoError && document.isObject();
    if (ok)
        *ok = valid;
    if (!valid)
        return {};
    return fromVariantHash(terncl::record::fromJson(document.object()).toHash());
}
