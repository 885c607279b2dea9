#include "support/fakechilddownloadsmanager.h"
#include "support/fakedownloadsfactory.h"
#include "support/ffmpegtestmedia.h"
#include "support/recordinglogger.h"
#include "support/writingfakedownload.h"

#include <terncl/inet/qt/download/abstractmediadownload.h>
#include <terncl/qt/media/ffmpeg/qtffmpegavmerger.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <memory>

namespace {
QStringList words(const char* text) {
    return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

using Media = AbstractMediaDownload;
using Selector = AbstractDownloadResourceVersionSelector;
using Plan = WritingFakeDownload::Plan;

// A media download whose parser hands over what the test prepared, in the next turn.
class TestMediaDownload final : public AbstractMediaDownload {
public:
    using AbstractMediaDownload::AbstractMediaDownload;

    QList<CompositeVersion> versions;
    QList<CompositeVersion> laterVersions; // what parses after the first find, when not empty
    AbstractError parseError;
    int parses = 0;

protected:
    void parse() override {
        ++parses;
        QTimer::singleShot(0, this, [this] {
            if (!parseError.isSet())
                setParseResult(parses > 1 && !laterVersions.isEmpty() ? laterVersions : versions);
            onParseFinished(parseError, false);
        });
    }
};

Selector::Version part(const char* url, int type, const char* format, qint64 size) {
    Selector::Version version;
    version.url = QUrl(QString::fromLatin1(url));
    version.protocol = QStringLiteral("downloadswww");
    version.media.type = type;
    version.media.format = QString::fromLatin1(format);
    version.size = size;
    version.title = QString::fromLatin1(url);
    return version;
}
} // namespace

class TestAbstractMediaDownload : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QThread m_writers;
    QSharedPointer<FakeDownloadsFactory> m_factory;
    QSharedPointer<QtFfmpegAvMerger> m_merger;
    QHash<QString, QByteArray> m_contents; // by URL
    QHash<QString, Plan> m_plans;          // by URL, instead of fetching the content whole
    std::unique_ptr<RecordingLogger> m_logger;

    QString path(const QString& name) const { return m_dir.filePath(name); }

    Selector::CompositeVersion avVersion() const {
        Selector::CompositeVersion version;
        version.url = QUrl(QStringLiteral("http://media.test/master.m3u8"));
        version.title = QStringLiteral("240p + audio");
        version.media.type = Selector::VideoWithAudio;
        version.parts = {part("http://media.test/v.mp4", Selector::VideoOnly, "mp4",
                              m_contents.value(QStringLiteral("http://media.test/v.mp4")).size()),
                         part("http://media.test/a.m4a", Selector::AudioOnly, "m4a",
                              m_contents.value(QStringLiteral("http://media.test/a.m4a")).size())};
        return version;
    }

    AbstractDownloadPersistentInfo record() const {
        AbstractDownloadPersistentInfo info;
        info.destinationPath = path(QStringLiteral("dst"));
        info.name = QStringLiteral("clip");
        info.uuid = QUuid::createUuid();
        return info;
    }

    std::unique_ptr<TestMediaDownload> makeDownload(const AbstractDownloadPersistentInfo& info,
                                                    bool withMerger = true) {
        auto download = std::make_unique<TestMediaDownload>(
            7, QStringLiteral("downloadsmedia"), m_factory,
            withMerger ? m_merger : QSharedPointer<QtFfmpegAvMerger>());
        download->setWritersThread(&m_writers);
        download->setInfo(info);
        download->versions = {avVersion()};
        return download;
    }

    static bool runToEnd(AbstractMediaDownload& download, AbstractDownloadCommand command) {
        QSignalSpy running(&download, &AbstractMediaDownload::running);
        download.doCommand(command);
        return QTest::qWaitFor([&] { return !download.isRunning(); }, 30000) && !running.isEmpty();
    }

    QStringList stages() const {
        QStringList result;
        static const QRegularExpression stage(QStringLiteral("run stage: (\\d)$"));
        for (const QString& line : m_logger->lines()) {
            if (const auto match = stage.match(line); match.hasMatch())
                result.append(match.captured(1));
        }
        return result;
    }

    bool logged(const QString& text) const {
        const auto lines = m_logger->lines();
        return std::any_of(lines.cbegin(), lines.cend(),
                           [&](const QString& line) { return line.contains(text); });
    }

