#include "hostdownloadsfactory.h"
#include "httpdownload.h"
#include "sizeprobedownload.h"
#include "streamsegmentsdownload.h"

#include <QTest>
#include <QThread>

using namespace Qt::StringLiterals;

namespace {
AbstractDownloadPersistentInfo record(const QString& module, const QString& url) {
    AbstractDownloadPersistentInfo info;
    info.moduleName = module;
    info.resourceUrl = url;
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
        const auto factory = QSharedPointer<HostDownloadsFactory>::create(&writers);
        const QString url = u"http://127.0.0.1:1/file.bin"_s;
        AbstractError error;
        // Named or not (then the first module that takes the address), a plain file.
        for (const QString& module : {u"http"_s, u"downloadswww"_s, QString()}) {
            const auto download = factory->createDownload(record(module, url), error);
            QVERIFY2(qobject_cast<HttpDownload*>(download.data()), qPrintable(error.toText()));
        }
        // The media children by their module names: a size query's child only probes.
        auto sizeOnly = record(u"downloadswww"_s, url);
        sizeOnly.setFlag(AbstractDownloadPersistentInfo::SizeQueryOnly);
        QVERIFY(qobject_cast<SizeProbeDownload*>(factory->createDownload(sizeOnly, error).data()));
        const QVariantHash initData{{u"source"_s, url}};
        QVERIFY(qobject_cast<StreamSegmentsDownload*>(
            factory->createModuleDownload(u"downloadsm3ustm"_s, record({}, {}), initData, error)
                .data()));
        for (const auto& [module, address] :
             {std::pair{u"unknown"_s, url}, std::pair{QString(), u"ftp://127.0.0.1/file.bin"_s},
              std::pair{u"http"_s, u"ftp://127.0.0.1/file.bin"_s}}) {
            error = {};
            QVERIFY(!factory->createDownload(record(module, address), error));
            QVERIFY(error.isSet());
        }
    }
};

QTEST_GUILESS_MAIN(TestHostModules)
#include "tst_hostmodules.moc"
