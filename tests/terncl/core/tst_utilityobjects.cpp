#include <terncl/core/qtcompositerunningobject.h>
#include <terncl/core/qtqobjectstracker.h>
#include <terncl/core/qtrunningobject.h>
#include <terncl/core/qtstringlist.h>
#include <terncl/core/qttoggleswitchobject.h>

#include "support/recordinglogger.h"

#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

namespace {
QStringList strings(const char* words) {
    return QString::fromLatin1(words).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}
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

class TestUtilityObjects : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void stringListReportsMembershipChanges() {
        QtStringList list(strings("a b"));
        QSignalSpy changed(&list, &QtStringList::changed);
        QSignalSpy reset(&list, &QtStringList::wasReset);

        list.set(strings("b c"));
        // Reordering and duplicates leave the membership as it is.
        list.set(strings("c b c"));
        QCOMPARE(QList<QVariantList>(changed), (QList<QVariantList>{{strings("c"), strings("a")}}));
        list.reset({});
        QCOMPARE(reset.count(), 1);
        QCOMPARE(changed.count(), 1);
    }

    void trackerReportsLeftoversByType() {
        RecordingLogger logger;
        auto tracker = QSharedPointer<QtQObjectsTracker>::create();
        QtQObjectsTracker::setInstance(tracker);
        auto first = std::make_unique<QObject>();
        auto second = std::make_unique<QObject>();
        auto other = std::make_unique<QObject>();
        tracker->registerObject(first.get(), "FileDataAsyncWriter");
        tracker->registerObject(second.get(), "FileDataAsyncWriter");
        tracker->registerObject(other.get(), "Other");
        other.reset();
        tracker->verifyNoObjectsLeft();
        QCOMPARE(logger.lines(),
                 (QStringList{u"[QtQObjectsTracker]: WARNING: verifyNoObjectsLeft has failed:"_s,
                              u"[QtQObjectsTracker]: FileDataAsyncWriter: 2 object(s)"_s}));
    }

    void toggleSwitchFlips() {
        QtToggleSwitchObject toggle;
        QSignalSpy toggled(&toggle, &QtToggleSwitchObject::switchedOnChanged);
        toggle.toggle();
        QVERIFY(toggle.isSwitchedOn());
        QCOMPARE(toggled.count(), 1);
    }

    // Every edge shows in the signal, so the composite's whole course is one list at the end.
    void compositeFollowsItsChildren() {
        Composite composite;
        Switch first, second;
        QSignalSpy spy(&composite, &QtRunningObject::running);
        composite.addRunningObject(&first);
        composite.addRunningObject(&second);
        first.setRunning(true);
        second.setRunning(true);
        first.setRunning(false);
        second.setRunning(false);

        // Removing the running child re-evaluates what is left; it is no longer followed.
        first.setRunning(true);
        composite.removeRunningObject(&first);
        first.setRunning(false);
        first.setRunning(true);

        // A destroyed child is skipped at the next re-evaluation.
        {
            Switch doomed;
            composite.addRunningObject(&doomed);
            doomed.setRunning(true);
        }
        second.setRunning(true);
        second.setRunning(false);
        QCOMPARE(QList<QVariantList>(spy),
                 (QList<QVariantList>{{true}, {false}, {true}, {false}, {true}, {false}}));
    }
};

QTEST_GUILESS_MAIN(TestUtilityObjects)
#include "tst_utilityobjects.moc"
