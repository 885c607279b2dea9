#include "ratetext.h"

#include <QRegularExpression>

namespace RateText {

qint64 parse(const QString& text) {
    static const QRegularExpression re(
        QStringLiteral(R"(^\s*(\d+(?:\.\d+)?)\s*([kKmMgG]?)(?:i?B)?(?:/s)?\s*$)"));
    const auto match = re.match(text);
    if (!match.hasMatch())
        return -1;
    double value = match.captured(1).toDouble();
    const QString unit = match.captured(2).toLower();
    if (unit == QStringLiteral("k"))
        value *= 1024;
    else if (unit == QStringLiteral("m"))
        value *= 1024 * 1024;
    else if (unit == QStringLiteral("g"))
        value *= 1024.0 * 1024 * 1024;
    return value >= 1 ? qint64(value) : -1;
}

QString bytes(qint64 bytes) {
    static const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    double value = double(bytes);
    int unit = 0;
    while (value >= 1024 && unit < 4) {
        value /= 1024;
        ++unit;
    }
    return unit == 0
               ? QStringLiteral("%1 B").arg(bytes)
               : QStringLiteral("%1 %2").arg(value, 0, 'f', 1).arg(QLatin1String(units[unit]));
}

QString duration(qint64 seconds) {
    if (seconds < 0)
        return QStringLiteral("--:--");
    if (seconds >= 3600)
        return QStringLiteral("%1:%2:%3")
            .arg(seconds / 3600)
            .arg(seconds / 60 % 60, 2, 10, QLatin1Char('0'))
            .arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return QStringLiteral("%1:%2")
        .arg(seconds / 60, 2, 10, QLatin1Char('0'))
        .arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

} // namespace RateText
