#include "support/testfiles.h"
#include <terncl/core/qtqobjectstracker.h>
#include <terncl/inet/qt/download/abstractdownloadsspeedmeter.h>
#include <terncl/inet/qt/download/independentsegmentsdownloader.h>

#include "support/fakedownloadsfactory.h"
#include "support/writingfakedownload.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <memory>

using namespace Qt::StringLiterals;

namespace {
using Downloader = IndependentSegmentsDownloader;
using Plan = WritingFakeDownload::Plan;
using Action = AbstractDownloadFileExistsAction;

const AbstractError httpError(404, AbstractError::HttpError, {});
} // namespace

class TestIndependentSegmentsDownloader : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QThread m_writers;
    QSharedPointer<QtQObjectsTracker> m_tracker;
    QSharedPointer<FakeDownloadsFactory> m_factory;
    QSharedPointer<AbstractDownloadsSpeedMeter> m_meter;
    QHash<QString, QByteArray> m_contents; // by URL
    QHash<QString, Plan> m_firstRunPlans;  // by URL: the plan of the next child only
    QByteArray m_all;                      // the contents in order

    QString path(const char* name) const { return m_dir.filePath(QString::fromUtf8(name)); }
    QString target() const { return path("dst/out.bin"); }
    QString temporary() const { return path("tmp/out.bin.part"); }

    // Segments of bytes that differ from segment to segment and from position to position.
    QList<AbstractDownloadSourceInfo> addSegments(const QList<qint64>& sizes) {
        QList<AbstractDownloadSourceInfo> sources;
        for (const qint64 size : sizes) {
            QByteArray content(size, Qt::Uninitialized);
            QRandomGenerator random(m_contents.size() + 1);
            for (auto& byte : content)
                byte = char(random.generate());
            AbstractDownloadSourceInfo& source = sources.emplace_back();
            source.url = QUrl(u"http://segments.test/s%1"_s.arg(m_contents.size()));
            source.requestHeaders = {{"Referer", "http://segments.test/"}};
            m_contents.insert(source.url.toString(), content);
            m_all += content;
        }
        return sources;
    }
    // The next child made for source ends with outcome once `after` bytes are done.
    void planNextChild(const AbstractDownloadSourceInfo& source, qint64 after,
                       FakeDownload::Outcome outcome, bool resumeSupported = true) {
        m_firstRunPlans.insert(source.url.toString(),
                               Plan{{}, after, outcome, httpError, resumeSupported});
    }

    AbstractDownloadPersistentInfo record(bool withTemporary = true) const {
        AbstractDownloadPersistentInfo info;
        info.destinationPath = path("dst");
        AbstractDownloadFileInfo file;
        file.name = u"out.bin"_s;
        if (withTemporary)
            file.tmpPath = temporary();
        info.files = {file};
        return info;
    }

    std::unique_ptr<Downloader> make(const AbstractDownloadPersistentInfo& info,
                                     const QList<AbstractDownloadSourceInfo>& sources,
                                     bool complete = true) {
        auto downloader =
            std::make_unique<Downloader>(1, m_factory, m_meter, QWeakPointer<QtFfmpegAvMerger>());
        downloader->setWritersThread(&m_writers);
        downloader->setInfo(info);
        downloader->setSegmentsSources(sources, complete, false);
        return downloader;
    }

    // The record as a restart from storage finds it, with the sources still to fetch.
    std::unique_ptr<Downloader> reloaded(const Downloader& downloader,
                                         const QList<AbstractDownloadSourceInfo>& sources) {
        return make(AbstractDownloadPersistentInfo::fromJson(downloader.info().toJson()), sources);
    }
    // An existing target is asked about; only an interactive download can be answered.
    static void askAboutExisting(Downloader& downloader, bool interactive) {
        AbstractDownloadSettings settings;
        settings.existingFileReaction = AbstractDownloadExistingFileReaction::Ask;
        downloader.setSettings(settings);
        downloader.setInteractive(interactive);
    }
    // Finished without an error, the whole data at path.
    bool saved(const Downloader& downloader, const QString& path) const {
        return !downloader.lastError().isSet() && downloader.info().isFinished() &&
               readFile(path) == m_all;
    }

    static void run(Downloader& downloader) {
        downloader.doCommand(AbstractDownloadCommand::Start);
        QTRY_VERIFY_WITH_TIMEOUT(!downloader.isRunning(), 20000);
    }

    QStringList spillFiles() const { return QDir(path("tmp")).entryList({u"*.seg*"_s}); }
    qint64 recordedTotal(const Downloader& downloader) const {
        return downloader.info()
            .customData.value(Downloader::DownloadedSegmentsTotalKey)
            .toLongLong();
    }

    qint64 childDone() const {
        const auto child = m_factory->lastDownload();
        return child && child->info().hasFiles() ? child->info().files[0].downloadedBytes() : -1;
    }

