#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonValue>
#include <QString>
#include <QUuid>
#include <QVariant>
#include <QVariantHash>
#include <QVariantList>

// Reading and writing the fields of stored records. Readers never fail: a value of the wrong
// type, or out of range, gives the caller's default, so that a damaged record loads as far as
// it can. Writers produce values that survive a trip through JSON unchanged.
namespace terncl::record {

QString readString(const QVariant& value, const QString& fallback = {});
qint64 readInt64(const QVariant& value, qint64 fallback);
qint32 readInt32(const QVariant& value, qint32 fallback);
// Accepts the qint64 of the same bits (how writeUInt64 stores it), an unsigned number, a
// decimal text.
quint64 readUInt64(const QVariant& value, quint64 fallback);
QDateTime readDateTime(const QVariant& value);
QUuid readUuid(const QVariant& value);
QByteArray readBytes(const QVariant& value);
// A list or a map of either kind; anything else is empty.
QVariantList readList(const QVariant& value);
QVariantHash readHash(const QVariant& value);
QList<QString> readStrings(const QVariant& value);

QVariant writeUInt64(quint64 value);
QVariant writeDateTime(const QDateTime& value);
QVariant writeUuid(const QUuid& value);
QVariant writeBytes(const QByteArray& value);

// Copies extra and then sets the known keys over it, so that keys of newer builds survive.
QVariantHash withExtra(const QVariantHash& extra, const QVariantHash& known);
// The keys of hash that are not in known.
QVariantHash unknownKeys(const QVariantHash& hash, std::initializer_list<const char*> known);

// A variant tree as JSON, with unsigned 64-bit numbers kept as the qint64 of the same bits
// (JSON numbers would round them).
QJsonValue toJson(const QVariant& value);
// The same tree as compact JSON text, written straight from the variants: records are saved
// many times a second while a download runs, and building a QJsonObject first costs about as
// much again. Keys come out sorted; the text parses to what toJson() gives.
void appendJsonText(QByteArray& out, const QVariant& value);
// Objects become QVariantHash, arrays QVariantList, null an invalid QVariant.
QVariant fromJson(const QJsonValue& value);

} // namespace terncl::record
