#include "support/signalrecorder.h"
#include "support/testfiles.h"

#include <terncl/data/qt/filedataasyncwriter.h>
#include <terncl/data/qt/memorydataasyncwriter.h>

#include <QFile>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <cerrno>
#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

constexpr qint64 KiB = 1024;
QString s(const char* text) {
    return QString::fromUtf8(text);
}

// Lowers the file size limit of the whole process until the returned guard ends, with SIGXFSZ
// ignored so that going past the limit is a short write or EFBIG.
auto fileSizeLimit(rlim_t bytes) {
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit lowered{bytes, saved.rlim_max};
    setrlimit(RLIMIT_FSIZE, &lowered);
    return qScopeGuard([saved, handler] {
        setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, handler);
    });
}

QByteArray pattern(qint64 size, char seed) {
    QByteArray data(size, Qt::Uninitialized);
    for (qint64 i = 0; i < size; ++i)
        data[i] = char(seed + i % 97);
    return data;
}

} // namespace

class TestDataAsyncWriters : public QObject {
    Q_OBJECT

private:
    QThread m_writersThread;
    QTemporaryDir m_dir;
    AbstractDataAsyncProcessor* m_processor = nullptr; // the writer under test
    FileDataAsyncWriter* m_writer = nullptr;           // when it writes into files
    QByteArray m_target;                               // what a memory writer writes into
    SignalRecorder m_events;

    QString path(const char* name) const { return m_dir.filePath(s(name)); }

    // Waits until the writer has handled every call made so far and compares all its signals,
    // given as one text separated by spaces.
    void expectEvents(const char* expected) {
        m_processor->emitAllDataIsProcessed();
        const QStringList events = s(expected).split(QLatin1Char(' '), Qt::SkipEmptyParts)
                                   << s("all()");
        QTRY_COMPARE(m_events.events(), events);
        m_events.clear();
    }

    void expectFailure(int code) {
        const AbstractError error = m_writer->lastError();
        QCOMPARE(error.category, std::string("QtFileError"));
        QCOMPARE(error.code, code);
        QVERIFY(!error.description.empty());
        QVERIFY(!m_writer->isOpen());
    }

private Q_SLOTS:
    void initTestCase() {
        QVERIFY(m_dir.isValid());
        m_writersThread.start();
    }
    // Tests named "memory..." drive a memory writer, the others a file writer.
    void init() {
        m_target.clear();
        m_writer = nullptr;
        if (QByteArray(QTest::currentTestFunction()).startsWith("memory"))
            m_processor = new MemoryDataAsyncWriter(&m_target);
        else
            m_processor = m_writer = new FileDataAsyncWriter;
        m_processor->moveToThread(&m_writersThread);
        const AbstractDataAsyncProcessor* base = m_processor;
        m_events.record(base, &AbstractDataAsyncProcessor::opened, s("opened"));
        m_events.record(base, &AbstractDataAsyncProcessor::closed, s("closed"));
        m_events.record(base, &AbstractDataAsyncProcessor::failed, s("failed"));
        m_events.record(base, &AbstractDataAsyncProcessor::dataProcessed, s("data"));
        m_events.record(base, &AbstractDataAsyncProcessor::allDataIsProcessed, s("all"));
        if (!m_writer)
            return;
        m_events.record(m_writer, &FileDataAsyncWriter::preallocatingProgress, s("progress"));
        m_events.record(m_writer, &FileDataAsyncWriter::preallocateFinished, s("finished"));
    }
    void cleanup() {
        // Deleted on its own thread, as its owner on the writers thread would.
        QMetaObject::invokeMethod(
            m_processor, [this] { delete m_processor; }, Qt::BlockingQueuedConnection);
        QCoreApplication::processEvents(); // signals of the old writer end here
        m_events.clear();
    }
    void cleanupTestCase() {
        m_writersThread.quit();
        m_writersThread.wait();
    }

