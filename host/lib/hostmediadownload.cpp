#include "hostmediadownload.h"

#include <terncl/core/sourceplace.h>
#include <terncl/fs/qt/utils/filenamerules.h>

#include <QDir>

const QString HostMediaDownload::ModuleName = QStringLiteral("media");
const QString HostMediaDownload::AudioLanguageKey = QStringLiteral("audioLanguage");

HostMediaDownload::HostMediaDownload(qint64 id,
                                     QWeakPointer<AbstractDownloadsSimpleFactory> factory,
                                     const QWeakPointer<QtFfmpegAvMerger>& avMerger,
                                     CurlMulti* network, QObject* parent)
    : AbstractMediaDownload(id, ModuleName, std::move(factory), avMerger, parent)
    , m_network(network) {}

HostMediaDownload::~HostMediaDownload() {
    abortParse();
}

QString HostMediaDownload::mergeFormatFor(const CompositeVersion& version) {
    const QStringList codecs = MediaVersions::codecs(version);
    const bool mp4Cannot = std::any_of(codecs.cbegin(), codecs.cend(), [](const QString& codec) {
        const QString lower = codec.toLower();
        return lower.startsWith(QLatin1String("vp8")) || lower.startsWith(QLatin1String("vorbis"));
    });
    const bool webm =
        std::any_of(version.parts.cbegin(), version.parts.cend(), [](const Version& p) {
            return p.media.format.compare(QLatin1String("webm"), Qt::CaseInsensitive) == 0;
        });
    return mp4Cannot || webm ? QStringLiteral("mkv") : QStringLiteral("mp4");
}

void HostMediaDownload::parse() {
    abortParse();
    m_probe = new MediaProbe(m_network, this);
    connect(m_probe, &MediaProbe::finished, this, &HostMediaDownload::onProbed);
    MediaVersions::Request request;
    if (!info().referrer.isEmpty())
        request.referrer = QUrl(info().referrer);
    m_probe->start(QUrl(info().resourceUrl), request);
}

void HostMediaDownload::abortParse() {
    if (!m_probe)
        return;
    m_probe->disconnect(this);
    m_probe->abort();
    m_probe->deleteLater();
    m_probe = nullptr;
}

void HostMediaDownload::onProbed(const AbstractError& error) {
    MediaProbe* probe = std::exchange(m_probe, nullptr);
    probe->deleteLater();
    if (error.isSet()) {
        onParseFinished(error, error.category == AbstractError::QtNetworkError);
        return;
    }
    setParseResult(probe->listing().versions, probe->listing().subtitles);
    resourceVersionSelector()->sort(false);
    if (info().name.isEmpty() && !probe->title().isEmpty())
        rwInfo().name = FileNameRules::sanitizedFileName(probe->title(), true, QStringLiteral("_"));
    if (info().title.isEmpty())
        rwInfo().title = probe->title();
    onParseFinished(applyChoice(), false);
}

// The first child made is the whole result or the video to merge into it; either way the result's
// name is final by then.
bool HostMediaDownload::makeChildDownloadDescription(const Version& version, ChildKind kind,
                                                     ChildDownloadDescription& child,
                                                     AbstractError& error) const {
    if (!AbstractMediaDownload::makeChildDownloadDescription(version, kind, child, error))
        return false;
    if (!m_outputGate || (kind != WholeVersion && kind != VideoPart))
        return true;
    const auto& record = kind == WholeVersion ? child.info : info();
    if (!record.hasFiles())
        return true;
    const QString path = QDir(record.destinationPath).filePath(record.files.constFirst().name);
    QString refusal;
    if (m_outputGate(path, &refusal))
        return true;
    error = AbstractError(OutputRefusedCode, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                          refusal.toStdString());
    return false;
}

// The chooser's pick, or the default one; then the merge format the pick needs, where none
// was set.
AbstractError HostMediaDownload::applyChoice() {
    const auto selector = resourceVersionSelector();
    const auto versions = selector->resourceVersions();
    if (versions.isEmpty())
        return {};
    if (m_chooser) {
        const int chosen = m_chooser(versions);
        if (chosen < 0)
            return AbstractError(NoMatchingVersionCode, AbstractError::GenericError,
                                 TERNCL_SOURCE_PLACE, "no version matches the choice");
        selector->setSelectedVersion(chosen);
    } else {
        chooseDefaultResourceVersion();
    }
    const int selected = selector->selectedVersion();
    if (selected >= 0)
        keepAudioLanguage(versions.at(selected));
    if (selected >= 0 && !allOptions().contains(MergeFormatOption) &&
        mergeFormatFor(versions.at(selected)) == QLatin1String("mkv"))
        setOption(MergeFormatOption, QStringLiteral("mkv"));
    return {};
}

// Kept with the record, since a resumed run does not parse again.
void HostMediaDownload::keepAudioLanguage(const CompositeVersion& version) {
    rwInfo().customData.remove(AudioLanguageKey);
    if (version.parts.size() != 2)
        return;
    for (const Version& part : version.parts) {
        if (part.media.type == AbstractDownloadResourceVersionSelector::AudioOnly &&
            !part.media.language.isEmpty())
            rwInfo().customData.insert(AudioLanguageKey, part.media.language);
    }
}
