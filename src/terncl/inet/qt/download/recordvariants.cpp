#include "recordvariants_p.h"

#include <QJsonArray>
#include <QJsonObject>

#include <QLocale>

#include <algorithm>
#include <cmath>
#include <limits>

namespace terncl::record {

namespace {
bool isNumber(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Long:
    case QMetaType::ULong:
        return true;
    default:
        return false;
    }
}

bool isFloating(const QVariant& value) {
    return value.typeId() == QMetaType::Double || value.typeId() == QMetaType::Float;
}

// A floating value that is whole and inside [low, high].
bool wholeWithin(double value, double low, double high) {
    return std::isfinite(value) && value >= low && value < high && std::trunc(value) == value;
}
} // namespace

QString readString(const QVariant& value, const QString& fallback) {
    if (value.typeId() == QMetaType::QString)
        return value.toString();
    if (value.typeId() == QMetaType::QByteArray)
        return QString::fromUtf8(value.toByteArray());
    if (isNumber(value) || value.typeId() == QMetaType::Bool)
        return value.toString();
    return fallback;
}

qint64 readInt64(const QVariant& value, qint64 fallback) {
    if (isFloating(value)) {
        const double number = value.toDouble();
        return wholeWithin(number, -9223372036854775808.0, 9223372036854775808.0) ? qint64(number)
                                                                                  : fallback;
    }
    if (value.typeId() == QMetaType::ULongLong) {
        const auto number = value.toULongLong();
        return number <= quint64(std::numeric_limits<qint64>::max()) ? qint64(number) : fallback;
    }
    if (!isNumber(value) && value.typeId() != QMetaType::QString)
        return fallback;
    bool ok = false;
    const auto number = value.toLongLong(&ok);
    return ok ? number : fallback;
}

qint32 readInt32(const QVariant& value, qint32 fallback) {
    const auto number = readInt64(value, fallback);
    if (number < std::numeric_limits<qint32>::min() || number > std::numeric_limits<qint32>::max())
        return fallback;
    return qint32(number);
}

quint64 readUInt64(const QVariant& value, quint64 fallback) {
    if (value.typeId() == QMetaType::ULongLong)
        return value.toULongLong();
    if (isFloating(value)) {
        const double number = value.toDouble();
        return wholeWithin(number, 0.0, 18446744073709551616.0) ? quint64(number) : fallback;
    }
    if (value.typeId() == QMetaType::QString) {
        bool ok = false;
        const auto text = value.toString();
        const auto unsignedNumber = text.toULongLong(&ok);
        if (ok)
            return unsignedNumber;
        const auto signedNumber = text.toLongLong(&ok);
        return ok ? quint64(signedNumber) : fallback;
    }
    if (!isNumber(value))
        return fallback;
    bool ok = false;
    const auto number = value.toLongLong(&ok);
    return ok ? quint64(number) : fallback;
}

QDateTime readDateTime(const QVariant& value) {
    if (value.typeId() == QMetaType::QDateTime)
        return value.toDateTime();
    if (value.typeId() == QMetaType::QString)
        return QDateTime::fromString(value.toString(), Qt::ISODateWithMs);
    return {};
}

QUuid readUuid(const QVariant& value) {
    if (value.typeId() == QMetaType::QUuid)
        return value.toUuid();
    if (value.typeId() == QMetaType::QString)
        return QUuid::fromString(value.toString());
    return {};
}

QByteArray readBytes(const QVariant& value) {
    if (value.typeId() == QMetaType::QByteArray)
        return value.toByteArray();
    if (value.typeId() != QMetaType::QString)
        return {};
    auto decoded = QByteArray::fromBase64Encoding(value.toString().toLatin1(),
                                                  QByteArray::AbortOnBase64DecodingErrors);
    return decoded ? *decoded : QByteArray();
}

QVariantList readList(const QVariant& value) {
    if (value.typeId() == QMetaType::QVariantList || value.typeId() == QMetaType::QStringList)
        return value.toList();
    return {};
}

QVariantHash readHash(const QVariant& value) {
    if (value.typeId() == QMetaType::QVariantHash)
        return value.toHash();
    if (value.typeId() != QMetaType::QVariantMap)
        return {};
    const auto map = value.toMap();
    QVariantHash hash;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        hash.insert(it.key(), it.value());
    return hash;
}

QList<QString> readStrings(const QVariant& value) {
    QList<QString> strings;
    for (const auto& item : readList(value)) {
        if (item.typeId() == QMetaType::QString)
            strings.append(item.toString());
    }
    return strings;
}

QVariant writeUInt64(quint64 value) {
    return QVariant::fromValue(qint64(value));
}

QVariant writeDateTime(const QDateTime& value) {
    return value.isValid() ? value.toString(Qt::ISODateWithMs) : QString();
}

QVariant writeUuid(const QUuid& value) {
    return value.isNull() ? QString() : value.toString(QUuid::WithoutBraces);
}

