#include <terncl/core/abstractdownloadsmoduleskeeper.h>
#include <terncl/core/qtabstractcomplexmodule.h>
#include <terncl/core/sourceplace.h>

#include "support/fakedownload.h"
#include "support/recordinglogger.h"

#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <thread>

namespace {
AbstractError moduleError(const char* text) {
    return AbstractError(7, AbstractError::GenericError, TERNCL_SOURCE_PLACE, text);
}

// A sub-module that logs its passes into a shared list and ends each one at once, failing or
// asking for an exit when told.
class LeafModule : public QtAbstractModule {
public:
    LeafModule(const QString& name, QStringList& log)
        : m_name(name)
        , m_log(log) {}

    void initialize(bool init) override {
        setInitializeRunning(true, init);
        m_log.append(m_name + (init ? QStringLiteral("+") : QStringLiteral("-")));
        if (init ? failInit : failUninit) {
            setUnsupportedDeviceError(true);
            setInitFailed(init, moduleError("leaf failed"), true);
            return;
        }
        setNeedExit(askExit);
        setNeedRestart(askRestart);
        setInitializeRunning(false, init);
    }

    bool failInit = false, failUninit = false, askExit = false, askRestart = false;

private:
    QString m_name;
    QStringList& m_log;
};

class ComplexModule : public QtAbstractComplexModule {
public:
    explicit ComplexModule(QStringList& log)
        : m_log(log) {}
    using QtAbstractComplexModule::addModule;
    using QtAbstractComplexModule::currentModuleIndex;

protected:
    void initializeSelfBefore(bool init) override {
        m_log.append(init ? QStringLiteral("before+") : QStringLiteral("before-"));
        QtAbstractComplexModule::initializeSelfBefore(init);
    }
    void initializeSelfAfter(bool init) override {
        m_log.append(init ? QStringLiteral("after+") : QStringLiteral("after-"));
        QtAbstractComplexModule::initializeSelfAfter(init);
    }

private:
    QStringList& m_log;
};

// Runs one pass and waits for its end.
bool runPass(QtAbstractModule& module, bool init) {
    QSignalSpy spy(&module, &QtAbstractModule::initializeRunning);
    module.initialize(init);
    return spy.wait(5000) || (!spy.isEmpty() && !spy.last().at(0).toBool());
}

QStringList words(const char* text) {
    return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

class FakeDownloadModule : public AbstractDownloadModule {
public:
    FakeDownloadModule(const QString& uid, int priority, bool failInit = false)
        : m_uid(uid)
        , m_priority(priority)
        , m_failInit(failInit) {}

    QString uid() const override { return m_uid; }
    int supportedSourceCheckPriority() const override { return m_priority; }
    bool isPossiblySupportedSource(const AbstractDownload* d) const override {
        return supportedSource(d);
    }
    bool supportedSource(const AbstractDownload* d) const override {
        return sourceType(QUrl(d->info().resourceUrl)) != AbstractDownloadType::Unknown;
    }
    // Takes the addresses whose scheme is its uid.
    AbstractDownloadType sourceType(const QUrl& url) const override {
        return url.scheme() == m_uid ? AbstractDownloadType::Resource
                                     : AbstractDownloadType::Unknown;
    }
    QSharedPointer<AbstractDownload> createDownload(qint64 id,
                                                    const AbstractDownloadPersistentInfo& info,
                                                    const QVariant&, AbstractError&) override {
        auto download = QSharedPointer<FakeDownload>::create(id);
        download->setInfo(info);
        return download;
    }

protected:
    void initializeSelfBefore(bool init) override {
        if (init && m_failInit)
            setInitFailed(true, moduleError("no runtime"), false);
        onInitializeSelfBeforeFinished(init);
    }

private:
    QString m_uid;
    int m_priority;
    bool m_failInit;
};
} // namespace

class TestModules : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void complexModuleWalksForwardThenBack() {
        QStringList log;
        ComplexModule complex(log);
        LeafModule first(QStringLiteral("first"), log), second(QStringLiteral("second"), log),
            third(QStringLiteral("third"), log);
        for (auto* leaf : {&first, &second, &third})
            complex.addModule(leaf);
        QSignalSpy spy(&complex, &QtAbstractModule::initializeRunning);

        complex.initialize(true);
        complex.initialize(true); // ignored: the pass is still running
        QTRY_COMPARE(spy.count(), 2);
        QCOMPARE(log, words("before+ first+ second+ third+ after+"));
        QCOMPARE(complex.currentModuleIndex(), 2);

        log.clear();
        QVERIFY(runPass(complex, false));
        QCOMPARE(log, words("before- third- second- first- after-"));
        QVERIFY(!complex.initFailed(true) && !complex.initFailed(false));
        QCOMPARE(spy.count(), 4);
        QCOMPARE(spy.at(3), (QVariantList{false, false}));
    }