    // A finished child as a manager restores it: its file written whole.
    QSharedPointer<FakeDownload> restoredChild(qint64 id, const QString& url, const QString& name,
                                               bool finished, const QString& kind) {
        const QByteArray content = m_contents.value(url);
        auto child = QSharedPointer<WritingFakeDownload>::create(
            id, Plan{content, -1, FakeDownload::Outcome::Finish, {}, true});
        AbstractDownloadPersistentInfo info;
        info.uuid = QUuid::createUuid();
        info.resourceUrl = url;
        info.destinationPath = path(QStringLiteral("children"));
        info.customData.insert(
            Media::MediaPartKey,
            QVariantHash{{QStringLiteral("kind"), kind == QLatin1String("video") ? 1 : 2}});
        AbstractDownloadFileInfo file;
        file.name = name;
        if (finished) {
            QDir().mkpath(info.destinationPath);
            QFile out(QDir(info.destinationPath).filePath(name));
            if (!out.open(QIODevice::WriteOnly) || out.write(content) != content.size())
                return {};
            file.size = content.size();
            file.sections = {{0, file.size, file.size}};
            info.state = AbstractDownloadPersistentInfo::Finished;
        }
        info.files = {file};
        child->setInfo(info);
        return child;
    }

    // A record whose children were made by an earlier run.
    AbstractDownloadPersistentInfo recordWithChildren(const QList<QUuid>& avUuids) const {
        auto info = record();
        info.customData.insert(Media::ChildDownloadsInitKey, true);
        QVariantList uuids;
        for (const QUuid& uuid : avUuids)
            uuids.append(uuid.toString());
        info.customData.insert(Media::AvDownloadsUuidsKey, uuids);
        AbstractDownloadFileInfo result;
        result.name = QStringLiteral("clip.mp4");
        result.tmpPath = path(QStringLiteral("dst/clip.mp4.merging"));
        info.files = {result};
        return info;
    }

private Q_SLOTS:
    void initTestCase() {
        if (FfmpegTestMedia::ffmpeg().isEmpty() || FfmpegTestMedia::ffprobe().isEmpty())
            QSKIP("ffmpeg and ffprobe are not installed");
        QString error;
        const QString video = path(QStringLiteral("src/v.mp4"));
        const QString audio = path(QStringLiteral("src/a.m4a"));
        QDir().mkpath(path(QStringLiteral("src")));
        QVERIFY2(FfmpegTestMedia::makeVideoOnly(video, 2, &error), qPrintable(error));
        QVERIFY2(FfmpegTestMedia::makeAudioOnly(audio, 2, &error), qPrintable(error));
        for (const auto& [url, file] : {std::pair{"http://media.test/v.mp4", video},
                                        std::pair{"http://media.test/a.m4a", audio}}) {
            QFile in(file);
            QVERIFY(in.open(QIODevice::ReadOnly));
            m_contents.insert(QString::fromLatin1(url), in.readAll());
        }
        m_contents.insert(QStringLiteral("http://media.test/whole.mp4"),
                          m_contents.value(QStringLiteral("http://media.test/v.mp4")));
        m_writers.start();
        auto manager = QSharedPointer<QtFfmpegManager>::create(
            QFileInfo(FfmpegTestMedia::ffmpeg()).path(), QStringLiteral("ffmpeg"), nullptr);
        m_merger = QSharedPointer<QtFfmpegAvMerger>::create(manager);
        m_merger->setSandboxEnabled(false);
    }

    void init() {
        m_logger.reset(); // restores the logger it replaced before the next one installs itself
        m_logger = std::make_unique<RecordingLogger>();
        m_factory = QSharedPointer<FakeDownloadsFactory>::create();
        // Children write the content of their URL; probes only learn its size.
        m_factory->setMaker([this](qint64 id, const FakeDownloadsFactory::Request& request) {
            const bool probe = request.info.testFlag(AbstractDownloadPersistentInfo::SizeQueryOnly);
            const QString url = request.info.resourceUrl;
            if (m_plans.contains(url))
                return QSharedPointer<WritingFakeDownload>::create(id, m_plans.value(url));
            return QSharedPointer<WritingFakeDownload>::create(id,
                                                               Plan{m_contents.value(url),
                                                                    probe ? 0 : -1,
                                                                    FakeDownload::Outcome::Finish,
                                                                    {},
                                                                    true});
        });
        m_factory->setConfigurator([this](FakeDownload& download, const auto&) {
            if (download.info().destinationPath.isEmpty()) {
                auto info = download.info();
                info.destinationPath = path(QStringLiteral("probes"));
                info.name = QStringLiteral("probe");
                download.setInfo(info);
            }
        });
        m_plans.clear();
        QDir(path(QStringLiteral("dst"))).removeRecursively();
        QDir().mkpath(path(QStringLiteral("probes")));
        QDir(path(QStringLiteral("children"))).removeRecursively();
    }

