#include "support/fakechilddownloadsmanager.h"
#include "support/fakedownloadsfactory.h"
#include "support/ffmpegtestmedia.h"
#include "support/testfiles.h"
#include "support/writingfakedownload.h"

#include <terncl/inet/qt/download/abstractmediadownload.h>
#include <terncl/qt/media/ffmpeg/qtffmpegavmerger.h>

#include <QDir>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <memory>

using namespace Qt::StringLiterals;

namespace {
using Media = AbstractMediaDownload;
using Selector = AbstractDownloadResourceVersionSelector;
using Plan = WritingFakeDownload::Plan;
const QString videoUrl = u"http://media.test/v.mp4"_s, audioUrl = u"http://media.test/a.m4a"_s;

// A media download whose parser hands over what the test prepared, in the next turn.
class TestMediaDownload final : public AbstractMediaDownload {
public:
    using AbstractMediaDownload::AbstractMediaDownload;

    QList<CompositeVersion> versions;
    QList<CompositeVersion> laterVersions; // what parses after the first find, when not empty
    int parses = 0;

protected:
    void parse() override {
        ++parses;
        QTimer::singleShot(0, this, [this] {
            setParseResult(parses > 1 && !laterVersions.isEmpty() ? laterVersions : versions);
            onParseFinished({}, false);
        });
    }
};

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

    QString path(const char* name) const { return m_dir.filePath(QString::fromUtf8(name)); }
    bool exists(const char* name) const { return QFileInfo::exists(path(name)); }

    Selector::CompositeVersion avVersion() const {
        const auto part = [this](const QString& url, int type, const QString& format) {
            Selector::Version version;
            version.url = QUrl(url);
            version.title = url;
            version.protocol = u"downloadswww"_s;
            version.media.type = type;
            version.media.format = format;
            version.size = m_contents[url].size();
            return version;
        };
        Selector::CompositeVersion version;
        version.url = QUrl(u"http://media.test/master.m3u8"_s);
        version.title = u"240p + audio"_s;
        version.media.type = Selector::VideoWithAudio;
        version.parts = {part(videoUrl, Selector::VideoOnly, u"mp4"_s),
                         part(audioUrl, Selector::AudioOnly, u"m4a"_s)};
        return version;
    }

    AbstractDownloadPersistentInfo record() const {
        AbstractDownloadPersistentInfo info;
        info.destinationPath = path("dst");
        info.name = u"clip"_s;
        info.uuid = QUuid::createUuid();
        return info;
    }

