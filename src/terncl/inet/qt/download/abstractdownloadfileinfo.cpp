#include "abstractdownloadfileinfo.h"

#include "recordvariants_p.h"

using namespace terncl::record;

namespace {
// Section fields are spelled so in every stored file record.
const QString offsetKey = QStringLiteral("offset");
const QString sizeKey = QStringLiteral("size");
const QString doneKey = QStringLiteral("done");

QVariantHash sectionToHash(const AbstractDownloadFileSection& section) {
    return {{offsetKey, section.offset}, {sizeKey, section.size}, {doneKey, section.done}};
}

AbstractDownloadFileSection sectionFromHash(const QVariantHash& hash) {
    AbstractDownloadFileSection section;
    section.offset = qMax<qint64>(0, readInt64(hash.value(offsetKey), 0));
    section.size = qMax<qint64>(-1, readInt64(hash.value(sizeKey), -1));
    section.done = qMax<qint64>(0, readInt64(hash.value(doneKey), 0));
    return section;
}
} // namespace

qint64 AbstractDownloadFileInfo::downloadedBytes() const {
    qint64 total = 0;
    for (const auto& section : sections)
        total += section.done;
    return total;
}

bool AbstractDownloadFileInfo::isComplete() const {
    return size >= 0 && downloadedBytes() == size;
}

bool AbstractDownloadFileInfo::hasSameDescription(const AbstractDownloadFileInfo& other) const {
    return name == other.name && contentType == other.contentType &&
           lastModified == other.lastModified && fileType == other.fileType;
}

bool AbstractDownloadFileInfo::assignDescription(const AbstractDownloadFileInfo& other) {
    if (hasSameDescription(other))
        return false;
    name = other.name;
    contentType = other.contentType;
    lastModified = other.lastModified;
    fileType = other.fileType;
    return true;
}

bool AbstractDownloadFileInfo::operator==(const AbstractDownloadFileInfo& other) const {
    return hasSameDescription(other) && size == other.size && sections == other.sections &&
           priority == other.priority && writeOffset == other.writeOffset &&
           tmpPath == other.tmpPath && flags == other.flags &&
           resumeSupport == other.resumeSupport && extra == other.extra;
}

QVariantHash AbstractDownloadFileInfo::toVariantHash() const {
    QVariantList sectionsList;
    sectionsList.reserve(sections.size());
    for (const auto& section : sections)
        sectionsList.append(sectionToHash(section));
    return withExtra(extra, {
                                {QStringLiteral("name"), name},
                                {QStringLiteral("contentType"), contentType},
                                {QStringLiteral("lastModified"), writeDateTime(lastModified)},
                                {QStringLiteral("fileType"), qint32(fileType)},
                                {QStringLiteral("size"), size},
                                {QStringLiteral("sections"), sectionsList},
                                {QStringLiteral("priority"), priority},
                                {QStringLiteral("writeOffset"), writeOffset},
                                {QStringLiteral("tmpPath"), tmpPath},
                                {QStringLiteral("flags"), writeUInt64(flags)},
                                {QStringLiteral("resumeSupport"), resumeSupport},
                            });
}

AbstractDownloadFileInfo AbstractDownloadFileInfo::fromVariantHash(const QVariantHash& hash) {
    AbstractDownloadFileInfo file;
    file.name = readString(hash.value(QStringLiteral("name")));
    file.contentType = readString(hash.value(QStringLiteral("contentType")));
    file.lastModified = readDateTime(hash.value(QStringLiteral("lastModified")));
    file.fileType = AbstractFileType(readInt32(hash.value(QStringLiteral("fileType")), 0));
    file.size = qMax<qint64>(-1, readInt64(hash.value(QStringLiteral("size")), -1));
    for (const auto& item : readList(hash.value(QStringLiteral("sections")))) {
        const auto section = readHash(item);
        if (!section.isEmpty())
            file.sections.append(sectionFromHash(section));
    }
    file.priority = readInt32(hash.value(QStringLiteral("priority")), NormalPriority);
    file.writeOffset = qMax<qint64>(0, readInt64(hash.value(QStringLiteral("writeOffset")), 0));
    file.tmpPath = readString(hash.value(QStringLiteral("tmpPath")));
    file.flags = readUInt64(hash.value(QStringLiteral("flags")), 0);
    file.resumeSupport = readInt32(hash.value(QStringLiteral("resumeSupport")), ResumeUnknown);
    file.extra =
        unknownKeys(hash, {"name", "contentType", "lastModified", "fileType", "size", "sections",
                           "priority", "writeOffset", "tmpPath", "flags", "resumeSupport"});
    return file;
}