    void cleanupTestCase() {
        m_writers.quit();
        m_writers.wait();
    }

    // A query parses and measures the unknown sizes, then ends at stage 0 without children.
    void queryStopsAfterTheSizes() {
        auto download = makeDownload(record());
        Selector::CompositeVersion whole(part("http://media.test/whole.mp4", 2, "mp4", -1));
        download->versions.prepend(whole);
        QVERIFY(runToEnd(*download, AbstractDownloadCommand::QueryInfo));

        QCOMPARE(stages(), words("1 0"));
        QVERIFY(logged(QStringLiteral("querying resources sizes finished")));
        QCOMPARE(download->lastError(), AbstractError());
        QCOMPARE(m_factory->requests().size(), 1);
        QCOMPARE(m_factory->requests().constFirst().moduleName, QStringLiteral("downloadswww"));
        const auto versions = download->resourceVersionSelector()->resourceVersions();
        QCOMPARE(versions.at(0).size,
                 m_contents.value(QStringLiteral("http://media.test/whole.mp4")).size());
        QVERIFY(download->childDownloads().isEmpty());
        QVERIFY(!download->info().customData.contains(Media::ChildDownloadsInitKey));
    }

    // A composite version: a video and an audio child, merged by ffmpeg into the result, which
    // then moves to its destination name; the children and their files go.
    void fullRunMergesVideoAndAudio() {
        auto download = makeDownload(record());
        QVERIFY(runToEnd(*download, AbstractDownloadCommand::Start));
        QCOMPARE(download->lastError(), AbstractError());
        QCOMPARE(stages(), words("1 3 4 0"));
        QVERIFY(logged(QStringLiteral("merge finished")));
        QVERIFY(logged(QStringLiteral("finished (")));

        const auto requests = m_factory->requests();
        QCOMPARE(requests.size(), 2);
        QCOMPARE(requests.at(0).info.name, QStringLiteral("clip.video.mp4"));
        QCOMPARE(requests.at(1).info.name, QStringLiteral("clip.audio.m4a"));
        const auto initData = requests.at(1).initData.toHash();
        QCOMPARE(initData.size(), 4);
        QCOMPARE(initData.value(QStringLiteral("protocol")).toString(),
                 QStringLiteral("downloadswww"));
        QCOMPARE(initData.value(QStringLiteral("source")).toHash().value(QStringLiteral("url")),
                 QVariant(QStringLiteral("http://media.test/a.m4a")));
        QVERIFY(requests.at(0).info.testFlag(AbstractDownloadPersistentInfo::PartOfParentDownload));

        const auto& info = download->info();
        QVERIFY(info.isFinished());
        QVERIFY(!info.customData.contains(Media::AvDownloadsUuidsKey));
        QVERIFY(download->childDownloads().isEmpty());
        QCOMPARE(info.files.size(), 1);
        const QString result = path(QStringLiteral("dst/clip.mp4"));
        QCOMPARE(AbstractDownloadFileOps::currentFilePath(info, 0), result);
        QStringList streams;
        double duration = 0;
        QVERIFY(FfmpegTestMedia::probe(result, &streams, &duration));
        QCOMPARE(streams, words("video audio"));
        QCOMPARE(info.files.constFirst().size, QFileInfo(result).size());
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("dst/clip.video.mp4"))));
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("dst/clip.mp4.merging"))));

        // A finished record does not start again; a restart parses and fetches everything anew.
        download->doCommand(AbstractDownloadCommand::Start);
        QVERIFY(logged(QStringLiteral("can't start: file is finished already.")));
        QVERIFY(!download->isRunning());
        m_logger->clear();
        QVERIFY(runToEnd(*download, AbstractDownloadCommand::Restart));
        QCOMPARE(download->parses, 2);
        QCOMPARE(stages(), words("1 3 4 0"));
        QCOMPARE(m_factory->requests().size(), 4);
        QVERIFY(download->info().isFinished());
        QVERIFY(QFileInfo::exists(result));
    }

    void mergeFailures_data() {
        QTest::addColumn<bool>("withMerger");
        QTest::addColumn<int>("avCount");
        QTest::addColumn<bool>("garbage");
        QTest::addColumn<QString>("text");
        QTest::newRow("no merger")
            << false << 2 << false << QStringLiteral("merge failed: no avMerger");
        QTest::newRow("one of two")
            << true << 1 << false << QStringLiteral("merge failed: missing downloads");
        QTest::newRow("ffmpeg fails") << true << 2 << true << QStringLiteral("merge failed: ");
    }

    // Restored children that are all finished go straight to the merge, whose failure stops the
    // download with its text.
    void mergeFailures() {
        QFETCH(bool, withMerger);
        QFETCH(int, avCount);
        QFETCH(bool, garbage);
        QFETCH(QString, text);
        if (garbage)
            m_contents.insert(QStringLiteral("http://media.test/junk"), QByteArray(4000, 'x'));
        auto video = restoredChild(11, QStringLiteral("http://media.test/v.mp4"),
                                   QStringLiteral("clip.video.mp4"), true, QStringLiteral("video"));
        auto audio = restoredChild(12,
                                   garbage ? QStringLiteral("http://media.test/junk")
                                           : QStringLiteral("http://media.test/a.m4a"),
                                   QStringLiteral("clip.audio.m4a"), true, QStringLiteral("audio"));
        QList<QUuid> uuids{video->info().uuid, audio->info().uuid};
        auto manager = QSharedPointer<FakeChildDownloadsManager>::create(
            m_factory.data(), path(QStringLiteral("children")));
        manager->keep({video, audio});
        auto download = makeDownload(recordWithChildren(uuids.mid(0, avCount)), withMerger);
        download->setChildDownloadsManager(manager);
        QVERIFY(runToEnd(*download, AbstractDownloadCommand::Start));

        QVERIFY2(logged(text), qPrintable(m_logger->lines().join(u'\n')));
        QCOMPARE(stages(), words("1 4 0"));
        const AbstractError error = download->lastError();
        QVERIFY(error.isSet());
        if (!garbage) {
            QCOMPARE(error.category, std::string(AbstractError::GenericError));
            QCOMPARE(error.code, int(Media::MergeFailedCode));
            QCOMPARE(QString::fromStdString(error.description), text);
        }
        QVERIFY(!download->info().isFinished());
        QCOMPARE(download->childDownloads().size(), 2);
    }

    // A record with "childDownloadsInit" is not parsed again, and a finished child is not run.
    void resumeRunsOnlyUnfinishedChildren() {
        auto video = restoredChild(11, QStringLiteral("http://media.test/v.mp4"),
                                   QStringLiteral("clip.video.mp4"), true, QStringLiteral("video"));
        auto audio =
            restoredChild(12, QStringLiteral("http://media.test/a.m4a"),
                          QStringLiteral("clip.audio.m4a"), false, QStringLiteral("audio"));
        auto manager = QSharedPointer<FakeChildDownloadsManager>::create(
            m_factory.data(), path(QStringLiteral("children")));
        manager->keep({video, audio});
        // The form older records have: children by id and counted.
        auto info = recordWithChildren({});
        info.customData.remove(Media::ChildDownloadsInitKey);
        info.customData.remove(Media::AvDownloadsUuidsKey);
        info.customData.insert(Media::AvDownloadsIdsKey, QVariantList{11, 12});
        info.customData.insert(Media::ChildDownloadsCountKey, 2);
        auto download = makeDownload(info);
        download->setChildDownloadsManager(manager);
        QCOMPARE(download->childDownloads().size(), 2);
        download->doCommand(AbstractDownloadCommand::Start);
        const auto& customData = download->info().customData;
        QCOMPARE(customData.value(Media::AvDownloadsUuidsKey).toList(),
                 QVariantList({video->info().uuid.toString(), audio->info().uuid.toString()}));
        QVERIFY(customData.value(Media::ChildDownloadsInitKey).toBool());
        QVERIFY(!customData.contains(Media::AvDownloadsIdsKey));
        QVERIFY(!customData.contains(Media::ChildDownloadsCountKey));
        QVERIFY(QTest::qWaitFor([&] { return !download->isRunning(); }, 30000));

        QCOMPARE(download->lastError(), AbstractError());
        QCOMPARE(download->parses, 0);
        QVERIFY(video->commands().isEmpty());
        QCOMPARE(audio->commands(), QList<AbstractDownloadCommand>{AbstractDownloadCommand::Start});
        QCOMPARE(m_factory->requests().size(), 0);
        QVERIFY(download->info().isFinished());
        QCOMPARE(manager->removals().size(), 1);
        QCOMPARE(manager->removals().constFirst().second, true);
        QVERIFY(QFileInfo::exists(path(QStringLiteral("dst/clip.mp4"))));
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("children/clip.audio.m4a"))));
    }

    // A stop ends the run at stage 0 with the stop's error; the children stay for a resume.
    void stopKeepsTheChildren() {
        m_plans.insert(
            QStringLiteral("http://media.test/a.m4a"),
            Plan{QByteArray(5000, 'a'), 2000, FakeDownload::Outcome::KeepRunning, {}, true});
        auto download = makeDownload(record());
        download->doCommand(AbstractDownloadCommand::Start);
        QTRY_COMPARE_WITH_TIMEOUT(int(download->runStage()), int(Media::DownloadingChildren),
                                  10000);
        download->doCommand(AbstractDownloadCommand::Stop);

        QCOMPARE(int(download->runStage()), int(Media::NotRunning));
        QCOMPARE(download->lastError().code, int(Media::StopCommandCode));
        const auto children = m_factory->aliveDownloads();
        QCOMPARE(children.size(), 2);
        QVERIFY(children.at(1)->commands().contains(AbstractDownloadCommand::Stop));
        QVERIFY(download->info().customData.contains(Media::ChildDownloadsInitKey));
        QCOMPARE(download->info().customData.value(Media::AvDownloadsUuidsKey).toList().size(), 2);
    }

    // A child refused its resource makes one new parse, whose sources the children take; a
    // second refusal stops the download with the child's error.
    void refusedChildParsesAgainOnce() {
        const AbstractError forbidden(403, AbstractError::HttpError, {}, "Forbidden");
        for (const char* url : {"http://media.test/a.m4a", "http://media.test/a2.m4a"})
            m_plans.insert(
                QString::fromLatin1(url),
                Plan{QByteArray(100, 'a'), 0, FakeDownload::Outcome::Fail, forbidden, true});
        auto download = makeDownload(record());
        auto later = avVersion();
        later.parts[1].url = QUrl(QStringLiteral("http://media.test/a2.m4a"));
        download->laterVersions = {later};
        QVERIFY(runToEnd(*download, AbstractDownloadCommand::Start));

        QCOMPARE(download->lastError(), forbidden);
        QCOMPARE(download->parses, 2);
        QCOMPARE(stages(), words("1 3 1 3 0"));
        QVERIFY(logged(QStringLiteral("child download(s) failed with error: ")));
        const auto children = download->childDownloads();
        QCOMPARE(children.size(), 2);
        QCOMPARE(children.at(1)->info().resourceUrl, QStringLiteral("http://media.test/a2.m4a"));
        QVERIFY(children.at(0)->info().isFinished()); // the video child is not fetched again
        QCOMPARE(m_factory->requests().size(), 2);
    }

    void parseFailures_data() {
        QTest::addColumn<bool>("failParse");
        QTest::addColumn<int>("code");
        QTest::newRow("parse error") << true << 5;
        QTest::newRow("no versions") << false << int(Media::NothingParsedCode);
    }

    void parseFailures() {
        QFETCH(bool, failParse);
        QFETCH(int, code);
        auto download = makeDownload(record());
        download->versions.clear();
        if (failParse)
            download->parseError =
                AbstractError(code, AbstractError::GenericError, {}, "bad playlist, line 3");
        QVERIFY(runToEnd(*download, AbstractDownloadCommand::Start));

        QCOMPARE(stages(), words("1 0"));
        QVERIFY(logged(QStringLiteral("parse error: ")));
        QCOMPARE(download->lastError().code, code);
        QCOMPARE(download->lastError().category, std::string(AbstractError::GenericError));
        if (!failParse)
            QCOMPARE(download->lastError().description, std::string("no resource versions found"));
        QCOMPARE(m_factory->requests().size(), 0);
    }
};

QTEST_GUILESS_MAIN(TestAbstractMediaDownload)
#include "tst_abstractmediadownload.moc"
