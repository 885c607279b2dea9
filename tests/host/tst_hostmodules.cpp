#include "hostdownloadsfactory.h"
#include "httpdownload.h"
#include "sizeprobedownload.h"
#include "streamsegmentsdownload.h"

#include <terncl/core/abstractdownloadsmoduleskeeper.h>
#include <terncl/core/sourceplace.h>

#include <QSignalSpy>
#include <QTest>
#include <QThread>

namespace {
// A module whose initialization fails, as one that lacks its parsing rules would.
class BrokenModule final : public AbstractDownloadModule {
    Q_OBJECT

public:
    QString uid() const override { return QStringLiteral("broken"); }
    bool isPossiblySupportedSource(const AbstractDownload*) const override { return true; }
    bool supportedSource(const AbstractDownload*) const override { return true; }
    // Asked before the host's modules, so a working lookup must skip it.
    int supportedSourceCheckPriority() const override { return 100; }
    AbstractDownloadType sourceType(const QUrl&) const override {
        return AbstractDownloadType::Resource;
    }

protected:
    void initializeSelfBefore(bool init) override {
        if (init)
            setInitFailed(true,
                          AbstractError(7, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                                        "no parsing rules"),
                          false);
        onInitializeSelfBeforeFinished(init);
    }
};

AbstractDownloadPersistentInfo record(const QString& module, const QString& url) {
    AbstractDownloadPersistentInfo info;
    info.moduleName = module;
    info.resourceUrl = url;
    AbstractDownloadFileInfo file;
    file.name = QStringLiteral("file.bin");
    info.files.append(file);
    return info;
}
} // namespace

class TestHostModules : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aFailedModuleIsRefusedAndTheOthersWork() {
        QThread writers;
        const auto shared = QSharedPointer<HostDownloadsFactory>::create(&writers);
        HostDownloadsFactory& factory = *shared;
        AbstractDownloadsModulesKeeper* keeper = factory.modulesKeeper();
        keeper->addModule(QSharedPointer<BrokenModule>::create());
        keeper->onFinishedAddingModules();
        QCOMPARE(
            keeper->modulesUids(),
            (QList<QString>{QStringLiteral("broken"), QStringLiteral("http"),
                            QStringLiteral("downloadsfragments"), QStringLiteral("downloadsm3ustm"),
                            QStringLiteral("downloadswww")}));
        QSignalSpy failed(keeper, &AbstractDownloadsModulesKeeper::moduleInitializeFailed);
        QSignalSpy finished(keeper, &AbstractDownloadsModulesKeeper::modulesInitializeFinished);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("\"broken\" failed to initialize")));
        keeper->initializeModules(true);
        QTRY_COMPARE(finished.size(), 1);
        QCOMPARE(failed.size(), 1);
        QCOMPARE(failed.at(0).at(0).toString(), QStringLiteral("broken"));

        const QString url = QStringLiteral("http://127.0.0.1:1/file.bin");
        AbstractError error;
        QVERIFY(!factory.createDownload(record(QStringLiteral("broken"), url), error));
        QCOMPARE(error.code, int(AbstractDownloadsModulesKeeper::FailedModuleErrorCode));
        // Named or not (then the first working module that takes the address), a plain file.
        qint64 lastId = 0;
        for (const QString& module :
             {QStringLiteral("http"), QStringLiteral("downloadswww"), QString()}) {
            error = {};
            const auto download = factory.createDownload(record(module, url), error);
            QVERIFY2(qobject_cast<HttpDownload*>(download.data()), qPrintable(error.toText()));
            QCOMPARE(download->info().resourceUrl, url);
            QVERIFY(download->id() > lastId);
            lastId = download->id();
        }
        // The media children by their module names: a size query's child only probes.
        auto sizeOnly = record(QStringLiteral("downloadswww"), url);
        sizeOnly.setFlag(AbstractDownloadPersistentInfo::SizeQueryOnly);
        QVERIFY(qobject_cast<SizeProbeDownload*>(factory.createDownload(sizeOnly, error).data()));
        const QVariantHash initData{{QStringLiteral("source"), url}};
        QVERIFY(qobject_cast<StreamSegmentsDownload*>(
            factory
                .createModuleDownload(QStringLiteral("downloadsm3ustm"), record({}, {}), initData,
                                      error)
                .data()));
        for (const auto& [module, address] :
             {std::pair{QStringLiteral("unknown"), url},
              std::pair{QString(), QStringLiteral("ftp://127.0.0.1/file.bin")},
              std::pair{QStringLiteral("http"), QStringLiteral("ftp://127.0.0.1/file.bin")}}) {
            error = {};
            QVERIFY(!factory.createDownload(record(module, address), error));
            QVERIFY(error.isSet());
        }
    }
};

QTEST_GUILESS_MAIN(TestHostModules)
#include "tst_hostmodules.moc"
