#include "abstractdownloadresourceversionselector.h"

#include <terncl/core/sourceplace.h>

#include <QCoreApplication>

#include <algorithm>
#include <tuple>

using Selector = AbstractDownloadResourceVersionSelector;

namespace {
const QString typeKey = QStringLiteral("type");
const QString contentTypeKey = QStringLiteral("contentType");
const QString formatKey = QStringLiteral("format");
const QString widthKey = QStringLiteral("width");
const QString heightKey = QStringLiteral("height");
const QString bitrateKey = QStringLiteral("bitrate");
const QString fpsKey = QStringLiteral("fps");
const QString durationKey = QStringLiteral("duration");
const QString languageKey = QStringLiteral("language");

// Place of a version's container format in the preference order; formats that are not listed
// share the last place. Webm is judged by what it holds: with video it is a good choice, audio
// alone is a late one.
int formatRank(const Selector::MediaDescription& media) {
    if (media.format == QLatin1String("mp4"))
        return 0;
    if (media.format == QLatin1String("webm") && media.type != Selector::AudioOnly)
        return 1;
    if (media.format == QLatin1String("3gp"))
        return 2;
    if (media.format == QLatin1String("flv"))
        return 3;
    if (media.format == QLatin1String("m4a"))
        return 4;
    if (media.format == QLatin1String("webm"))
        return 5;
    return 6;
}

// The preference order as one lexicographic key, so that std::sort gets a strict weak order.
// Comparing the format ranks even when two versions share the format matters only for two webm
// versions of which one is audio-only and the other is not of type VideoWithAudio: the
// audio-only one comes last here too, where judging them by height alone would make the order
// cyclic against versions of other formats ranked between the two webm kinds.
auto preferenceKey(const Selector::CompositeVersion& version) {
    const auto& media = version.media;
    return std::make_tuple(formatRank(media), media.type != Selector::VideoWithAudio,
                           -qint64(media.height), version.parts.size());
}

// How well a version fits the wanted file type: 0 best, 2 only as a last resort.
int fileTypeMismatch(AbstractFileType fileType, int mediaType) {
    switch (fileType) {
    case AbstractFileType::Video:
        return mediaType == Selector::VideoWithAudio ? 0 : mediaType == Selector::VideoOnly ? 1 : 2;
    case AbstractFileType::Audio:
        return mediaType == Selector::AudioOnly ? 0 : mediaType == Selector::VideoWithAudio ? 1 : 2;
    default:
        return 0;
    }
}

// 0 within the limit (or without one); otherwise the height, so the lowest one above wins.
int heightExcess(int height, int maxHeight) {
    return maxHeight <= 0 || height <= maxHeight ? 0 : height;
}

QString primaryLanguage(const QString& language) {
    return language.section(QLatin1Char('-'), 0, 0).section(QLatin1Char('_'), 0, 0);
}

int languageMismatch(const QString& language, const QString& wanted) {
    if (wanted.isEmpty() || language.compare(wanted, Qt::CaseInsensitive) == 0)
        return 0;
    if (primaryLanguage(language).compare(primaryLanguage(wanted), Qt::CaseInsensitive) == 0)
        return 1;
    return language.isEmpty() ? 2 : 3;
}

int formatMismatch(const QString& format, const QString& wanted) {
    return wanted.isEmpty() || format.compare(wanted, Qt::CaseInsensitive) == 0 ? 0 : 1;
}
} // namespace

bool Selector::MediaDescription::operator==(const MediaDescription& other) const {
    return type == other.type && bitrate == other.bitrate && fps == other.fps &&
           duration == other.duration && height == other.height && width == other.width &&
           contentType == other.contentType && format == other.format && language == other.language;
}

Selector::MediaDescription Selector::MediaDescription::fromVariantHash(const QVariantHash& hash) {
    MediaDescription media;
    media.type = hash.value(typeKey, media.type).toInt();
    media.contentType = hash.value(contentTypeKey).toString();
    media.format = hash.value(formatKey).toString();
    media.width = hash.value(widthKey, media.width).toInt();
    media.height = hash.value(heightKey, media.height).toInt();
    media.bitrate = hash.value(bitrateKey, media.bitrate).toInt();
    media.fps = hash.value(fpsKey, media.fps).toInt();
    media.duration = hash.value(durationKey, media.duration).toInt();
    media.language = hash.value(languageKey).toString();
    return media;
}