    std::unique_ptr<TestMediaDownload> makeDownload(const AbstractDownloadPersistentInfo& info,
                                                    bool withMerger = true) {
        auto download = std::make_unique<TestMediaDownload>(
            7, u"downloadsmedia"_s, m_factory,
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

    // A child as a manager restores it, when finished with its file written whole; its part
    // kind follows its name.
    QSharedPointer<FakeDownload> restoredChild(qint64 id, const QString& url, const char* name,
                                               bool finished) {
        const QByteArray content = m_contents.value(url);
        auto child = QSharedPointer<WritingFakeDownload>::create(
            id, Plan{content, -1, FakeDownload::Outcome::Finish, {}, true});
        AbstractDownloadPersistentInfo info;
        info.uuid = QUuid::createUuid();
        info.resourceUrl = url;
        info.destinationPath = path("children");
        const int kind = QByteArray(name).contains(".video.") ? 1 : 2;
        info.customData.insert(Media::MediaPartKey, QVariantHash{{u"kind"_s, kind}});
        AbstractDownloadFileInfo file;
        file.name = QString::fromUtf8(name);
        if (finished) {
            if (!writeFile(QDir(info.destinationPath).filePath(file.name), content))
                return {};
            file.size = content.size();
            file.sections = {{0, file.size, file.size}};
            info.state = AbstractDownloadPersistentInfo::Finished;
        }
        info.files = {file};
        child->setInfo(info);
        return child;
    }
    QSharedPointer<FakeChildDownloadsManager>
    managerKeeping(const QList<QSharedPointer<AbstractDownload>>& children) const {
        auto manager =
            QSharedPointer<FakeChildDownloadsManager>::create(m_factory.data(), path("children"));
        manager->keep(children);
        return manager;
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
        result.name = u"clip.mp4"_s;
        result.tmpPath = path("dst/clip.mp4.merging");
        info.files = {result};
        return info;
    }

private Q_SLOTS:
    void initTestCase() {
        if (FfmpegTestMedia::ffmpeg().isEmpty() || FfmpegTestMedia::ffprobe().isEmpty())
            QSKIP("ffmpeg and ffprobe are not installed");
        QString error;
        QDir().mkpath(path("src"));
        QVERIFY2(FfmpegTestMedia::makeVideoOnly(path("src/v.mp4"), 2, &error), qPrintable(error));
        QVERIFY2(FfmpegTestMedia::makeAudioOnly(path("src/a.m4a"), 2, &error), qPrintable(error));
        m_contents = {{videoUrl, readFile(path("src/v.mp4"))},
                      {audioUrl, readFile(path("src/a.m4a"))}};
        m_writers.start();
        auto manager = QSharedPointer<QtFfmpegManager>::create(
            QFileInfo(FfmpegTestMedia::ffmpeg()).path(), u"ffmpeg"_s, nullptr);
        m_merger = QSharedPointer<QtFfmpegAvMerger>::create(manager);
        m_merger->setSandboxEnabled(false);
    }

    void init() {
        m_factory = QSharedPointer<FakeDownloadsFactory>::create();
        // Children write the content of their URL, unless planned otherwise.
        m_factory->setMaker([this](qint64 id, const FakeDownloadsFactory::Request& request) {
            const QString url = request.info.resourceUrl;
            const Plan whole{m_contents.value(url), -1, FakeDownload::Outcome::Finish, {}, true};
            return QSharedPointer<WritingFakeDownload>::create(id, m_plans.value(url, whole));
        });
        m_plans.clear();
        QDir(path("dst")).removeRecursively();
        QDir(path("children")).removeRecursively();
    }

    void cleanupTestCase() {
        m_writers.quit();
        m_writers.wait();
    }

    // A composite version: a video and an audio child, merged by ffmpeg into the result, which
    // then moves to its destination name; the children and their files go.
    void fullRunMergesVideoAndAudio() {
        auto download = makeDownload(record());
        QVERIFY(runToEnd(*download, AbstractDownloadCommand::Start));
        QCOMPARE(download->lastError(), AbstractError());

        const auto requests = m_factory->requests();
        QCOMPARE(requests.size(), 2);
        QCOMPARE((QStringList{requests.at(0).info.name, requests.at(1).info.name}),
                 (QStringList{u"clip.video.mp4"_s, u"clip.audio.m4a"_s}));
        QVERIFY(requests.at(0).info.testFlag(AbstractDownloadPersistentInfo::PartOfParentDownload));

        const auto& info = download->info();
        QVERIFY(info.isFinished() && !info.customData.contains(Media::AvDownloadsUuidsKey));
        QVERIFY(download->childDownloads().isEmpty());
        const QString result = path("dst/clip.mp4");
        QCOMPARE(AbstractDownloadFileOps::currentFilePath(info, 0), result);
        QCOMPARE(info.files.constFirst().size, QFileInfo(result).size());
        QVERIFY(!exists("dst/clip.video.mp4") && !exists("dst/clip.mp4.merging"));

        // A finished record does not start again; a restart parses and fetches everything anew.
        download->doCommand(AbstractDownloadCommand::Start);
        QVERIFY(!download->isRunning());
        QVERIFY(runToEnd(*download, AbstractDownloadCommand::Restart));
        QCOMPARE(download->parses, 2);
        QCOMPARE(m_factory->requests().size(), 4);
        QVERIFY(download->info().isFinished());
        QVERIFY(QFileInfo::exists(result));
    }

    // Restored children that are all finished go straight to the merge, whose failure stops the
    // download with its text.
    void mergeFailures() {
        const QString junk = u"http://media.test/junk"_s;
        m_contents.insert(junk, QByteArray(4000, 'x'));
        const struct {
            bool withMerger;
            int avCount;
            bool garbage;
            QString text;
        } rows[] = {{false, 2, false, u"merge failed: no avMerger"_s},
                    {true, 1, false, u"merge failed: missing downloads"_s},
                    {true, 2, true, u"FFmpeg returned non-zero"_s}};
        for (const auto& row : rows) {
            auto video = restoredChild(11, videoUrl, "clip.video.mp4", true);
            auto audio = restoredChild(12, row.garbage ? junk : audioUrl, "clip.audio.m4a", true);
            QList<QUuid> uuids{video->info().uuid, audio->info().uuid};
            auto download =
                makeDownload(recordWithChildren(uuids.mid(0, row.avCount)), row.withMerger);
            download->setChildDownloadsManager(managerKeeping({video, audio}));
            QVERIFY(runToEnd(*download, AbstractDownloadCommand::Start));

            QCOMPARE(download->parses, 0);
            const QString error = QString::fromStdString(download->lastError().description);
            QVERIFY2(error.startsWith(row.text), qPrintable(error));
            QVERIFY(!download->info().isFinished());
            QCOMPARE(download->childDownloads().size(), 2);
        }
    }

    // A record with "childDownloadsInit" is not parsed again, and a finished child is not run.
    void resumeRunsOnlyUnfinishedChildren() {
        auto video = restoredChild(11, videoUrl, "clip.video.mp4", true);
        auto audio = restoredChild(12, audioUrl, "clip.audio.m4a", false);
        auto manager = managerKeeping({video, audio});
        // The form older records have: children by id and counted.
        auto info = recordWithChildren({});
        info.customData.remove(Media::ChildDownloadsInitKey);
        info.customData.remove(Media::AvDownloadsUuidsKey);
        info.customData.insert(Media::AvDownloadsIdsKey, QVariantList{11, 12});
        info.customData.insert(Media::ChildDownloadsCountKey, 2);
        auto download = makeDownload(info);
        download->setChildDownloadsManager(manager);
        download->doCommand(AbstractDownloadCommand::Start);
        // Stored again in the current form only.
        const QVariantList uuids{video->info().uuid.toString(), audio->info().uuid.toString()};
        QCOMPARE(download->info().customData, (QVariantHash{{Media::AvDownloadsUuidsKey, uuids},
                                                            {Media::ChildDownloadsInitKey, true}}));
        QVERIFY(QTest::qWaitFor([&] { return !download->isRunning(); }, 30000));

        QCOMPARE(download->lastError(), AbstractError());
        QCOMPARE(download->parses, 0);
        QVERIFY(video->commands().isEmpty());
        QCOMPARE(audio->commands(), QList<AbstractDownloadCommand>{AbstractDownloadCommand::Start});
        QCOMPARE(m_factory->requests().size(), 0);
        QVERIFY(download->info().isFinished());
        QCOMPARE(manager->removals(), (QList<std::pair<QList<qint64>, bool>>{{{11, 12}, true}}));
        QVERIFY(exists("dst/clip.mp4") && !exists("children/clip.audio.m4a"));
    }

    // A child refused its resource makes one new parse, whose sources the children take; a
    // second refusal stops the download with the child's error.
    void refusedChildParsesAgainOnce() {
        const AbstractError forbidden(403, AbstractError::HttpError, {}, "Forbidden");
        const Plan refusal{QByteArray(100, 'a'), 0, FakeDownload::Outcome::Fail, forbidden, true};
        m_plans = {{audioUrl, refusal}, {u"http://media.test/a2.m4a"_s, refusal}};
        auto download = makeDownload(record());
        auto later = avVersion();
        later.parts[1].url = QUrl(u"http://media.test/a2.m4a"_s);
        download->laterVersions = {later};
        QVERIFY(runToEnd(*download, AbstractDownloadCommand::Start));

        QCOMPARE(download->lastError(), forbidden);
        QCOMPARE(download->parses, 2);
        const auto children = download->childDownloads();
        QCOMPARE(children.size(), 2);
        QCOMPARE(children.at(1)->info().resourceUrl, u"http://media.test/a2.m4a"_s);
        QVERIFY(children.at(0)->info().isFinished()); // the video child is not fetched again
        QCOMPARE(m_factory->requests().size(), 2);
    }
};

QTEST_GUILESS_MAIN(TestAbstractMediaDownload)
#include "tst_abstractmediadownload.moc"
