#include "recordstore.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace {
const QString kRecord = QStringLiteral("record");
const QString kHost = QStringLiteral("host");

// Writes data over the file's old content and cuts off the rest: the file keeps its inode and
// its block, so saving many times a second costs the file system little more than the write.
bool overwrite(const QString& path, const QByteArray& data, QString* error) {
    QFile file(path);
    if (file.open(QIODevice::ReadWrite) && file.write(data) == data.size() &&
        file.resize(data.size()) && file.flush())
        return true;
    *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
    return false;
}

// Puts the temporary file in the record's place atomically, so a reader (or the next run after a
// crash) sees the old record or the new one, never a mix. Where the file system can, the two are
// exchanged and the old record becomes the next temporary file. There is no fsync: the record must
// survive the process, not a power cut, and syncing on every change costs more than the download.
bool replace(const QByteArray& temporary, const QByteArray& path) {
#ifdef __linux__
    if (::renameat2(AT_FDCWD, temporary.constData(), AT_FDCWD, path.constData(), RENAME_EXCHANGE) ==
        0)
        return true;
    if (errno != ENOENT && errno != EINVAL && errno != ENOSYS)
        return false;
#endif
    return std::rename(temporary.constData(), path.constData()) == 0;
}
} // namespace

RecordStore::RecordStore(QString folder)
    : m_folder(std::move(folder)) {}

QString RecordStore::pathFor(const QString& key) const {
    const QByteArray digest = QCryptographicHash::hash(key.toUtf8(), QCryptographicHash::Sha1);
    return QDir(m_folder).filePath(QString::fromLatin1(digest.toHex()) + QStringLiteral(".json"));
}

// Saves come several times a second while a stream downloads, so the folder is made once and
// only made again when a write finds it gone.
bool RecordStore::save(const QString& key, const Entry& entry, QString* error) const {
    if (!m_folderMade && !makeFolder(error))
        return false;
    // Both parts are compact JSON objects already: joining the texts spares a parse and a second
    // serialisation of the record.
    const QByteArray json =
        "{\"" + kHost.toLatin1() + "\":" +
        QJsonDocument(QJsonObject::fromVariantHash(entry.host)).toJson(QJsonDocument::Compact) +
        ",\"" + kRecord.toLatin1() + "\":" + entry.record.toJson() + '}';
    const QString path = pathFor(key);
    const QString temporary = path + QStringLiteral(".tmp");
    if (!overwrite(temporary, json, error) &&
        (QDir(m_folder).exists() || !makeFolder(error) || !overwrite(temporary, json, error)))
        return false;
    if (!replace(QFile::encodeName(temporary), QFile::encodeName(path))) {
        *error = QStringLiteral("cannot save %1: %2")
                     .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    return true;
}

bool RecordStore::makeFolder(QString* error) const {
    m_folderMade = QDir().mkpath(m_folder);
    if (!m_folderMade)
        *error = QStringLiteral("cannot create the state folder %1").arg(m_folder);
    return m_folderMade;
}

std::optional<RecordStore::Entry> RecordStore::load(const QString& key, QString* error) const {
    error->clear();
    QFile file(pathFor(key));
    if (!file.exists())
        return std::nullopt;
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(file.fileName(), file.errorString());
        return std::nullopt;
    }
    auto entry = parse(file.readAll(), error);
    if (!entry)
        *error = QStringLiteral("%1 is not a saved download: %2").arg(file.fileName(), *error);
    return entry;
}

std::optional<RecordStore::Entry> RecordStore::parse(const QByteArray& json, QString* error) {
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (!document.isObject() || !document.object().value(kRecord).isObject()) {
        *error = parseError.errorString();
        return std::nullopt;
    }
    Entry entry;
    const QJsonObject root = document.object();
    entry.record = AbstractDownloadPersistentInfo::fromJson(
        QJsonDocument(root.value(kRecord).toObject()).toJson(QJsonDocument::Compact));
    entry.host = root.value(kHost).toObject().toVariantHash();
    return entry;
}

bool RecordStore::remove(const QString& key) const {
    QFile::remove(pathFor(key) + QStringLiteral(".tmp"));
    return QFile::remove(pathFor(key));
}

QString RecordStore::setAside(const QString& key, QString* error) const {
    const QString path = pathFor(key);
    const QString aside =
        path + QStringLiteral(".rejected-") +
        QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmsszzz'Z'"));
    if (std::rename(QFile::encodeName(path).constData(), QFile::encodeName(aside).constData()) !=
        0) {
        *error = QStringLiteral("cannot rename %1: %2")
                     .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        return {};
    }
    return aside;
}