QVariant writeBytes(const QByteArray& value) {
    return QString::fromLatin1(value.toBase64());
}

QVariantHash withExtra(const QVariantHash& extra, const QVariantHash& known) {
    QVariantHash result = extra;
    for (auto it = known.cbegin(); it != known.cend(); ++it)
        result.insert(it.key(), it.value());
    return result;
}

QVariantHash unknownKeys(const QVariantHash& hash, std::initializer_list<const char*> known) {
    QVariantHash result = hash;
    for (const char* key : known)
        result.remove(QString::fromLatin1(key));
    return result;
}

QJsonValue toJson(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::ULongLong:
        return QJsonValue(qint64(value.toULongLong()));
    case QMetaType::QVariantHash:
    case QMetaType::QVariantMap: {
        const auto hash = readHash(value);
        QJsonObject object;
        for (auto it = hash.cbegin(); it != hash.cend(); ++it)
            object.insert(it.key(), toJson(it.value()));
        return object;
    }
    case QMetaType::QVariantList: {
        QJsonArray array;
        for (const auto& item : value.toList())
            array.append(toJson(item));
        return array;
    }
    default:
        return QJsonValue::fromVariant(value);
    }
}

namespace {
void appendJsonString(QByteArray& out, const QString& text) {
    static const char hex[] = "0123456789abcdef";
    const QByteArray utf8 = text.toUtf8();
    out.reserve(out.size() + utf8.size() + 2);
    out.append('"');
    for (const char c : utf8) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out.append('\\').append(c);
        } else if (byte < 0x20) {
            out.append("\\u00").append(hex[byte >> 4]).append(hex[byte & 0xf]);
        } else {
            out.append(c);
        }
    }
    out.append('"');
}

void appendJsonDouble(QByteArray& out, double value) {
    if (!std::isfinite(value)) {
        out.append("null"); // what QJsonDocument writes for them too
        return;
    }
    out.append(QByteArray::number(value, 'g', QLocale::FloatingPointShortest));
}

void appendJsonObject(QByteArray& out, const QVariantHash& hash) {
    QList<QString> keys = hash.keys();
    std::sort(keys.begin(), keys.end());
    out.append('{');
    for (qsizetype i = 0; i < keys.size(); ++i) {
        if (i > 0)
            out.append(',');
        appendJsonString(out, keys.at(i));
        out.append(':');
        appendJsonText(out, hash.value(keys.at(i)));
    }
    out.append('}');
}

// Types without a shortcut take the general conversion, then the same writer.
void appendJsonValue(QByteArray& out, const QJsonValue& value) {
    switch (value.type()) {
    case QJsonValue::Bool:
        out.append(value.toBool() ? "true" : "false");
        return;
    case QJsonValue::Double:
        if (value.toVariant().typeId() == QMetaType::LongLong)
            out.append(QByteArray::number(value.toInteger()));
        else
            appendJsonDouble(out, value.toDouble());
        return;
    case QJsonValue::String:
        appendJsonString(out, value.toString());
        return;
    case QJsonValue::Array:
    case QJsonValue::Object:
        appendJsonText(out, fromJson(value));
        return;
    default:
        out.append("null");
    }
}
} // namespace

void appendJsonText(QByteArray& out, const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::UnknownType:
    case QMetaType::Nullptr:
        out.append("null");
        return;
    case QMetaType::Bool:
        out.append(value.toBool() ? "true" : "false");
        return;
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Long:
        out.append(QByteArray::number(value.toLongLong()));
        return;
    case QMetaType::ULongLong:
    case QMetaType::ULong:
        out.append(QByteArray::number(qint64(value.toULongLong())));
        return;
    case QMetaType::Double:
    case QMetaType::Float:
        appendJsonDouble(out, value.toDouble());
        return;
    case QMetaType::QString:
        appendJsonString(out, value.toString());
        return;
    case QMetaType::QVariantHash:
    case QMetaType::QVariantMap:
        appendJsonObject(out, readHash(value));
        return;
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        const QVariantList list = value.toList();
        out.append('[');
        for (qsizetype i = 0; i < list.size(); ++i) {
            if (i > 0)
                out.append(',');
            appendJsonText(out, list.at(i));
        }
        out.append(']');
        return;
    }
    default:
        appendJsonValue(out, QJsonValue::fromVariant(value));
    }
}

QVariant fromJson(const QJsonValue& value) {
    switch (value.type()) {
    case QJsonValue::Object: {
        const auto object = value.toObject();
        QVariantHash hash;
        for (auto it = object.constBegin(); it != object.constEnd(); ++it)
            hash.insert(it.key(), fromJson(it.value()));
        return hash;
    }
    case QJsonValue::Array: {
        QVariantList list;
        for (const auto& item : value.toArray())
            list.append(fromJson(item));
        return list;
    }
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        return {};
    default:
        return value.toVariant();
    }
}

} // namespace terncl::record
