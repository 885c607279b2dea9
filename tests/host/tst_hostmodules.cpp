#include "hostdownloadsfactory.h"
#include "httpdownload.h"
#include "sizeprobedownload.h"
#include "streamsegmentsdownload.h"

#include <terncl/core/abstractdownloadsmoduleskeeper.h>

#include <QTest>
#include <QThread>

namespace {
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

// The host's modules make the download a record names; how the keeper treats a module that fails
// to initialize is the keeper's own test.
class TestHostModules : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void eachModuleMakesItsDownloads() {
        QThread writers;
        const auto shared = QSharedPointer<HostDownloadsFactory>::create(&writers);
        HostDownloadsFactory& factory = *shared;
        QCOMPARE(
            factory.modulesKeeper()->modulesUids(),
            (QList<QString>{QStringLiteral("http"), QStringLiteral("downloadsfragments"),
                            QStringLiteral("downloadsm3ustm"), QStringLiteral("downloadswww")}));
        const QString url = QStringLiteral("http://127.0.0.1:1/file.bin");
        AbstractError error;
        // Named or not (then the first module that takes the address), a plain file.
        qint64 lastId = 0;
        for (const QString& module :
             {QStringLiteral("http"), QStringLiteral("downloadswww"), QString()}) {
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
