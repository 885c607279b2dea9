#pragma once

#include "mediaprobe.h"

#include <terncl/inet/qt/download/abstractmediadownload.h>

#include <QPointer>

#include <functional>

class CurlMulti;

// The host's media download: its parse reads the record's URL (an HLS master or media
// playlist, a DASH manifest, or a web page whose playlists and manifests are expanded) with
// MediaProbe, and hands the versions to the library in its preference order. A version chooser,
// when set, picks the version (tern-get's -f); otherwise the library's default choice does.
// Separate video and audio are merged into MKV rather than MP4 when their codecs or containers
// need it (VP8, Vorbis, WebM), unless the merge format was set. Main thread.
class HostMediaDownload final : public AbstractMediaDownload {
    Q_OBJECT

public:
    static const QString ModuleName; // "media"
    // Custom data: the language of the chosen version's separate audio, where the playlist or
    // manifest names one.
    static const QString AudioLanguageKey; // "audioLanguage"
    // Code of the "GenericError" of a parse whose versions the chooser all refused.
    static constexpr int NoMatchingVersionCode = 14;
    // Code of the "GenericError" of a result path that the output gate refused.
    static constexpr int OutputRefusedCode = 15;

    // The index of the version to download, or -1 when none fits.
    using VersionChooser = std::function<int(const QList<CompositeVersion>& versions)>;
    // Asked once the result's path is known, before the first child is made: false, with a text
    // for the user, refuses the path and stops the download before any child fetches a byte.
    using OutputGate = std::function<bool(const QString& resultPath, QString* error)>;

    HostMediaDownload(qint64 id, QWeakPointer<AbstractDownloadsSimpleFactory> factory,
                      const QWeakPointer<QtFfmpegAvMerger>& avMerger, CurlMulti* network,
                      QObject* parent = nullptr);
    ~HostMediaDownload() override;

    void setVersionChooser(VersionChooser chooser) { m_chooser = std::move(chooser); }
    void setOutputGate(OutputGate gate) { m_outputGate = std::move(gate); }
    // The container the merge needs for these codecs and formats: "mkv" or "mp4".
    static QString mergeFormatFor(const CompositeVersion& version);

protected:
    void parse() override;
    void abortParse() override;
    bool makeChildDownloadDescription(const Version& version, ChildKind kind,
                                      ChildDownloadDescription& child,
                                      AbstractError& error) const override;

private:
    void onProbed(const AbstractError& error);
    AbstractError applyChoice();
    void keepAudioLanguage(const CompositeVersion& version);

    QPointer<CurlMulti> m_network;
    MediaProbe* m_probe = nullptr;
    VersionChooser m_chooser;
    OutputGate m_outputGate;
};
