#include "dashmanifestreader.h"
#include "hostdownloadsfactory.h"
#include "mediachildren.h"
#include "mediaversions.h"
#include "streamsegmentsdownload.h"
#include "support/ffmpegtestmedia.h"
#include "support/nginxserver.h"
#include "support/testfiles.h"

#include <terncl/inet/qt/download/abstractdownload.h>
#include <terncl/inet/qt/download/abstractdownloadsspeedmeter.h>
#include <terncl/qt/media/ffmpeg/qtffmpegavmerger.h>
#include <terncl/qt/media/ffmpeg/qtffmpegmanager.h>

#include <QDir>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <algorithm>

using namespace Qt::StringLiterals;

// The children of a media download, made by module name, against nginx serving ffmpeg's streams.
// A child restored from its record must not fetch its done segments again, and a DASH
// representation must come out remuxed: neither shows in the merged result of a media run.
class TestMediaChildren : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QThread m_writers;
    QSharedPointer<HostDownloadsFactory> m_factory;
    QSharedPointer<AbstractDownloadsSpeedMeter> m_speedMeter{new AbstractDownloadsSpeedMeter()};
    std::unique_ptr<NginxServer> m_nginx;
    QSharedPointer<QtFfmpegAvMerger> m_merger;

    AbstractDownloadPersistentInfo recordFor(const QString& name) const {
        AbstractDownloadPersistentInfo record;
        record.uuid = QUuid::createUuid();
        record.destinationPath = m_dir.filePath(u"out"_s);
        QDir().mkpath(record.destinationPath);
        AbstractDownloadFileInfo file;
        file.name = name;
        file.tmpPath = QDir(record.destinationPath).filePath(name + u".part"_s);
        record.files.append(file);
        return record;
    }

    QSharedPointer<AbstractDownload> create(const QString& module,
                                            const AbstractDownloadPersistentInfo& record,
                                            const QVariant& initData) {
        AbstractError error;
        const MediaChildren::Context context{
            m_factory, m_speedMeter, m_merger, m_factory->network(), &m_writers, 1, {}};
        auto download = MediaChildren::creator(module, context)(record, initData, error);
        if (!download)
            qWarning("%s", error.description.c_str());
        return download;
    }

    // Starts the download and waits for its end.
    static bool run(AbstractDownload* download, int segmentsBeforeStop = -1) {
        QSignalSpy ended(download, &AbstractNetworkConsumerWithExtraTasks::running);
        if (segmentsBeforeStop >= 0) {
            auto* stream = qobject_cast<IndependentSegmentsDownloader*>(download);
            QObject::connect(stream, &IndependentSegmentsDownloader::segmentFinished, download,
                             [download, stream, segmentsBeforeStop] {
                                 if (stream->currentSegmentIndex() >= segmentsBeforeStop)
                                     download->doCommand(AbstractDownloadCommand::Stop);
                             });
        }
        download->doCommand(AbstractDownloadCommand::Start);
        return QTest::qWaitFor(
            [&] { return !ended.isEmpty() && !ended.constLast().at(0).toBool(); }, 30000);
    }

private Q_SLOTS:
    void initTestCase() {
        if (FfmpegTestMedia::ffmpeg().isEmpty() || NginxServer::executable().isEmpty())
            QSKIP("ffmpeg and nginx are needed (scripts/install-deps installs them)");
        QString error;
        const QString www = m_dir.filePath(u"www"_s);
        QVERIFY2(FfmpegTestMedia::makeHls(www + u"/ts"_s, 4, 1, false, &error), qPrintable(error));
        QVERIFY2(FfmpegTestMedia::makeDash(www + u"/dash"_s, 4, 1, &error), qPrintable(error));
        m_nginx.reset(new NginxServer(www));
        QVERIFY2(m_nginx->start(&error), qPrintable(error));
        m_writers.start();
        m_factory.reset(new HostDownloadsFactory(&m_writers));
        m_merger.reset(new QtFfmpegAvMerger(QSharedPointer<QtFfmpegManager>::create(
            QFileInfo(FfmpegTestMedia::ffmpeg()).path(), u"ffmpeg"_s, nullptr)));
    }

    void cleanupTestCase() {
        m_writers.quit();
        m_writers.wait();
    }

    // Stopped after its first segment and restored from its record, an HLS child ends with the
    // segments byte for byte, none of them fetched twice.
    void hlsStreamResumesFromItsRecord() {
        const QStringList segments =
            FfmpegTestMedia::segmentFiles(m_dir.filePath(u"www/ts/index.m3u8"_s));
        QByteArray all;
        for (const QString& segment : segments)
            all += readFile(segment);
        const QVariantHash initData{{u"source"_s, m_nginx->url(u"/ts/index.m3u8"_s)}};
        auto first = create(MediaVersions::HlsModule, recordFor(u"v.ts"_s), initData);
        QVERIFY(first);
        QVERIFY(run(first.data(), 1));
        const auto saved = first->info();
        QVERIFY(!saved.isFinished());
        QCOMPARE(saved.customData.value(StreamSegmentsDownload::SegmentsDoneKey).toInt(), 1);
        first.reset();

        auto second = create(MediaVersions::HlsModule, saved, QVariant());
        QVERIFY(run(second.data()));
        QVERIFY2(second->info().isFinished(), second->lastError().toText().toUtf8().constData());
        QCOMPARE(readFile(m_dir.filePath(u"out/v.ts"_s)), all);
        const QString firstSegment = u"/ts/"_s + QFileInfo(segments.at(0)).fileName();
        const auto log = m_nginx->accessLog();
        QCOMPARE(std::count_if(log.cbegin(), log.cend(),
                               [&](const auto& access) { return access.path == firstSegment; }),
                 qsizetype(1));
    }

    void dashRepresentationIsJoinedAndRemuxed() {
        const QUrl manifestUrl = m_nginx->url(u"/dash/manifest.mpd"_s);
        AbstractError error;
        const auto manifest = DashManifestReader::parse(
            readFile(m_dir.filePath(u"www/dash/manifest.mpd"_s)), manifestUrl, &error);
        QVERIFY(!error.isSet());
        const auto listing = MediaVersions::fromDash(manifest, manifestUrl);
        const auto& audio = listing.versions.constLast();
        QCOMPARE(audio.media.type, int(AbstractDownloadResourceVersionSelector::AudioOnly));
        const QVariantHash initData{{u"source"_s, manifestUrl}, {u"initData"_s, audio.details}};
        auto download = create(MediaVersions::FragmentsModule, recordFor(u"a.m4s"_s), initData);
        QVERIFY(download);
        QVERIFY(run(download.data()));
        QVERIFY2(download->info().isFinished(),
                 download->lastError().toText().toUtf8().constData());
        QStringList streams;
        double duration = 0;
        QVERIFY(FfmpegTestMedia::probe(m_dir.filePath(u"out/a.mp4"_s), &streams, &duration));
        QCOMPARE(streams, QStringList{u"audio"_s});
        QVERIFY2(qAbs(duration - 4) < 0.5, QByteArray::number(duration).constData());
    }
};

QTEST_GUILESS_MAIN(TestMediaChildren)
#include "tst_mediachildren.moc"
