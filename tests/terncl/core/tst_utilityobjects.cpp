#include <terncl/core/qtqobjectstracker.h>
#include <terncl/core/qtstringlist.h>
#include <terncl/core/qttoggleswitchobject.h>

#include "support/recordinglogger.h"

#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <memory>

namespace {
QStringList strings(const char* words) {
    return QString::fromLatin1(words).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}
} // namespace

class TestUtilityObjects : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void stringListReportsMembershipChanges() {
        QtStringList list(strings("a b"));
        QSignalSpy changed(&list, &QtStringList::changed);
        QSignalSpy reset(&list, &QtStringList::wasReset);

        list.set(strings("b c"));
        // Reordering and duplicates change the stored list but not its membership.
        list.set(strings("c b c"));
        QCOMPARE(list.list(), strings("c b c"));
        // Duplicates among the added strings are reported once, in order of appearance.
        list.set(strings("x y x"));
        QCOMPARE(changed.count(), 2);
        QCOMPARE(changed.at(0), (QVariantList{strings("c"), strings("a")}));
        QCOMPARE(changed.at(1), (QVariantList{strings("x y"), strings("c b")}));

        list.reset({});
        QCOMPARE(reset.count(), 1);
        QCOMPARE(changed.count(), 2);
        QVERIFY(list.list().isEmpty());
    }

    void toggleSwitchSignalsRealChanges() {
        QtToggleSwitchObject toggle;
        QSignalSpy spy(&toggle, &QtToggleSwitchObject::switchedOnChanged);
        toggle.setSwitchedOn(false); // already off: no signal
        toggle.toggle();
        QVERIFY(toggle.isSwitchedOn());
        QCOMPARE(spy.count(), 1);
    }

    void trackerReportsLeftoversByTypeAndOutlivingObjects() {
        RecordingLogger logger;
        auto tracker = QSharedPointer<QtQObjectsTracker>::create();
        QtQObjectsTracker::setInstance(tracker);
        QCOMPARE(QtQObjectsTracker::instance(), tracker);

        auto first = std::make_unique<QObject>();
        auto second = std::make_unique<QObject>();
        auto other = std::make_unique<QObject>();
        tracker->registerObject(first.get(), "FileDataAsyncWriter");
        tracker->registerObject(second.get(), "FileDataAsyncWriter");
        tracker->registerObject(other.get(), "Other");
        tracker->registerObject(nullptr, "Null");
        other.reset();
        tracker->verifyNoObjectsLeft();
        QCOMPARE(
            logger.lines(),
            (QStringList{
                QStringLiteral("[QtQObjectsTracker]: WARNING: verifyNoObjectsLeft has failed:"),
                QStringLiteral("[QtQObjectsTracker]: FileDataAsyncWriter: 2 object(s)")}));

        first.reset();
        logger.clear();
        tracker.reset();
        QVERIFY(QtQObjectsTracker::instance().isNull());
        second.reset();
        QCOMPARE(logger.lines(),
                 QStringList{QStringLiteral(
                     "[QtQObjectsTracker]: WARNING: a monitored object outlived the tracker")});
    }

    void objectDestroyedOnAnotherThreadLeavesTheMap() {
        RecordingLogger logger;
        auto tracker = QSharedPointer<QtQObjectsTracker>::create();
        QtQObjectsTracker::setInstance(tracker);
        QThread thread;
        thread.start();
        auto* object = new QObject;
        object->moveToThread(&thread);
        tracker->registerObject(object, "Worker");
        QCOMPARE(tracker->monitoredObjectsCount(), 1);
        QMetaObject::invokeMethod(object, [object] { delete object; });
        QTRY_COMPARE(tracker->monitoredObjectsCount(), 0);
        thread.quit();
        QVERIFY(thread.wait());
        tracker->verifyNoObjectsLeft();
        QVERIFY(logger.lines().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestUtilityObjects)
#include "tst_utilityobjects.moc"