    void failedSubModuleStopsTheWalkAndTheReverseStartsThere() {
        QStringList log;
        ComplexModule complex(log);
        LeafModule first(QStringLiteral("first"), log), second(QStringLiteral("second"), log),
            third(QStringLiteral("third"), log);
        second.failInit = second.failUninit = true;
        second.askRestart = true; // not asked: the failure ends the pass before it is read
        for (auto* leaf : {&first, &second, &third})
            complex.addModule(leaf);

        QVERIFY(runPass(complex, true));
        QCOMPARE(log, words("before+ first+ second+ after+"));
        QVERIFY(complex.initFailed(true));
        QVERIFY(!complex.initFailed(false));
        QVERIFY(complex.isUnsupportedDeviceError());
        QCOMPARE(complex.error(), moduleError("leaf failed"));

        // The de-initialization failure of the second is kept and the walk goes on.
        log.clear();
        QVERIFY(runPass(complex, false));
        QCOMPARE(log, words("before- second- first- after-"));
        QVERIFY(complex.initFailed(false));
    }

    void exitRequestStopsTheWalkAndWithoutSubModulesAfterFollowsBefore() {
        QStringList log;
        ComplexModule complex(log);
        LeafModule first(QStringLiteral("first"), log), second(QStringLiteral("second"), log);
        first.askExit = first.askRestart = true;
        complex.addModule(&first);
        complex.addModule(&second);
        QVERIFY(runPass(complex, true));
        QCOMPARE(log, words("before+ first+ after+"));
        QVERIFY(complex.needExit() && complex.needRestart() && !complex.initFailed(true));

        // A pass asked for from another thread runs on the module's thread.
        log.clear();
        ComplexModule empty(log);
        QSignalSpy spy(&empty, &QtAbstractModule::initializeRunning);
        std::thread([&empty] { empty.initialize(true); }).join();
        QVERIFY(log.isEmpty());
        QTRY_COMPARE(spy.count(), 2);
        QCOMPARE(log, words("before+ after+"));
    }

    void keeperOrdersModulesAndKeepsFailedOnesOut() {
        RecordingLogger logger;
        AbstractDownloadsModulesKeeper keeper;
        keeper.addModule(QSharedPointer<FakeDownloadModule>::create(QStringLiteral("low"), 1));
        keeper.addModule(QSharedPointer<FakeDownloadModule>::create(QStringLiteral("high"), 9));
        keeper.addModule(
            QSharedPointer<FakeDownloadModule>::create(QStringLiteral("broken"), 5, true));
        keeper.onFinishedAddingModules();
        QCOMPARE(keeper.modulesUids(), words("high broken low"));

        QSignalSpy failed(&keeper, &AbstractDownloadsModulesKeeper::moduleInitializeFailed);
        QSignalSpy finished(&keeper, &AbstractDownloadsModulesKeeper::modulesInitializeFinished);
        keeper.initializeModules(true);
        QTRY_COMPARE(finished.count(), 1);
        QCOMPARE(failed.count(), 1);
        QCOMPARE(failed.at(0).at(0).toString(), QStringLiteral("broken"));
        QCOMPARE(
            logger.lines(),
            QStringList{QStringLiteral("[AbstractDownloadsModulesKeeper]: WARNING: the download "
                                       "module \"broken\" failed to initialize: ") +
                        moduleError("no runtime").toText()});
        QCOMPARE(keeper.failedModules().keys(), words("broken"));

        AbstractDownloadPersistentInfo info;
        info.resourceUrl = QStringLiteral("low://file");
        AbstractError error;
        auto download = keeper.createDownload(QStringLiteral("low"), 42, info, {}, error);
        QVERIFY(download && !error.isSet());
        QCOMPARE(download->id(), 42);
        QCOMPARE(keeper.moduleForSource(download.data())->uid(), QStringLiteral("low"));
        QVERIFY(!keeper.createDownload(QStringLiteral("broken"), 43, info, {}, error));
        QCOMPARE(error.code, int(AbstractDownloadsModulesKeeper::FailedModuleErrorCode));
        QVERIFY(!keeper.createDownload(QStringLiteral("none"), 44, info, {}, error));
        QCOMPARE(error.code, int(AbstractDownloadsModulesKeeper::UnknownModuleErrorCode));
        QCOMPARE(keeper.moduleForUrl(QUrl(QStringLiteral("high://x"))), QStringLiteral("high"));
        QVERIFY(keeper.moduleForUrl(QUrl(QStringLiteral("broken://x"))).isEmpty());
    }

    void keepersUniteAndSubtractFromSeveralThreads() {
        AbstractDownloadsModulesKeeper left, right;
        QList<QSharedPointer<FakeDownloadModule>> modules;
        for (int i = 0; i < 40; ++i)
            modules.append(
                QSharedPointer<FakeDownloadModule>::create(QStringLiteral("m%1").arg(i), i));
        std::thread writer([&] {
            for (int i = 0; i < 40; i += 2)
                left.addModule(modules.at(i));
        });
        for (int i = 1; i < 40; i += 2) {
            right.addModule(modules.at(i));
            left.unite(&right);
            right.unite(&left);
        }
        writer.join();
        left.unite(&right);
        QCOMPARE(left.modulesUids().size(), 40);
        QCOMPARE(left.modulesUids().first(), QStringLiteral("m39"));
        QVERIFY(left.containsModule(QStringLiteral("m0")));

        right.subtract(&right);
        QVERIFY(right.modulesUids().isEmpty());
        right.addModule(modules.at(3));
        left.subtract(&right);
        QCOMPARE(left.modulesUids().size(), 39);
        QVERIFY(!left.module(QStringLiteral("m3")));
    }
};

QTEST_GUILESS_MAIN(TestModules)
#include "tst_modules.moc"
