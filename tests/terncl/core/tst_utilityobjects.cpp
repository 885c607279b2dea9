#include <terncl/core/qtqobjectstracker.h>
#include <terncl/core/qtstringlist.h>
#include <terncl/core/qttoggleswitchobject.h>

#include "support/recordinglogger.h"

#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <memory>

class TestUtilityObjects : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void stringListReportsMembershipChanges() {
        QtStringList list({QStringLiteral("a"), QStringLiteral("b")});
        QSignalSpy changed(&list, &QtStringList::changed);
        QSignalSpy reset(&list, &QtStringList::wasReset);

        list.set({QStringLiteral("b"), QStringLiteral("c")});
        QCOMPARE(changed.count(), 1);
        QCOMPARE(changed.at(0).at(0).toStringList(), QStringList{QStringLiteral("c")});
        QCOMPARE(changed.at(0).at(1).toStringList(), QStringList{QStringLiteral("a")});
        QCOMPARE(list.list(), (QStringList{QStringLiteral("b"), QStringLiteral("c")}));

        // Reordering and duplicates change the stored list but not its membership.
        list.set({QStringLiteral("c"), QStringLiteral("b"), QStringLiteral("c")});
        QCOMPARE(changed.count(), 1);
        QCOMPARE(list.list().size(), 3);

        // Duplicates among the added strings are reported once, in order of appearance.
        list.set({QStringLiteral("x"), QStringLiteral("y"), QStringLiteral("x")});
        QCOMPARE(changed.count(), 2);
        QCOMPARE(changed.at(1).at(0).toStringList(),
                 (QStringList{QStringLiteral("x"), QStringLiteral("y")}));
        QCOMPARE(changed.at(1).at(1).toStringList(),
                 (QStringList{QStringLiteral("c"), QStringLiteral("b")}));

        list.reset({});
        QCOMPARE(reset.count(), 1);
        QCOMPARE(changed.count(), 2);
        QVERIFY(list.list().isEmpty());
    }

    void toggleSwitchSignalsRealChanges() {
        QtToggleSwitchObject toggle;
        QSignalSpy spy(&toggle, &QtToggleSwitchObject::switchedOnChanged);
        toggle.setSwitchedOn(false);
        QCOMPARE(spy.count(), 0);
        QVERIFY(toggle.setProperty("switchedOn", true));
        QCOMPARE(spy.count(), 1);
        QVERIFY(toggle.isSwitchedOn());
        toggle.toggle();
        QCOMPARE(spy.count(), 2);
        QCOMPARE(toggle.property("switchedOn").toBool(), false);

        QtToggleSwitchObject::registerMetatypes();
        QVERIFY(QMetaType::fromName("QSharedPointer<QtToggleSwitchObject>").isValid());
    }

    void trackerReportsLeftoversByType() {
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
        QCOMPARE(tracker->monitoredObjectsCount(), 3);

        other.reset();
        QCOMPARE(tracker->monitoredObjectsCount(), 2);
        tracker->verifyNoObjectsLeft();
        QCOMPARE(
            logger.lines(),
            (QStringList{
                QStringLiteral("[QtQObjectsTracker]: WARNING: verifyNoObjectsLeft has failed:"),
                QStringLiteral("[QtQObjectsTracker]: FileDataAsyncWriter: 2 object(s)")}));

        first.reset();
        second.reset();
        logger.clear();
        tracker->verifyNoObjectsLeft();
        QVERIFY(logger.lines().isEmpty());
    }

    void objectDestroyedOnAnotherThreadLeavesTheMap() {
        auto tracker = QSharedPointer<QtQObjectsTracker>::create();
        QtQObjectsTracker::setInstance(tracker);
        QThread thread;
        thread.start();
        auto* object = new QObject;
        object->moveToThread(&thread);
        tracker->registerObject(object, "Worker");
        QMetaObject::invokeMethod(object, [object] { delete object; });
        QTRY_COMPARE(tracker->monitoredObjectsCount(), 0);
        thread.quit();
        QVERIFY(thread.wait());
    }

    void objectOutlivingTheTrackerOnlyWarns() {
        RecordingLogger logger;
        auto object = std::make_unique<QObject>();
        {
            auto tracker = QSharedPointer<QtQObjectsTracker>::create();
            QtQObjectsTracker::setInstance(tracker);
            tracker->registerObject(object.get(), "Survivor");
        }
        QVERIFY(QtQObjectsTracker::instance().isNull());
        object.reset();
        QCOMPARE(logger.lines(),
                 QStringList{QStringLiteral(
                     "[QtQObjectsTracker]: WARNING: a monitored object outlived the tracker")});
    }
};

QTEST_GUILESS_MAIN(TestUtilityObjects)
#include "tst_utilityobjects.moc"
