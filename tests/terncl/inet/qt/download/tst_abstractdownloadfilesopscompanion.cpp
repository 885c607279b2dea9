#include "support/testfiles.h"
#include <terncl/inet/qt/download/abstractdownloadfilesopscompanion.h>
#include <terncl/qt/media/ffmpeg/qtffmpegavmerger.h>

#include "support/fakedownload.h"
#include "support/ffmpegtestmedia.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

namespace {
using Companion = AbstractDownloadFilesOpsCompanion;

QList<bool> edges(const QSignalSpy& spy) {
    QList<bool> list;
    for (const auto& args : spy)
        list << args.at(0).toBool();
    return list;
}
} // namespace

class TestAbstractDownloadFilesOpsCompanion : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QThread m_writers;
    FakeDownload m_download;
    AbstractDownloadPersistentInfo m_info;
    AbstractDownloadSettings m_settings;
    QByteArray m_fmp4; // a whole fragmented MP4 stream, segments back to back

    QString path(const QString& name) const { return m_dir.filePath(name); }

    // A finished record whose one file waits at path(tmpName) with content.
    void setRecord(const QString& name, const QString& tmpName, const QByteArray& content) {
        m_info = {};
        m_info.destinationPath = path(QStringLiteral("dst"));
        m_info.state = AbstractDownloadPersistentInfo::Finished;
        AbstractDownloadFileInfo file;
        file.name = name;
        file.size = content.size();
        file.sections = {{0, file.size, file.size}};
        file.tmpPath = path(tmpName);
        m_info.files = {file};
        writeFile(file.tmpPath, content);
    }

    QSharedPointer<QtFfmpegAvMerger> makeMerger() const {
        return QSharedPointer<QtFfmpegAvMerger>::create(QSharedPointer<QtFfmpegManager>::create(
            QFileInfo(FfmpegTestMedia::ffmpeg()).path(), QStringLiteral("ffmpeg"), nullptr));
    }

private Q_SLOTS:
    void initTestCase() {
        m_writers.start();
        if (FfmpegTestMedia::ffmpeg().isEmpty())
            return;
        QString error;
        QVERIFY2(FfmpegTestMedia::makeHls(path(QStringLiteral("hls")), 2, 1, true, &error),
                 qPrintable(error));
        for (const auto& file :
             FfmpegTestMedia::segmentFiles(path(QStringLiteral("hls/index.m3u8"))))
            m_fmp4 += readFile(file);
    }
    void cleanupTestCase() {
        m_writers.quit();
        m_writers.wait();
    }
    void init() {
        QDir(path(QStringLiteral("dst"))).removeRecursively();
        QDir(path(QStringLiteral("tmp"))).removeRecursively();
    }

    void standardOperationRunsOneAtATime() {
        setRecord(QStringLiteral("a.bin"), QStringLiteral("tmp/a.part"), "new");
        Companion companion(&m_download, m_info, m_settings, {});
        companion.setWritersThread(&m_writers);
        QSignalSpy performing(&companion, &Companion::performingFilesOperations);
        QSignalSpy finished(&companion, &Companion::operationFinished);
        QSignalSpy changed(&companion, &Companion::changed);
        QVERIFY(companion.isStandardOpRequired());
        companion.performRequiredStandardOp();
        companion.performRequiredStandardOp(); // ignored: one is running
        QCOMPARE(companion.operation(), Companion::StandardOperation);
        QVERIFY(finished.wait(10000));
        QTest::qWait(0);

        QCOMPARE(finished.size(), 1);
        QVERIFY(!finished[0][1].value<AbstractError>().isSet());
        QCOMPARE(changed.size(), 1);
        QCOMPARE(edges(performing), (QList<bool>{true, false}));
        QCOMPARE(readFile(path(QStringLiteral("dst/a.bin"))), QByteArray("new"));
        QVERIFY(m_info.files[0].tmpPath.isEmpty());
        QVERIFY(!companion.isStandardOpRequired());
        QVERIFY(!companion.isPerformingOperation());
    }

    // Inside an outer files operation, only the outer edges are signalled.
    void selfMergeWithoutMergerEndsAtOnce() {
        setRecord(QStringLiteral("v.m4s"), QStringLiteral("tmp/v.m4s"), "data");
        Companion companion(&m_download, m_info, m_settings, {});
        QSignalSpy finished(&companion, &Companion::operationFinished);
        QSignalSpy performing(&companion, &Companion::performingFilesOperations);
        companion.beginPerformFilesOperations();
        companion.performSelfMerge();
        QCOMPARE(finished.size(), 1);
        QCOMPARE(finished[0][0].value<Companion::OperationType>(), Companion::SelfMerge);
        QCOMPARE(finished[0][1].value<AbstractError>().code,
                 Companion::SelfMergeNotStartedErrorCode);
        QCOMPARE(finished[0][1].value<AbstractError>().category,
                 std::string(AbstractError::GenericError));
        QCOMPARE(m_info.files[0].name, QStringLiteral("v.m4s"));
        QCOMPARE(edges(performing), QList<bool>{true});
        QVERIFY(companion.isPerformingFilesOps());
        companion.finishPerformFilesOperations();
        companion.finishPerformFilesOperations(); // unbalanced: ignored
        QCOMPARE(edges(performing), (QList<bool>{true, false}));
        QVERIFY(!companion.isPerformingFilesOps());
    }

    // A self-merge that fails or is aborted leaves the file as it was. (The downloader's test
    // remuxes real segments through a companion.)
    void selfMergeFailsOrIsAborted_data() {
        QTest::addColumn<bool>("abort");
        QTest::newRow("not media") << false;
        QTest::newRow("aborted") << true;
    }
    void selfMergeFailsOrIsAborted() {
        QFETCH(bool, abort);
        if (m_fmp4.isEmpty())
            QSKIP("ffmpeg is not installed");
        const QByteArray content = abort ? m_fmp4 : QByteArray(5000, 'x');
        setRecord(QStringLiteral("Clip.M4S"), QStringLiteral("tmp/Clip.M4S"), content);
        const auto merger = makeMerger();
        Companion companion(&m_download, m_info, m_settings, merger);
        QSignalSpy finished(&companion, &Companion::operationFinished);
        companion.performSelfMerge();
        QCOMPARE(companion.operation(), Companion::SelfMerge);
        Q_EMIT merger->progress(merger->nextId(), 5, 10); // another merge: ignored
        QCOMPARE(companion.mergeProgress(), std::make_pair(qint64(-1), qint64(-1)));
        if (abort)
            companion.abortOperation();
        QVERIFY(finished.wait(30000));

        QVERIFY(finished[0][1].value<AbstractError>().isSet());
        QCOMPARE(companion.mergeProgress(), std::make_pair(qint64(-1), qint64(-1)));
        QVERIFY(!QFile::exists(path(QStringLiteral("tmp/Clip.mp4"))));
        QCOMPARE(readFile(path(QStringLiteral("tmp/Clip.M4S"))), content);
        QCOMPARE(m_info.files[0].name, QStringLiteral("Clip.M4S"));
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownloadFilesOpsCompanion)
#include "tst_abstractdownloadfilesopscompanion.moc"