    void pendingDataIsWrittenAtTheOpenOffsetInCreatedFolders() {
        const QString file = path("new/deeper/a.bin");
        m_writer->processData(QByteArrayLiteral("abc"));
        m_writer->processData(QByteArray());
        expectEvents("");
        QCOMPARE(m_writer->processedData(), QByteArrayLiteral("abc"));

        m_writer->open(file, 5);
        expectEvents("opened() data(3)");
        QVERIFY(m_writer->isOpen());
        m_writer->processData(QByteArrayLiteral("de"));
        m_writer->open(file, 0); // already open: nothing
        m_writer->close();
        m_writer->close();
        expectEvents("data(2) closed()");
        QCOMPARE(readFile(file), QByteArray(5, '\0') + "abcde");

        // Opening keeps the pending data, so a reopening writes it again at its offset.
        m_writer->open(file, 1);
        expectEvents("opened() data(3)");
        QCOMPARE(readFile(file), QByteArray(1, '\0') + "abc" + QByteArray(1, '\0') + "abcde");
        // A successful seek drops it.
        m_writer->seek(2);
        m_writer->close();
        m_writer->open(file, 7);
        expectEvents("closed() opened()");
        QVERIFY(m_writer->processedData().isEmpty());
    }

    void openFailures() {
        m_writer->open(path("absent/x.bin"), 0, true);
        expectEvents("failed()");
        expectFailure(QFileDevice::OpenError);
        QVERIFY(!QFileInfo::exists(path("absent")));

        // Running as root, permissions stop nothing; a file used as a folder does.
        QVERIFY(writeFile(path("plain"), {}));
        m_writer->clearLastError();
        m_writer->processData(QByteArrayLiteral("kept"));
        m_writer->open(path("plain/sub/x.bin"), 0);
        expectEvents("failed()");
        expectFailure(QFileDevice::OpenError);
        QCOMPARE(m_writer->processedData(), QByteArrayLiteral("kept"));
        m_writer->wipePendingDataOut();

        m_writer->open(path("seek.bin"), -1);
        expectEvents("opened() failed() closed()");
        expectFailure(QFileDevice::PositionError);
        m_writer->open(path("seek.bin"), 0);
        expectEvents("opened()");
        m_writer->seek(-1);
        expectEvents("failed() closed()");
        expectFailure(QFileDevice::PositionError);
    }

    void fullDeviceFailsAndDropsDataUntilCleared() {
        if (!QFileInfo::exists(s("/dev/full")))
            QSKIP("this system has no /dev/full");
        // Small and large writes alike go straight to the device and say what ran out.
        for (const qint64 size : {qint64(5), 64 * KiB}) {
            m_writer->open(s("/dev/full"), 0);
            m_writer->processData(QByteArray(size, 'x'));
            expectEvents("opened() failed() closed()");
            expectFailure(QFileDevice::ResourceError);
            QCOMPARE(QString::fromStdString(m_writer->lastError().description),
                     qt_error_string(ENOSPC));
        }

        m_writer->processData(QByteArrayLiteral("dropped"));
        expectEvents("");
        QVERIFY(m_writer->processedData().isEmpty());
        m_writer->clearLastError(); // data is kept again
        m_writer->processData(QByteArrayLiteral("pending"));
        expectEvents("");
        QCOMPARE(m_writer->processedData(), QByteArrayLiteral("pending"));
    }

    void sizeLimitStopsShortWritesAndPreallocation() {
        const QByteArray data = pattern(200 * KiB, 'a');
        const auto limit = fileSizeLimit(100 * KiB);
        m_writer->open(path("limited.bin"), 0);
        m_writer->processData(data);
        expectEvents("opened() failed() closed()");
        expectFailure(QFileDevice::WriteError);
        QCOMPARE(readFile(path("limited.bin")), data.left(100 * KiB));
        // A small write that the limit cuts short names the cause too.
        m_writer->open(path("limited-small.bin"), 0);
        m_writer->processData(data.left(96 * KiB));
        m_writer->processData(data.mid(96 * KiB, 8 * KiB));
        expectEvents("opened() data(98304) failed() closed()");
        expectFailure(QFileDevice::WriteError);
        QCOMPARE(QString::fromStdString(m_writer->lastError().description), qt_error_string(EFBIG));

        const auto largerLimit = fileSizeLimit(200 * KiB);
        m_writer->schedulePreallocateOnOpen(1024 * KiB);
        m_writer->open(path("prealloc-limited.bin"), 0);
        QTRY_VERIFY(m_events.events().contains(s("failed()")));
        expectFailure(QFileDevice::WriteError);
    }

