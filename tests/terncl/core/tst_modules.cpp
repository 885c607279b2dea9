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
// asking for an exit or a restart when told.
class LeafModule : public QtAbstractModule {
public:
    LeafModule(const char* name, QStringList& log)
        : name(QString::fromLatin1(name))
        , log(log) {}

    void initialize(bool init) override {
        setInitializeRunning(true, init);
        log.append(name + (init ? QStringLiteral("+") : QStringLiteral("-")));
        setUnsupportedDeviceError(true);
        if (init ? failInit : failUninit)
            return setInitFailed(init, moduleError("leaf failed"), true);
        setNeedExit(askExit);
        setNeedRestart(askRestart);
        setInitializeRunning(false, init);
    }

    QString name;
    QStringList& log;
    bool failInit = false, failUninit = false, askExit = false, askRestart = false;
};

// Logs its own before- and after-steps around those of its sub-modules.
class ComplexModule : public QtAbstractComplexModule {
public:
    ComplexModule(QStringList& log, const QList<LeafModule*>& leaves = {})
        : log(log) {
        for (auto* leaf : leaves)
            addModule(leaf);
    }
    using QtAbstractComplexModule::currentModuleIndex;

protected:
    void initializeSelfBefore(bool init) override {
        log.append(init ? QStringLiteral("before+") : QStringLiteral("before-"));
        QtAbstractComplexModule::initializeSelfBefore(init);
    }
    void initializeSelfAfter(bool init) override {
        log.append(init ? QStringLiteral("after+") : QStringLiteral("after-"));
        QtAbstractComplexModule::initializeSelfAfter(init);
    }

private:
    QStringList& log;
};

// Runs one pass and waits for its end.
bool runPass(QtAbstractModule& module, bool init) {
    QSignalSpy spy(&module, &QtAbstractModule::initializeRunning);
    module.initialize(init);
    return QTest::qWaitFor([&] { return !spy.isEmpty() && !spy.last().at(0).toBool(); });
}

QStringList words(const char* text) {
    return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

// Takes the addresses whose scheme is its uid and makes fake downloads of them.
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
        return QUrl(d->info().resourceUrl).scheme() == m_uid;
    }
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

QSharedPointer<FakeDownloadModule> downloadModule(const char* uid, int priority,
                                                  bool failInit = false) {
    return QSharedPointer<FakeDownloadModule>::create(QString::fromLatin1(uid), priority, failInit);
}
} // namespace

class TestModules : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void complexModuleWalksForwardThenBack() {
        QStringList log;
        LeafModule first("first", log), second("second", log), third("third", log);
        ComplexModule complex(log, {&first, &second, &third});
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
        QVERIFY(!complex.isUnsupportedDeviceError());
        QCOMPARE(spy.count(), 4);
        QCOMPARE(spy.at(3), (QVariantList{false, false}));
    }

    void failureAndExitStopTheWalk() {
        QStringList log;
        LeafModule first("first", log), second("second", log), third("third", log);
        second.failInit = second.failUninit = true;
        ComplexModule complex(log, {&first, &second, &third});
        QVERIFY(runPass(complex, true));
        QCOMPARE(log, words("before+ first+ second+ after+"));
        QVERIFY(complex.initFailed(true) && !complex.initFailed(false));
        QVERIFY(complex.isUnsupportedDeviceError());
        QCOMPARE(complex.error(), moduleError("leaf failed"));
        // The reverse pass starts at the failed module; its failure is kept and the walk goes on.
        log.clear();
        QVERIFY(runPass(complex, false));
        QCOMPARE(log, words("before- second- first- after-"));
        QVERIFY(complex.initFailed(false));

        log.clear();
        first.askExit = first.askRestart = true;
        ComplexModule exiting(log, {&first, &third});
        QVERIFY(runPass(exiting, true));
        QCOMPARE(log, words("before+ first+ after+"));
        QVERIFY(exiting.needExit() && exiting.needRestart() && !exiting.initFailed(true));

        // Without sub-modules; asked for from another thread, the pass runs on the module's.
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
        keeper.addModule(downloadModule("low", 1));
        keeper.addModule(downloadModule("high", 9));
        keeper.addModule(downloadModule("broken", 5, true));
        keeper.onFinishedAddingModules();
        QCOMPARE(keeper.modulesUids(), words("high broken low"));

        QSignalSpy failed(&keeper, &AbstractDownloadsModulesKeeper::moduleInitializeFailed);
        QSignalSpy finished(&keeper, &AbstractDownloadsModulesKeeper::modulesInitializeFinished);
        keeper.initializeModules(true);
        QTRY_COMPARE(finished.count(), 1);
        QCOMPARE(failed.count(), 1);
        QCOMPARE(failed.at(0).at(0).toString(), QStringLiteral("broken"));
        QCOMPARE(logger.lines(), QStringList{QStringLiteral("[AbstractDownloadsModulesKeeper]: "
                                                            "WARNING: the download module "
                                                            "\"broken\" failed to initialize: ") +
                                             moduleError("no runtime").toText()});

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
        std::thread adder([&left] {
            for (int i = 0; i < 40; i += 2)
                left.addModule(downloadModule(qPrintable(QStringLiteral("m%1").arg(i)), i));
        });
        for (int i = 1; i < 40; i += 2) {
            right.addModule(downloadModule(qPrintable(QStringLiteral("m%1").arg(i)), i));
            left.unite(&right);
            right.unite(&left);
        }
        adder.join();
        left.unite(&right);
        QCOMPARE(left.modulesUids().size(), 40);
        QCOMPARE(left.modulesUids().first(), QStringLiteral("m39"));

        right.subtract(&right);
        QVERIFY(right.modulesUids().isEmpty());
        right.addModule(left.module(QStringLiteral("m3")));
        left.subtract(&right);
        QCOMPARE(left.modulesUids().size(), 39);
        QVERIFY(!left.containsModule(QStringLiteral("m3")));
    }
};

QTEST_GUILESS_MAIN(TestModules)
#include "tst_modules.moc"
