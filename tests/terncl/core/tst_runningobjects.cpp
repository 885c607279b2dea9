#include <terncl/core/qtcompositerunningobject.h>
#include <terncl/core/qtrunningobject.h>

#include <QSignalSpy>
#include <QTest>

namespace {
class Switch : public QtRunningObject {
public:
    using QtRunningObject::setRunning;
};

class Composite : public QtCompositeRunningObject {
public:
    using QtCompositeRunningObject::addRunningObject;
    using QtCompositeRunningObject::removeRunningObject;
};
} // namespace

class TestRunningObjects : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void setRunningEmitsOnlyOnChange() {
        Switch object;
        QSignalSpy spy(&object, &QtRunningObject::running);
        QVERIFY(object.setRunning(true));
        QVERIFY(!object.setRunning(true));
        QCOMPARE(spy.count(), 1);
        QVERIFY(object.isRunning());

        // A receiver that flips the state back makes setRunning report false.
        connect(&object, &QtRunningObject::running, &object, [&](bool on) {
            if (!on)
                object.setRunning(true);
        });
        QVERIFY(!object.setRunning(false));
        QVERIFY(object.isRunning());
    }

    void compositeFollowsItsChildren() {
        Composite composite;
        Switch first, second, idle;
        QSignalSpy spy(&composite, &QtRunningObject::running);
        composite.addRunningObject(&first);
        composite.addRunningObject(&second);
        first.setRunning(true);
        second.setRunning(true);
        first.setRunning(false);
        QVERIFY(composite.isRunning());
        second.setRunning(false);
        QVERIFY(!composite.isRunning());
        QCOMPARE(spy.count(), 2);

        // Removing an idle child only breaks its connections; removing the running one
        // re-evaluates what is left.
        first.setRunning(true);
        composite.addRunningObject(&idle);
        composite.removeRunningObject(&idle);
        idle.setRunning(true);
        idle.setRunning(false);
        QVERIFY(composite.isRunning());
        composite.removeRunningObject(&first);
        QVERIFY(!composite.isRunning());
        first.setRunning(false);
        first.setRunning(true);
        QVERIFY(!composite.isRunning());
        composite.addRunningObject(nullptr);
        composite.removeRunningObject(nullptr);

        // A destroyed child is skipped at the next re-evaluation.
        {
            Switch doomed;
            composite.addRunningObject(&doomed);
            doomed.setRunning(true);
            QVERIFY(composite.isRunning());
        }
        second.setRunning(true);
        second.setRunning(false);
        QVERIFY(!composite.isRunning());
    }

    void duplicatesRemoveTheLastEntry() {
        Composite composite;
        Switch child;
        composite.addRunningObject(&child);
        composite.addRunningObject(&child);
        child.setRunning(true);
        composite.removeRunningObject(&child);
        // The remaining entry still counts, but its connection went with the removal.
        QVERIFY(composite.isRunning());
    }
};

QTEST_GUILESS_MAIN(TestRunningObjects)
#include "tst_runningobjects.moc"
