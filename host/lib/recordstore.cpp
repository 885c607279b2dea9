#include "recordstore.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

namespace {
const QString kRecord = QStringLiteral("record");
const QString kHost = QStringLiteral("host");
} // namespace

RecordStore::RecordStore(QString folder)
    : m_folder(std::move(folder)) {}

QString RecordStore::pathFor(const QString& key) const {
    const QByteArray digest = QCryptographicHash::hash(key.toUtf8(), QCryptographicHash::Sha1);
    return QDir(m_folder).filePath(QString::fromLatin1(digest.toHex()) + QStringLiteral(".json"));
}

bool RecordStore::save(const QString& key, const Entry& entry, QString* error) const {
    if (!QDir().mkpath(m_folder)) {
        *error = QStringLiteral("cannot create the state folder %1").arg(m_folder);
        return false;
    }
    QJsonObject root;
    root.insert(kRecord, QJsonDocument::fromJson(entry.record.toJson()).object());
    root.insert(kHost, QJsonObject::fromVariantHash(entry.host));
    // A temporary file renamed over the old one: rename is atomic, so a reader (or the next run
    // after a crash) sees the old record or the new one. No fsync: the record must survive the
    // process, not a power cut, and syncing on every change would cost more than the download.
    const QString path = pathFor(key);
    QFile temporary(path + QStringLiteral(".tmp"));
    const QByteArray json = QJsonDocument(root).toJson(QJsonDocument::Compact);
    const bool written = temporary.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
                         temporary.write(json) == json.size() && temporary.flush();
    temporary.close();
    if (!written || std::rename(QFile::encodeName(temporary.fileName()).constData(),
                                QFile::encodeName(path).constData()) != 0) {
        *error = QStringLiteral("cannot save %1: %2").arg(path, temporary.errorString());
        temporary.remove();
        return false;
    }
    return true;
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
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (!document.isObject() || !document.object().value(kRecord).isObject()) {
        *error = QStringLiteral("%1 is not a saved download: %2")
                     .arg(file.fileName(), parseError.errorString());
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
    return QFile::remove(pathFor(key));
}
