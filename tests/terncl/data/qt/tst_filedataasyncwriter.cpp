#include "support/signalrecorder.h"

#include <terncl/data/qt/filedataasyncwriter.h>

#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <csignal>
#include <memory>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

constexpr qint64 KiB = 1024;

// Deletes a writer on its own thread, as its owner on the writers thread would.
struct DeleteOnItsThread {
    void operator()(QObject* object) const {
        QMetaObject::invokeMethod(
            object, [object] { delete object; }, Qt::BlockingQueuedConnection);
    }
};
using WriterPtr = std::unique_ptr<FileDataAsyncWriter, DeleteOnItsThread>;

// Lowers the file size limit of the whole process for its lifetime, with SIGXFSZ ignored so
// that going past it is a short write or EFBIG rather than death.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &m_saved);
        m_savedHandler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit lowered = m_saved;
        lowered.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &lowered);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &m_saved);
        std::signal(SIGXFSZ, m_savedHandler);
    }

private:
    rlimit m_saved{};
    void (*m_savedHandler)(int) = nullptr;
};

qint64 allocatedBytes(const QString& path) {
    struct stat info {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? qint64(info.st_blocks) * 512
                                                                   : -1;
}

QByteArray readAll(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray pattern(qint64 size, char seed) {
    QByteArray data(size, Qt::Uninitialized);
    for (qint64 i = 0; i < size; ++i)
        data[i] = char(seed + i % 97);
    return data;
}

QString sizeEvent(const char* name, qint64 size) {
    return QStringLiteral("%1(%2)").arg(QLatin1String(name)).arg(size);
}

} // namespace

class TestFileDataAsyncWriter : public QObject {
    Q_OBJECT

private:
    QThread m_writersThread;
    QTemporaryDir m_dir;
    WriterPtr m_writer;
    SignalRecorder m_events;

    QString path(const QString& name) const { return m_dir.filePath(name); }

    FileDataAsyncWriter* writer() {
        if (!m_writer) {
            m_writer.reset(new FileDataAsyncWriter);
            m_writer->moveToThread(&m_writersThread);
            auto* w = m_writer.get();
            const AbstractDataAsyncProcessor* base = w;
            m_events.record(base, &AbstractDataAsyncProcessor::opened, QStringLiteral("opened"));
            m_events.record(base, &AbstractDataAsyncProcessor::closed, QStringLiteral("closed"));
            m_events.record(base, &AbstractDataAsyncProcessor::failed, QStringLiteral("failed"));
            m_events.record(base, &AbstractDataAsyncProcessor::dataProcessed,
                            QStringLiteral("dataProcessed"));
            m_events.record(base, &AbstractDataAsyncProcessor::allDataIsProcessed,
                            QStringLiteral("all"));
            m_events.record(w, &FileDataAsyncWriter::preallocatingProgress,
                            QStringLiteral("progress"));
            m_events.record(w, &FileDataAsyncWriter::preallocateFinished,
                            QStringLiteral("finished"));
        }
        return m_writer.get();
    }

    // Waits until the writer has handled every call made so far and compares all its signals.
    void expectEvents(const QStringList& expected) {
        writer()->emitAllDataIsProcessed();
        QTRY_COMPARE(m_events.events(), expected + QStringList{QStringLiteral("all()")});
        m_events.clear();
    }

    void expectFailure(int point, int code) {
        const AbstractError error = writer()->lastError();
        QCOMPARE(QString::fromStdString(error.category), QStringLiteral("QtFileError"));
        QCOMPARE(error.code, code);
        const QString source = QString::fromStdString(error.source);
        QVERIFY2(source.startsWith(QStringLiteral("src/terncl/data/qt/filedataasyncwriter,")) &&
                     source.endsWith(QStringLiteral("#%1").arg(point)),
                 qPrintable(source));
        QVERIFY(!error.description.empty());
        QVERIFY(!writer()->isOpen());
    }

private Q_SLOTS:
    void initTestCase() {
        QVERIFY(m_dir.isValid());
        m_writersThread.start();
    }
    void cleanup() {
        m_writer.reset();
        // Signals the writer sent before it went are delivered here, not in the next test.
        QCoreApplication::processEvents();
        m_events.clear();
    }
    void cleanupTestCase() {
        m_writersThread.quit();
        m_writersThread.wait();
    }

    void pendingDataIsWrittenAtTheOpenOffsetInCreatedFolders() {
        const QString file = path(QStringLiteral("new/deeper/a.bin"));
        writer()->processData(QByteArrayLiteral("abc"));
        writer()->processData(QByteArray());
        expectEvents({});
        QCOMPARE(writer()->processedData(), QByteArrayLiteral("abc"));

        writer()->open(file, 5);
        expectEvents({QStringLiteral("opened()"), QStringLiteral("dataProcessed(3)")});
        QVERIFY(writer()->isOpen());
        QCOMPARE(readAll(file), QByteArray(5, '\0') + "abc");
        // Opening writes the pending data but keeps it; only seek or a wipe drops it.
        QCOMPARE(writer()->processedData(), QByteArrayLiteral("abc"));

        writer()->processData(QByteArrayLiteral("de"));
        writer()->open(file, 0); // already open: nothing
        writer()->close();
        writer()->close();
        expectEvents({QStringLiteral("dataProcessed(2)"), QStringLiteral("closed()")});
        QCOMPARE(readAll(file), QByteArray(5, '\0') + "abcde");

        // Reopening keeps what the file holds and writes the kept pending data again.
        writer()->open(file, 1);
        expectEvents({QStringLiteral("opened()"), QStringLiteral("dataProcessed(3)")});
        QCOMPARE(readAll(file), QByteArray(1, '\0') + "abc" + QByteArray(1, '\0') + "abcde");

        // A successful seek drops the pending data, so the next open writes nothing.
        writer()->seek(2);
        writer()->close();
        expectEvents({QStringLiteral("closed()")});
        QVERIFY(writer()->processedData().isEmpty());
        writer()->open(file, 7);
        expectEvents({QStringLiteral("opened()")});
    }

    void writesFromAnotherThreadKeepTheirOrder() {
        const QString file = path(QStringLiteral("ordered.bin"));
        writer()->open(file, 0);
        QByteArray expected;
        QStringList events{QStringLiteral("opened()")};
        for (int i = 0; i < 50; ++i) {
            const QByteArray chunk = pattern(1000 + i * 700, char(i));
            writer()->processData(chunk);
            expected += chunk;
            events += sizeEvent("dataProcessed", chunk.size());
        }
        expectEvents(events);
        QCOMPARE(readAll(file), expected);
    }

    void existingOnlyDoesNotCreate() {
        const QString file = path(QStringLiteral("absent/x.bin"));
        writer()->open(file, 0, true);
        expectEvents({QStringLiteral("failed()")});
        expectFailure(61, QFileDevice::OpenError);
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("absent"))));
        QVERIFY(writer()->lastErrorTime().isValid());
    }

    void unwritableLocationFailsToOpen() {
        // Running as root, permissions do not stop a write; a file used as a folder does.
        QFile plain(path(QStringLiteral("plain")));
        QVERIFY(plain.open(QIODevice::WriteOnly));
        plain.close();
        writer()->processData(QByteArrayLiteral("kept"));
        writer()->open(path(QStringLiteral("plain/sub/x.bin")), 0);
        expectEvents({QStringLiteral("failed()")});
        expectFailure(61, QFileDevice::OpenError);
        QCOMPARE(writer()->processedData(), QByteArrayLiteral("kept"));
    }

    void badPositionsFail() {
        writer()->open(path(QStringLiteral("seek.bin")), -1);
        expectEvents(
            {QStringLiteral("opened()"), QStringLiteral("failed()"), QStringLiteral("closed()")});
        expectFailure(73, QFileDevice::PositionError);

        writer()->open(path(QStringLiteral("seek.bin")), 0);
        expectEvents({QStringLiteral("opened()")});
        QVERIFY(!writer()->lastError().isSet()); // open clears the last error
        writer()->seek(-1);
        expectEvents({QStringLiteral("failed()"), QStringLiteral("closed()")});
        expectFailure(95, QFileDevice::PositionError);
    }

    void fullDeviceFailsAndDropsDataUntilCleared() {
        const QString full = QStringLiteral("/dev/full");
        if (!QFileInfo::exists(full))
            QSKIP("this system has no /dev/full");
        // A small write is buffered: the full device shows at the flush.
        writer()->open(full, 0);
        writer()->processData(QByteArrayLiteral("small"));
        expectEvents(
            {QStringLiteral("opened()"), QStringLiteral("failed()"), QStringLiteral("closed()")});
        expectFailure(384, QFileDevice::ResourceError);
        const QDateTime failedAt = writer()->lastErrorTime();

        // While the error stands, data is dropped, not even kept as pending data.
        writer()->processData(QByteArrayLiteral("dropped"));
        expectEvents({});
        QVERIFY(writer()->processedData().isEmpty());
        writer()->clearLastError();
        QVERIFY(!writer()->lastError().isSet());
        QVERIFY(writer()->lastErrorTime() >= failedAt);
        writer()->processData(QByteArrayLiteral("pending"));
        expectEvents({});
        QCOMPARE(writer()->processedData(), QByteArrayLiteral("pending"));
        writer()->wipePendingDataOut();
        expectEvents({});
        QVERIFY(writer()->processedData().isEmpty());

        // A write larger than the file buffer goes straight to the device.
        writer()->open(full, 0);
        writer()->processData(QByteArray(64 * KiB, 'x'));
        expectEvents(
            {QStringLiteral("opened()"), QStringLiteral("failed()"), QStringLiteral("closed()")});
        expectFailure(140, QFileDevice::ResourceError);
    }

    void shortWritesAreRetriedUntilTheLimitStops() {
        const QString file = path(QStringLiteral("limited.bin"));
        writer()->open(file, 0);
        expectEvents({QStringLiteral("opened()")});
        const QByteArray data = pattern(200 * KiB, 'a');
        {
            const FileSizeLimit limit(100 * KiB);
            writer()->processData(data);
            expectEvents({QStringLiteral("failed()"), QStringLiteral("closed()")});
        }
        expectFailure(140, QFileDevice::WriteError);
        QCOMPARE(readAll(file), data.left(100 * KiB));
    }

    void preallocationBeyondTheLimitFails() {
        const QString file = path(QStringLiteral("prealloc-limited.bin"));
        const FileSizeLimit limit(200 * KiB);
        writer()->schedulePreallocateOnOpen(1024 * KiB);
        writer()->open(file, 0);
        QTRY_VERIFY(m_events.events().contains(QStringLiteral("failed()")));
        expectFailure(325, QFileDevice::WriteError);
        QVERIFY(QFileInfo(file).size() <= 200 * KiB);
    }

    void largerFileIsCutDownToTheTarget() {
        const QString file = path(QStringLiteral("large.bin"));
        QFile large(file);
        QVERIFY(large.open(QIODevice::WriteOnly));
        QVERIFY(large.resize(3 * 1024 * KiB));
        large.close();
        writer()->schedulePreallocateOnOpen(1024 * KiB);
        writer()->open(file, 0);
        expectEvents({QStringLiteral("opened()"), sizeEvent("finished", 1024 * KiB)});
        QCOMPARE(QFileInfo(file).size(), 1024 * KiB);
    }

    void preallocationClaimsTheSpaceAroundExistingData() {
        const QString file = path(QStringLiteral("resumed.bin"));
        const QByteArray existing = pattern(300 * KiB, 'r');
        QFile resumed(file);
        QVERIFY(resumed.open(QIODevice::WriteOnly));
        QCOMPARE(resumed.write(existing), existing.size());
        resumed.close();

        const qint64 target = 9 * 1024 * KiB + 123;
        writer()->schedulePreallocateOnOpen(target);
        writer()->open(file, existing.size());
        const QByteArray appended = pattern(50 * KiB, 'w');
        writer()->processData(appended);
        QTRY_VERIFY(m_events.events().contains(sizeEvent("finished", target)));
        writer()->emitAllDataIsProcessed();
        QTRY_VERIFY(m_events.events().contains(QStringLiteral("all()")));

        const QStringList events = m_events.events();
        QCOMPARE(events.first(), QStringLiteral("opened()"));
        // 300 KiB rounds down to 256 KiB, so the first chunk ends at 384 KiB.
        QCOMPARE(events.at(1), sizeEvent("progress", 384 * KiB));
        QVERIFY(events.contains(sizeEvent("dataProcessed", appended.size())));
        QVERIFY(!events.contains(QStringLiteral("failed()")));

        QSet<qint64> fillPositions{target - 1};
        for (const QString& event : events) {
            if (event.startsWith(QStringLiteral("progress(")))
                fillPositions.insert(event.mid(9).chopped(1).toLongLong() - 1);
        }
        const QByteArray content = readAll(file);
        QCOMPARE(content.size(), target);
        QCOMPARE(content.left(existing.size()), existing);
        QCOMPARE(content.mid(existing.size(), appended.size()), appended);
        for (qint64 i = existing.size() + appended.size(); i < target; ++i) {
            const char expected = fillPositions.contains(i) ? 'P' : '\0';
            if (content.at(i) != expected)
                QFAIL(qPrintable(QStringLiteral("byte %1 is %2").arg(i).arg(int(content.at(i)))));
        }
        QVERIFY2(allocatedBytes(file) >= target, qPrintable(QString::number(allocatedBytes(file))));
    }
};

QTEST_GUILESS_MAIN(TestFileDataAsyncWriter)
#include "tst_filedataasyncwriter.moc"