QVariantHash Selector::MediaDescription::toVariantHash() const {
    return {{typeKey, type},   {contentTypeKey, contentType}, {formatKey, format},
            {widthKey, width}, {heightKey, height},           {bitrateKey, bitrate},
            {fpsKey, fps},     {durationKey, duration},       {languageKey, language}};
}

qint64 Selector::CompositeVersion::totalSize() const {
    if (parts.isEmpty())
        return size;
    qint64 total = 0;
    for (const auto& part : parts) {
        if (part.size == -1)
            return -1;
        total += part.size;
    }
    return total;
}

Selector::AbstractDownloadResourceVersionSelector(QObject* parent)
    : QObject(parent) {}

Selector::~AbstractDownloadResourceVersionSelector() = default;

QList<Selector::CompositeVersion> Selector::resourceVersions() const {
    return m_versions;
}

QDateTime Selector::date() const {
    return m_date;
}

int Selector::selectedVersion() const {
    return m_selectedVersion;
}

void Selector::setSelectedVersion(int index) {
    if (index == m_selectedVersion || index < 0 || index >= resourceVersions().size())
        return;
    m_selectedVersion = index;
    Q_EMIT selectedVersionChanged();
}

bool Selector::containsCompositeVersions() const {
    const auto versions = resourceVersions();
    return std::any_of(versions.cbegin(), versions.cend(),
                       [](const CompositeVersion& version) { return !version.parts.isEmpty(); });
}

void Selector::removeDashVersions() {
    for (auto i = m_versions.size() - 1; i >= 0; --i) {
        if (m_versions.at(i).isDash())
            m_versions.removeAt(i);
    }
}

void Selector::sort(bool removeDuplicates) {
    std::sort(m_versions.begin(), m_versions.end(),
              [](const CompositeVersion& a, const CompositeVersion& b) {
                  return preferenceKey(a) < preferenceKey(b);
              });
    if (!removeDuplicates)
        return;
    for (auto i = m_versions.size() - 1; i >= 1; --i) {
        if (m_versions.at(i).media == m_versions.at(i - 1).media)
            m_versions.removeAt(i);
    }
}

int Selector::defaultVersionIndex(AbstractFileType fileType, int maxHeight, const QString& format,
                                  const QString& language) const {
    const auto versions = resourceVersions();
    const auto fit = [&](const CompositeVersion& version) {
        const auto& media = version.media;
        return std::make_tuple(
            fileTypeMismatch(fileType, media.type), heightExcess(media.height, maxHeight),
            languageMismatch(media.language, language), formatMismatch(media.format, format));
    };
    int best = -1;
    for (int i = 0; i < versions.size(); ++i) {
        if (best == -1 || fit(versions.at(i)) < fit(versions.at(best)))
            best = i;
    }
    return best;
}

void Selector::setResourceVersions(const QList<CompositeVersion>& versions) {
    m_versions = versions;
}

void Selector::setDate(const QDateTime& date) {
    m_date = date;
}

void Selector::updateResourceSize(int version, int part, qint64 size) {
    const bool validVersion = version >= 0 && version < m_versions.size();
    TERNCL_ASSERT(validVersion);
    if (!validVersion)
        return;
    auto& target = m_versions[version];
    if (part == -1) {
        target.size = size;
        return;
    }
    const bool validPart = part >= 0 && part < target.parts.size();
    TERNCL_ASSERT(validPart);
    if (validPart)
        target.parts[part].size = size;
}

namespace {
// The version types travel in QVariant values and may be queued by name.
void registerResourceVersionMetaTypes() {
    qRegisterMetaType<Selector::MediaDescription>(
        "AbstractDownloadResourceVersionSelector::MediaDescription");
    qRegisterMetaType<Selector::Version>("AbstractDownloadResourceVersionSelector::Version");
    qRegisterMetaType<Selector::CompositeVersion>(
        "AbstractDownloadResourceVersionSelector::CompositeVersion");
}
} // namespace

Q_COREAPP_STARTUP_FUNCTION(registerResourceVersionMetaTypes)