    void largerFileIsCutDownToTheTarget() {
        QVERIFY(writeFile(path("large.bin"), {}) &&
                QFile::resize(path("large.bin"), 3 * 1024 * KiB));
        m_writer->schedulePreallocateOnOpen(1024 * KiB);
        m_writer->open(path("large.bin"), 0);
        expectEvents("opened() finished(1048576)");
        QCOMPARE(QFileInfo(path("large.bin")).size(), 1024 * KiB);
    }

    void preallocationClaimsTheSpaceAroundTheData() {
        const QString file = path("resumed.bin");
        const QByteArray existing = pattern(300 * KiB, 'r');
        QVERIFY(writeFile(file, existing));
        const qint64 target = 9 * 1024 * KiB + 123;
        m_writer->schedulePreallocateOnOpen(target);
        m_writer->open(file, existing.size());
        const QByteArray appended = pattern(50 * KiB, 'w');
        m_writer->processData(appended);
        QTRY_VERIFY(m_events.events().contains(QStringLiteral("finished(%1)").arg(target)));
        m_writer->emitAllDataIsProcessed();
        QTRY_VERIFY(m_events.events().contains(s("all()")));

        const QStringList events = m_events.events();
        // 300 KiB rounds down to 256 KiB, so the first chunk ends at 384 KiB.
        QCOMPARE(events.mid(0, 2), QStringList({s("opened()"), s("progress(393216)")}));
        QVERIFY(events.contains(s("data(51200)")) && !events.contains(s("failed()")));
        QSet<qint64> fillBytes{target - 1};
        for (const QString& event : events) {
            if (event.startsWith(s("progress(")))
                fillBytes.insert(event.mid(9).chopped(1).toLongLong() - 1);
        }
        const QByteArray content = readFile(file);
        QCOMPARE(content.size(), target);
        QCOMPARE(content.left(existing.size()), existing);
        QCOMPARE(content.mid(existing.size(), appended.size()), appended);
        for (qint64 i = existing.size() + appended.size(); i < target; ++i) {
            if (content.at(i) != (fillBytes.contains(i) ? 'P' : '\0'))
                QFAIL(qPrintable(QStringLiteral("unexpected byte at %1").arg(i)));
        }
        struct stat info {};
        QCOMPARE(::stat(QFile::encodeName(file).constData(), &info), 0);
        QVERIFY2(qint64(info.st_blocks) * 512 >= target, "the preallocated file is sparse");
    }

    // Pending data goes in at the open offset (a gap before it filled with zeros); later data
    // overwrites in place after a seek, and the target never shrinks. A seek or a wipe drops
    // pending data.
    void memoryWritesAtOffsetsAndFillsGaps() {
        m_processor->processData(QByteArrayLiteral("one"));
        m_processor->seek(4);
        expectEvents("");
        m_processor->processData(QByteArrayLiteral("early"));
        m_processor->open(QStringLiteral("ignored"), 10, true);
        expectEvents("opened() data(5)");
        QCOMPARE(m_target, QByteArray(10, '\0') + QByteArrayLiteral("early"));

        // Seeking and closing are queued to the writer's thread, writing is not: wait for them.
        m_processor->processData(QByteArrayLiteral("12"));
        m_processor->seek(11);
        expectEvents("data(2)");
        m_processor->processData(QByteArrayLiteral("AR"));
        m_processor->processData(QByteArrayLiteral("LY"));
        m_processor->close();
        expectEvents("data(2) data(2) closed()");
        m_processor->processData(QByteArrayLiteral("three"));
        m_processor->wipePendingDataOut();
        m_processor->open(QString(), 1);
        expectEvents("opened()");
        QCOMPARE(m_target, QByteArray(10, '\0') + QByteArrayLiteral("eARLY12"));
    }
};

QTEST_GUILESS_MAIN(TestDataAsyncWriters)
#include "tst_filedataasyncwriter.moc"
