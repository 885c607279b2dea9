#include "support/signalrecorder.h"

#include <terncl/data/qt/memorydataasyncwriter.h>

#include <QTest>
#include <QThread>

class TestMemoryDataAsyncWriter : public QObject {
    Q_OBJECT

private:
    QThread m_writersThread;
    QByteArray m_target;
    MemoryDataAsyncWriter* m_writer = nullptr;
    SignalRecorder m_events;

    // Waits until the writer's thread has handled every call so far; compares all signals.
    void expectEvents(const char* expected) {
        m_writer->emitAllDataIsProcessed();
        const QStringList events =
            QString::fromUtf8(expected).split(QLatin1Char(' '), Qt::SkipEmptyParts)
            << QStringLiteral("all()");
        QTRY_COMPARE(m_events.events(), events);
        m_events.clear();
    }

private Q_SLOTS:
    void initTestCase() { m_writersThread.start(); }
    void init() {
        m_target.clear();
        m_writer = new MemoryDataAsyncWriter(&m_target);
        m_writer->moveToThread(&m_writersThread);
        const AbstractDataAsyncProcessor* base = m_writer;
        m_events.record(base, &AbstractDataAsyncProcessor::opened, QStringLiteral("opened"));
        m_events.record(base, &AbstractDataAsyncProcessor::closed, QStringLiteral("closed"));
        m_events.record(base, &AbstractDataAsyncProcessor::dataProcessed, QStringLiteral("data"));
        m_events.record(base, &AbstractDataAsyncProcessor::allDataIsProcessed,
                        QStringLiteral("all"));
    }
    void cleanup() {
        QMetaObject::invokeMethod(
            m_writer, [this] { delete m_writer; }, Qt::BlockingQueuedConnection);
        QCoreApplication::processEvents();
        m_events.clear();
    }
    void cleanupTestCase() {
        m_writersThread.quit();
        m_writersThread.wait();
    }

    void writesAtOffsetsAndFillsGaps() {
        m_writer->processData(QByteArrayLiteral("early"));
        QCOMPARE(m_writer->processedData(), QByteArrayLiteral("early"));
        m_writer->open(QStringLiteral("ignored"), 10, true);
        expectEvents("opened() data(5)");
        QVERIFY(m_writer->isOpen());
        QCOMPARE(m_target, QByteArray(10, '\0') + QByteArrayLiteral("early"));

        // processData runs on the calling thread: the target has changed on return.
        m_writer->processData(QByteArrayLiteral("12"));
        QCOMPARE(m_target.mid(10), QByteArrayLiteral("early12"));
        m_writer->processData(QByteArray());
        expectEvents("data(2) data(0)");

        // Inside the existing length, bytes are overwritten and the target never shrinks.
        m_writer->seek(11);
        expectEvents("");
        m_writer->processData(QByteArrayLiteral("AR"));
        m_writer->processData(QByteArrayLiteral("LY"));
        QCOMPARE(m_target.size(), 17);
        QCOMPARE(m_target.mid(10), QByteArrayLiteral("eARLY12"));
    }

    void seekAndCloseDropPendingData() {
        m_writer->processData(QByteArrayLiteral("one"));
        m_writer->seek(4);
        expectEvents("");
        QVERIFY(m_writer->processedData().isEmpty());

        m_writer->processData(QByteArrayLiteral("two"));
        m_writer->open(QString(), 0);
        m_writer->open(QString(), 8); // already open: nothing
        m_writer->close();
        m_writer->close();
        expectEvents("opened() data(3) closed()");
        QCOMPARE(m_target, QByteArrayLiteral("two"));
        QVERIFY(m_writer->processedData().isEmpty());

        m_writer->processData(QByteArrayLiteral("three"));
        m_writer->wipePendingDataOut();
        m_writer->open(QString(), 1);
        expectEvents("opened()");
        QCOMPARE(m_target, QByteArrayLiteral("two"));
    }
};

QTEST_GUILESS_MAIN(TestMemoryDataAsyncWriter)
#include "tst_memorydataasyncwriter.moc"