private Q_SLOTS:
    void initTestCase() {
        m_writers.start();
        m_tracker = QSharedPointer<QtQObjectsTracker>::create();
        QtQObjectsTracker::setInstance(m_tracker);
    }
    void cleanupTestCase() {
        m_writers.quit();
        m_writers.wait();
    }
    void init() {
        QDir(m_dir.path()).removeRecursively();
        QDir().mkpath(m_dir.path());
        m_contents.clear();
        m_firstRunPlans.clear();
        m_all.clear();
        m_meter = QSharedPointer<AbstractDownloadsSpeedMeter>::create();
        m_factory = QSharedPointer<FakeDownloadsFactory>::create();
        m_factory->setMaker([this](qint64 id, const FakeDownloadsFactory::Request& request) {
            const QString url = request.info.resourceUrl;
            Plan plan = m_firstRunPlans.take(url);
            plan.content = m_contents.value(url);
            auto child = QSharedPointer<WritingFakeDownload>::create(id, plan);
            m_tracker->registerObject(child.data(), "WritingFakeDownload");
            return child;
        });
    }
    // Whatever a test did, its downloaders and everything they made must be gone.
    void cleanup() { QTRY_COMPARE(m_tracker->monitoredObjectsCount(), 0); }

    // The output is the segments back to back, written at the file's temporary path, at its
    // final name into a file preallocated beyond the data (cut to the total), or into the file
    // the first child names; progress never goes back nor past the total.
    void byteExactOutput_data() {
        QTest::addColumn<QList<qint64>>("sizes");
        QTest::addColumn<QString>("fileRecord");
        QTest::newRow("one segment") << QList<qint64>{10000} << "temporary";
        QTest::newRow("many segments, preallocated larger")
            << QList<qint64>{5000, 1, 4096, 12345, 777} << "final";
        QTest::newRow("the first child names the file") << QList<qint64>{1500, 2500} << "none";
    }
    void byteExactOutput() {
        QFETCH(QList<qint64>, sizes);
        QFETCH(QString, fileRecord);
        const bool named = fileRecord != "none"_L1;
        const QString result = path(named ? "dst/out.bin" : "dst/segments.bin");
        const auto sources = addSegments(sizes);
        auto info = record(fileRecord == "temporary"_L1);
        if (!named)
            info.files.clear();
        info.setFlag(AbstractDownloadPersistentInfo::Private);
        if (fileRecord == "final"_L1)
            QVERIFY(writeFile(target(), QByteArray(1 << 20, 'P')));
        auto downloader = make(info, sources);
        qint64 lastDone = 0;
        bool regressed = false;
        connect(downloader.get(), &AbstractDownload::changed, this, [&] {
            const auto& file = downloader->info().files.value(0);
            regressed = regressed || file.downloadedBytes() < lastDone ||
                        (file.size >= 0 && file.downloadedBytes() > file.size);
            lastDone = file.downloadedBytes();
        });
        run(*downloader);

        QVERIFY(saved(*downloader, result));
        QVERIFY(!regressed);
        const auto& file = downloader->info().files[0];
        QCOMPARE(file.sections, (QList<AbstractDownloadFileSection>{{0, file.size, file.size}}));
        // A private download's segments stay private.
        const auto requests = m_factory->requests();
        QCOMPARE(requests.size(), sizes.size());
        for (const auto& request : requests)
            QVERIFY(request.info.testFlag(AbstractDownloadPersistentInfo::Private));
    }

    void stopInASegmentThenRestart_data() {
        QTest::addColumn<bool>("restoredRecord");
        QTest::addColumn<bool>("resumeSupported");
        QTest::newRow("same downloader") << false << true;
        QTest::newRow("restored record") << true << true;
        QTest::newRow("restored record, no resume support") << true << false;
    }
    void stopInASegmentThenRestart() {
        QFETCH(bool, restoredRecord);
        QFETCH(bool, resumeSupported);
        const auto sources = addSegments({3000, 3000, 8000, 3000});
        planNextChild(sources[2], 4000, FakeDownload::Outcome::KeepRunning, resumeSupported);
        auto downloader = make(record(), sources);
        downloader->doCommand(AbstractDownloadCommand::Start);
        QTRY_COMPARE(childDone(), 4000);
        downloader->setSegmentsSources({}, true, false); // ignored while running
        QCOMPARE(downloader->segmentsSources().size(), 4);

        downloader->doCommand(AbstractDownloadCommand::Stop);
        QTRY_VERIFY(!downloader->isRunning());
        QCOMPARE(downloader->info().files[0].sections,
                 (QList<AbstractDownloadFileSection>{{0, -1, 10000}}));

        if (restoredRecord)
            downloader = reloaded(*downloader, sources.mid(2));
        run(*downloader);
        QVERIFY(saved(*downloader, target()));
        // Only the interrupted segment is fetched again.
        QCOMPARE(m_factory->requests().size(), 5);
        const auto resumed = m_factory->requests()[3].info.files[0];
        QCOMPARE(resumed.writeOffset, 6000);
        QCOMPARE(resumed.downloadedBytes(), resumeSupported ? 4000 : 0);
    }

    // Segments finishing before the head wait in spill files, never more than the window holds,
    // and reach the file in order.
    void laterSegmentsWaitForTheHead() {
        const auto sources = addSegments({3000, 5000, 2000, 4000, 1000, 3000});
        planNextChild(sources[1], 5000, FakeDownload::Outcome::KeepRunning);
        auto downloader = make(record(), sources);
        downloader->setMaxConcurrentSegments(3);
        QSignalSpy segmentFinished(downloader.get(), &Downloader::segmentFinished);
        downloader->doCommand(AbstractDownloadCommand::Start);
        QTRY_VERIFY(segmentFinished.size() == 1 && m_factory->aliveDownloads().size() == 1);
        QCOMPARE(m_factory->requests().size(), 4);
        QCOMPARE(spillFiles().size(), 3);

        m_factory->aliveDownloads().constFirst()->finish();
        QTRY_VERIFY(!downloader->isRunning());
        QVERIFY(saved(*downloader, target()));
        QCOMPARE(m_factory->requests().size(), 6);
        QTRY_COMPARE(spillFiles(), QStringList());
    }

    // While the head only flushes its last bytes, the next segments write where the ones before
    // them end; the record takes each only once the ones before it are counted.
    void nextSegmentFollowsAFinalizingHead() {
        const auto sources = addSegments({3000, 5000, 2000});
        planNextChild(sources[0], 3000, FakeDownload::Outcome::KeepRunning);
        auto downloader = make(record(), sources);
        downloader->doCommand(AbstractDownloadCommand::Start);
        QTRY_COMPARE(childDone(), 3000);
        const auto head = m_factory->aliveDownloads().constFirst();
        QCOMPARE(m_factory->requests().size(), 1);
        head->enterFinalizing();
        QTRY_COMPARE(m_factory->requests().size(), 3);
        QTRY_COMPARE(m_factory->aliveDownloads().size(), 1); // the followers are done, uncounted
        QCOMPARE(downloader->info().customData.value(Downloader::CurrentSegmentSourceKey),
                 QVariant(sources[0].toVariantHash()));
        QCOMPARE(recordedTotal(*downloader), 0);

        head->finish();
        QTRY_VERIFY(!downloader->isRunning());
        QVERIFY(saved(*downloader, target()));
    }

    // A failing segment stops the others; the record holds only what is in the file, in order,
    // and the next start fetches again at most the segments that were in flight.
    void failingSegmentStopsAllThenResumes_data() {
        QTest::addColumn<int>("stalled");
        QTest::addColumn<int>("failing");
        QTest::addColumn<bool>("restoredRecord");
        QTest::newRow("head writing into the file, restored record") << 0 << 2 << true;
        QTest::newRow("head fetched ahead, same downloader") << 2 << 3 << false;
    }
    void failingSegmentStopsAllThenResumes() {
        QFETCH(int, stalled);
        QFETCH(int, failing);
        QFETCH(bool, restoredRecord);
        const auto sources = addSegments({3000, 3000, 3000, 3000, 3000, 3000});
        planNextChild(sources[stalled], 2000, FakeDownload::Outcome::KeepRunning);
        planNextChild(sources[failing], 1000, FakeDownload::Outcome::Fail);
        auto downloader = make(record(), sources);
        downloader->setMaxConcurrentSegments(3);
        QSignalSpy segmentFinished(downloader.get(), &Downloader::segmentFinished);
        run(*downloader);
        QCOMPARE(downloader->lastError().code, httpError.code);
        const int done = int(segmentFinished.size());
        QCOMPARE(done, stalled);
        QCOMPARE(recordedTotal(*downloader), 3000 * done);
        const qint64 claimed = downloader->info().files[0].downloadedBytes();
        QCOMPARE(claimed, stalled == 0 ? 2000 : 3000 * done);
        QCOMPARE(readFile(temporary()).left(claimed), m_all.left(claimed));
        QTRY_COMPARE(spillFiles(), QStringList());
        QTRY_COMPARE(m_factory->aliveDownloads().size(), 0);

        const qsizetype firstRun = m_factory->requests().size();
        if (restoredRecord) {
            downloader = reloaded(*downloader, sources.mid(done));
            QCOMPARE(downloader->maxConcurrentSegments(), 3);
        }
        run(*downloader);
        QVERIFY(saved(*downloader, target()));
        const auto resumed = m_factory->requests().at(firstRun).info.files[0];
        QCOMPARE(resumed.writeOffset, 3000 * done);
        QCOMPARE(resumed.downloadedBytes(), claimed - 3000 * done);
        QVERIFY(m_factory->requests().size() <= sources.size() + 3);
    }

    // A list that is not complete pauses when done; more segments continue the same file.
    void pausesAtTheEndOfAnIncompleteList() {
        const auto first = addSegments({700, 800});
        auto downloader = make(record(), first, false);
        run(*downloader);
        QVERIFY(!downloader->lastError().isSet());
        QVERIFY(!downloader->info().isFinished());
        QVERIFY(downloader->segmentsSources().isEmpty());
        QCOMPARE(downloader->info().files[0].sections,
                 (QList<AbstractDownloadFileSection>{{0, -1, 1500}}));

        downloader->setSegmentsSources(addSegments({900}), true, false);
        run(*downloader);
        QVERIFY(saved(*downloader, target()));
        QCOMPARE(m_factory->requests().size(), 3);
    }

    void stopsWithTheExactError_data() {
        QTest::addColumn<QString>("failure");
        QTest::addColumn<int>("code"); // of a generic error
        QTest::addColumn<int>("requests");
        QTest::newRow("stored source differs") << "stored" << 2 << 0;
        QTest::newRow("zero-byte segment") << "zero" << 2 << 2;
        QTest::newRow("child stops unfinished") << "unfinished" << 1 << 2;
        QTest::newRow("factory fails") << "factory" << 7 << 1;
        QTest::newRow("factory gone") << "gone" << 1 << 0;
        QTest::newRow("no file at the end") << "nofile" << 2 << 0;
    }
    void stopsWithTheExactError() {
        QFETCH(QString, failure);
        QFETCH(int, code);
        QFETCH(int, requests);
        auto sources = addSegments({100, failure == "zero"_L1 ? 0 : 100, 100});
        auto info = record();
        if (failure == "unfinished"_L1)
            planNextChild(sources[1], 50, FakeDownload::Outcome::StopUnfinished);
        if (failure == "stored"_L1) {
            info.customData.insert(Downloader::CurrentSegmentSourceKey, sources[1].toVariantHash());
            info.customData.insert(Downloader::CurrentSegmentFileKey,
                                   info.files[0].toVariantHash());
        }
        if (failure == "factory"_L1)
            m_factory->setFailure(AbstractError(3, AbstractError::GenericError, {}));
        if (failure == "nofile"_L1) {
            info.files.clear();
            sources.clear();
        }
        auto downloader = make(info, sources);
        if (failure == "gone"_L1)
            m_factory.reset();
        run(*downloader);

        QCOMPARE(downloader->lastError().code, code);
        QVERIFY(!downloader->info().isFinished());
        if (m_factory)
            QCOMPARE(m_factory->requests().size(), requests);
        // The stored segment is kept for a start with the right sources.
        if (failure == "stored"_L1)
            QCOMPARE(
                downloader->info().customData.value(Downloader::CurrentSegmentSourceKey).toHash(),
                sources[1].toVariantHash());
    }

    void existingTarget_data() {
        QTest::addColumn<bool>("interactive");
        QTest::addColumn<QList<Action>>("answers");
        QTest::addColumn<QString>("resultName");
        QTest::newRow("not interactive: renamed") << false << QList<Action>() << u"out (1).bin"_s;
        QTest::newRow("overwrite") << true << QList<Action>{Action::Overwrite} << u"out.bin"_s;
        QTest::newRow("abort, then rename")
            << true << QList<Action>{Action::Abort, Action::Rename} << u"out (1).bin"_s;
    }
    void existingTarget() {
        QFETCH(bool, interactive);
        QFETCH(QList<Action>, answers);
        QFETCH(QString, resultName);
        const auto sources = addSegments({2000, 3000});
        QVERIFY(writeFile(target(), "old"));
        auto downloader = make(record(), sources);
        askAboutExisting(*downloader, interactive);
        connect(downloader.get(), &AbstractDownload::fileExistsActionRequired, this,
                [&](int fileIndex, const QList<QString>& files) {
                    QCOMPARE(files, QList<QString>{target()});
                    downloader->fileExistsAction(fileIndex, answers.takeFirst());
                });
        run(*downloader);
        if (answers.size() == 1) { // aborted: the data is complete and kept aside
            QCOMPARE(downloader->lastError().code, AbstractDownloadFileOps::AbortedErrorCode);
            QCOMPARE(readFile(temporary()), m_all);
            run(*downloader);
        }
        QVERIFY(answers.isEmpty());
        QVERIFY(saved(*downloader, m_dir.filePath(u"dst/"_s + resultName)));
        QCOMPARE(downloader->info().files[0].name, resultName);
        const bool renamed = resultName != "out.bin"_L1;
        if (renamed)
            QCOMPARE(readFile(target()), QByteArray("old"));
        // Nothing is kept aside, and a finished record never fetches again.
        QCOMPARE(QDir(path("dst")).entryList(QDir::Files | QDir::Hidden).size(), renamed ? 2 : 1);
        QCOMPARE(QDir(path("tmp")).entryList(QDir::Files | QDir::Hidden), QStringList());
        QCOMPARE(m_factory->requests().size(), 2);
    }

    void destroyedInAnyState_data() {
        QTest::addColumn<QString>("state");
        QTest::newRow("fetching") << "fetching";
        QTest::newRow("stopping") << "stopping";
        QTest::newRow("asking") << "asking";
    }
    void destroyedInAnyState() {
        QFETCH(QString, state);
        const auto sources = addSegments({3000, 3000});
        if (state != "asking"_L1)
            planNextChild(sources[1], 1000, FakeDownload::Outcome::KeepRunning);
        QVERIFY(writeFile(target(), "old"));
        auto downloader = make(record(), sources);
        askAboutExisting(*downloader, true);
        QSignalSpy asked(downloader.get(), &AbstractDownload::fileExistsActionRequired);
        downloader->doCommand(AbstractDownloadCommand::Start);
        if (state == "asking"_L1)
            QVERIFY(asked.wait(10000));
        else
            QTRY_COMPARE(childDone(), 1000);
        if (state == "stopping"_L1) {
            m_factory->lastDownload()->setStopBehaviour(FakeDownload::StopBehaviour::Deferred);
            downloader->doCommand(AbstractDownloadCommand::Stop);
            QVERIFY(downloader->isStopping());
        }
        downloader.reset();
        QTRY_COMPARE(m_tracker->monitoredObjectsCount(), 0);
        QCOMPARE(readFile(target()), QByteArray("old"));
        if (state == "asking"_L1)
            QCOMPARE(readFile(temporary()), m_all);
    }
};

QTEST_GUILESS_MAIN(TestIndependentSegmentsDownloader)
#include "tst_independentsegmentsdownloader.moc"
