#include "formatstable.h"

#include "mediaversions.h"
#include "ratetext.h"

#include <QStringList>

#include <algorithm>

namespace {
using Selector = AbstractDownloadResourceVersionSelector;

QString kindText(int type) {
    switch (type) {
    case Selector::VideoWithAudio:
        return QStringLiteral("video+audio");
    case Selector::VideoOnly:
        return QStringLiteral("video only");
    case Selector::AudioOnly:
        return QStringLiteral("audio only");
    default:
        return QStringLiteral("?");
    }
}

QString orDash(const QString& text) {
    return text.isEmpty() ? QStringLiteral("-") : text;
}

QString formatText(const Selector::CompositeVersion& version) {
    QString container = version.media.format;
    if (version.parts.size() == 2 && !version.parts.at(1).media.format.isEmpty() &&
        version.parts.at(1).media.format != container)
        container += u'+' + version.parts.at(1).media.format;
    const QStringList codecs = MediaVersions::codecs(version);
    return orDash(codecs.isEmpty()
                      ? container
                      : QStringLiteral("%1 %2").arg(orDash(container), codecs.join(u',')));
}

QString sizeText(const Selector::CompositeVersion& version) {
    const MediaVersions::Size size = MediaVersions::sizeOf(version);
    if (size.bytes < 0)
        return QStringLiteral("-");
    return (size.estimated ? QStringLiteral("~") : QString()) + RateText::bytes(size.bytes);
}

QString resolutionText(const Selector::MediaDescription& media) {
    return media.width > 0 && media.height > 0
               ? QStringLiteral("%1x%2").arg(media.width).arg(media.height)
               : QStringLiteral("-");
}

QJsonValue orNull(const QString& text) {
    return text == QLatin1String("-") || text.isEmpty() ? QJsonValue() : QJsonValue(text);
}

QJsonValue orNull(qint64 value) {
    return value > 0 ? QJsonValue(value) : QJsonValue();
}

QStringList row(const Selector::CompositeVersion& version) {
    const auto& media = version.media;
    return {MediaVersions::id(version),
            kindText(media.type),
            formatText(version),
            resolutionText(media),
            media.fps > 0 ? QString::number(media.fps) : QStringLiteral("-"),
            media.bitrate > 0 ? QStringLiteral("%1k").arg(qRound(media.bitrate / 1000.0))
                              : QStringLiteral("-"),
            orDash(media.language),
            sizeText(version)};
}
} // namespace

QJsonObject FormatsTable::json(const Selector::CompositeVersion& version) {
    const auto& media = version.media;
    const MediaVersions::Size size = MediaVersions::sizeOf(version);
    return {{QStringLiteral("type"), QStringLiteral("format")},
            {QStringLiteral("id"), MediaVersions::id(version)},
            {QStringLiteral("kind"), kindText(media.type)},
            {QStringLiteral("format"), orNull(formatText(version))},
            {QStringLiteral("resolution"), orNull(resolutionText(media))},
            {QStringLiteral("fps"), orNull(media.fps)},
            {QStringLiteral("bitrate"), orNull(media.bitrate)},
            {QStringLiteral("lang"), orNull(media.language)},
            {QStringLiteral("size"), size.bytes < 0 ? QJsonValue() : QJsonValue(size.bytes)},
            {QStringLiteral("sizeEstimated"), size.bytes >= 0 && size.estimated}};
}

QString FormatsTable::text(const QList<Selector::CompositeVersion>& versions) {
    QList<QStringList> rows = {{QStringLiteral("ID"), QStringLiteral("KIND"),
                                QStringLiteral("FORMAT"), QStringLiteral("RESOLUTION"),
                                QStringLiteral("FPS"), QStringLiteral("BITRATE"),
                                QStringLiteral("LANG"), QStringLiteral("SIZE")}};
    for (const auto& version : versions)
        rows.append(row(version));
    QList<int> widths(rows.constFirst().size(), 0);
    for (const auto& cells : std::as_const(rows)) {
        for (int c = 0; c < cells.size(); ++c)
            widths[c] = std::max(widths.at(c), int(cells.at(c).size()));
    }
    QString text;
    for (const auto& cells : std::as_const(rows)) {
        QString line;
        for (int c = 0; c < cells.size(); ++c)
            line += cells.at(c).leftJustified(widths.at(c) + 2);
        text += line.trimmed() + u'\n';
    }
    return text;
}
