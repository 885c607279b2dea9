#include <terncl/core/abstractdownloadsmoduleskeeper.h>
#include <terncl/core/qtabstractcomplexmodule.h>
#include <terncl/core/sourceplace.h>

#include "support/fakedownload.h"

#include <QSignalSpy>
#include <QTest>

#include <thread>

using namespace Qt::StringLiterals;

namespace {
AbstractError moduleError(const char* text) {
    return AbstractError(7, AbstractError::GenericError, TERNCL_SOURCE_PLACE, text);
}

// A sub-module that logs its passes into a shared list and ends each one at once, failing when
// told.
class LeafModule : public QtAbstractModule {
public:
    LeafModule(const char* name, QStringList& log)
        : name(QString::fromLatin1(name))
        , log(log) {}

    void initialize(bool init) override {
        setInitializeRunning(true, init);
        log.append(name + (init ? u"+"_s : u"-"_s));
        if (init ? failInit : failUninit)
            return setInitFailed(init, moduleError("leaf failed"), true);
        setInitializeRunning(false, init);
    }

    QString name;
    QStringList& log;
    bool failInit = false, failUninit = false;
};

// Logs its own before- and after-steps around those of its sub-modules.
class ComplexModule : public QtAbstractComplexModule {
public:
    ComplexModule(QStringList& log, const QList<LeafModule*>& leaves = {})
        : log(log) {
        for (auto* leaf : leaves)
            addModule(leaf);
    }

protected:
    void initializeSelfBefore(bool init) override {
        log.append(init ? u"before+"_s : u"before-"_s);
        QtAbstractComplexModule::initializeSelfBefore(init);
    }
    void initializeSelfAfter(bool init) override {
        log.append(init ? u"after+"_s : u"after-"_s);
        QtAbstractComplexModule::initializeSelfAfter(init);
    }

private:
    QStringList& log;
};

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

using Module = QSharedPointer<FakeDownloadModule>;
} // namespace

class TestModules : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // Passes over "first second third", each followed by the flags it left, as one log.
    void complexModuleWalks() {
        const auto walk = [](bool secondFails) {
            QStringList log;
            LeafModule first("first", log), second("second", log), third("third", log);
            second.failInit = second.failUninit = secondFails;
            ComplexModule complex(log, {&first, &second, &third});
            for (const bool init : {true, false}) {
                QSignalSpy spy(&complex, &QtAbstractModule::initializeRunning);
                complex.initialize(init);
                complex.initialize(init); // ignored: the pass is still running
                if (!QTest::qWaitFor([&] { return spy.count() == 2; }))
                    return QStringList{u"hangs"_s};
                log += u"failed%1%2 running%3%4"_s.arg(int(complex.initFailed(true)))
                           .arg(int(complex.initFailed(false)))
                           .arg(spy.last().at(0).toInt())
                           .arg(spy.last().at(1).toInt())
                           .split(u' ');
            }
            if (secondFails && complex.error() != moduleError("leaf failed"))
                log << u"wrong error"_s;
            return log;
        };
        QCOMPARE(walk(false), words("before+ first+ second+ third+ after+ failed00 running01 "
                                    "before- third- second- first- after- failed00 running00"));
        // The reverse pass starts at the failed module; its failure is kept and the walk goes on.
        QCOMPARE(walk(true), words("before+ first+ second+ after+ failed10 running01 "
                                   "before- second- first- after- failed11 running00"));

        // Without sub-modules; asked for from another thread, the pass runs on the module's.
        QStringList log;
        ComplexModule empty(log);
        QSignalSpy spy(&empty, &QtAbstractModule::initializeRunning);
        std::thread([&empty] { empty.initialize(true); }).join();
        QVERIFY(log.isEmpty());
        QTRY_COMPARE(spy.count(), 2);
        QCOMPARE(log, words("before+ after+"));
    }

    void keeperOrdersModulesAndKeepsFailedOnesOut() {
        AbstractDownloadsModulesKeeper keeper;
        keeper.addModule(Module::create(u"low"_s, 1));
        keeper.addModule(Module::create(u"high"_s, 9));
        keeper.addModule(Module::create(u"broken"_s, 5, true));
        keeper.onFinishedAddingModules();
        QCOMPARE(keeper.modulesUids(), words("high broken low"));

        QSignalSpy failed(&keeper, &AbstractDownloadsModulesKeeper::moduleInitializeFailed);
        QSignalSpy finished(&keeper, &AbstractDownloadsModulesKeeper::modulesInitializeFinished);
        keeper.initializeModules(true);
        QTRY_COMPARE(finished.count(), 1);
        QCOMPARE(failed, (QList<QVariantList>{
                             {u"broken"_s, true, QVariant::fromValue(moduleError("no runtime"))}}));

        AbstractDownloadPersistentInfo info;
        info.resourceUrl = u"low://file"_s;
        AbstractError error;
        auto download = keeper.createDownload(u"low"_s, 42, info, {}, error);
        QVERIFY(download && !error.isSet());
        QCOMPARE(keeper.moduleForSource(download.data())->uid(), u"low"_s);
        QVERIFY(!keeper.createDownload(u"broken"_s, 43, info, {}, error));
        QCOMPARE(error.code, int(AbstractDownloadsModulesKeeper::FailedModuleErrorCode));
        QVERIFY(!keeper.createDownload(u"none"_s, 44, info, {}, error));
        QCOMPARE(error.code, int(AbstractDownloadsModulesKeeper::UnknownModuleErrorCode));
        QCOMPARE(keeper.moduleForUrl(QUrl(u"high://x"_s)), u"high"_s);
        QVERIFY(keeper.moduleForUrl(QUrl(u"broken://x"_s)).isEmpty());
    }

    void keepersUniteAndSubtractFromSeveralThreads() {
        AbstractDownloadsModulesKeeper left, right;
        std::thread adder([&left] {
            for (int i = 0; i < 40; i += 2)
                left.addModule(Module::create(u"m%1"_s.arg(i), i));
        });
        for (int i = 1; i < 40; i += 2) {
            right.addModule(Module::create(u"m%1"_s.arg(i), i));
            left.unite(&right);
            right.unite(&left);
        }
        adder.join();
        left.unite(&right);
        QCOMPARE(left.modulesUids().size(), 40);
        QCOMPARE(left.modulesUids().first(), u"m39"_s);

        right.subtract(&right);
        QVERIFY(right.modulesUids().isEmpty());
        right.addModule(left.module(u"m3"_s));
        left.subtract(&right);
        QCOMPARE(left.modulesUids().size(), 39);
        QVERIFY(!left.containsModule(u"m3"_s));
    }
};

QTEST_GUILESS_MAIN(TestModules)
#include "tst_modules.moc"
