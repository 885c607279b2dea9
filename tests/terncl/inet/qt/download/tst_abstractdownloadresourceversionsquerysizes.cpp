#include "support/fakedownloadsfactory.h"

#include <terncl/inet/qt/download/abstractdownloadresourceversionsquerysizes.h>

#include <QSignalSpy>
#include <QTest>

namespace {
QStringList words(const char* text) {
    return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

using Selector = AbstractDownloadResourceVersionSelector;
using QuerySizes = AbstractDownloadResourceVersionsQuerySizes;

struct TestSelector : Selector {
    using Selector::setResourceVersions;
};

Selector::Version version(const char* url, qint64 size, int originType = 0) {
    Selector::Version result;
    result.url = QUrl(QString::fromLatin1(url));
    result.size = size;
    result.originType = originType;
    result.requestHeaders = {QStringLiteral("Cookie: a=1")};
    return result;
}

Selector::CompositeVersion composite(const Selector::Version& video,
                                     const Selector::Version& audio) {
    Selector::CompositeVersion result(version("http://m.test/both", -1));
    result.parts = {video, audio};
    return result;
}

QStringList requestedUrls(const FakeDownloadsFactory& factory) {
    QStringList urls;
    for (const auto& request : factory.requests())
        urls.append(request.info.resourceUrl);
    return urls;
}
} // namespace

class TestAbstractDownloadResourceVersionsQuerySizes : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // Only unknown sizes of plain requests are measured; what the children learn goes back into
    // the selector, and a child that learns nothing leaves -1 behind and still lets the query end.
    void measuresUnknownSizesAndWritesThemBack() {
        auto selector = QSharedPointer<TestSelector>::create();
        selector->setResourceVersions({
            version("http://m.test/known", 500),
            version("http://m.test/unknown", -1),
            composite(version("http://m.test/video", 1000), version("http://m.test/audio", -1)),
            composite(version("http://m.test/v2", -1), version("http://m.test/a2", -1)),
            version("http://m.test/stream.m3u8", -1, 1),
        });
        auto factoryPtr = QSharedPointer<FakeDownloadsFactory>::create();
        FakeDownloadsFactory& factory = *factoryPtr;
        QuerySizes query(selector, factoryPtr);
        QSignalSpy finished(&query, &QuerySizes::finished);
        query.query();

        QCOMPARE(
            requestedUrls(factory),
            words("http://m.test/unknown http://m.test/audio http://m.test/v2 http://m.test/a2"));
        for (const auto& request : factory.requests()) {
            QCOMPARE(request.moduleName, QStringLiteral("downloadswww"));
            QVERIFY(request.info.testFlag(AbstractDownloadPersistentInfo::SizeQueryOnly));
            const auto source = request.initData.toHash().value(QStringLiteral("source")).toHash();
            QCOMPARE(source.value(QStringLiteral("url")).toString(), request.info.resourceUrl);
        }
        const auto children = factory.aliveDownloads();
        QCOMPARE(children.size(), 4);
        for (const auto& child : children)
            QCOMPARE(child->commands(),
                     QList<AbstractDownloadCommand>{AbstractDownloadCommand::Start});
        children.at(0)->setFileSize(700);
        children.at(0)->finish();
        children.at(1)->stopUnfinished(); // the audio part: no size learnt
        children.at(2)->setFileSize(300);
        children.at(2)->finish();
        QCOMPARE(finished.size(), 0);
        children.at(3)->setFileSize(40);
        children.at(3)->finish();

        QCOMPARE(finished.size(), 1);
        QCOMPARE(finished.at(0).at(0).value<AbstractError>(), AbstractError());
        const auto versions = selector->resourceVersions();
        QCOMPARE(versions.at(0).size, 500);
        QCOMPARE(versions.at(1).size, 700);
        QCOMPARE(versions.at(2).parts.at(1).size, -1);
        QCOMPARE(versions.at(2).totalSize(), -1);
        QCOMPARE(versions.at(3).totalSize(), 340);
        QCOMPARE(versions.at(4).size, -1);
    }

    // A child's error is the query's error, ahead of one kept from the factory.
    void reportsThePacksErrorBeforeTheFactorys() {
        auto selector = QSharedPointer<TestSelector>::create();
        selector->setResourceVersions(
            {version("http://m.test/a", -1), version("http://m.test/b", -1)});
        auto factoryPtr = QSharedPointer<FakeDownloadsFactory>::create();
        FakeDownloadsFactory& factory = *factoryPtr;
        const AbstractError refused(3, AbstractError::GenericError, {}, "refused");
        const AbstractError notFound(404, AbstractError::HttpError, {}, "not found");
        factory.setConfigurator([&](FakeDownload&, const FakeDownloadsFactory::Request&) {
            factory.setFailure(refused); // the second child is not made
        });
        QuerySizes query(selector, factoryPtr);
        QSignalSpy finished(&query, &QuerySizes::finished);
        query.query();
        QCOMPARE(factory.requests().size(), 2);
        factory.lastDownload()->fail(notFound);
        QCOMPARE(finished.size(), 1);
        QCOMPARE(finished.at(0).at(0).value<AbstractError>(), notFound);
        QCOMPARE(selector->resourceVersions().at(0).size, -1);
    }

    // Without a child the pack never runs: finished still comes, once, after query() returned.
    void finishesWithoutChildren() {
        auto selector = QSharedPointer<TestSelector>::create();
        selector->setResourceVersions({version("http://m.test/known", 5)});
        auto factoryPtr = QSharedPointer<FakeDownloadsFactory>::create();
        FakeDownloadsFactory& factory = *factoryPtr;
        QuerySizes query(selector, factoryPtr);
        QSignalSpy finished(&query, &QuerySizes::finished);
        query.query();
        QCOMPARE(finished.size(), 0);
        QVERIFY(finished.wait(1000));
        QCOMPARE(factory.requests().size(), 0);
        QCOMPARE(finished.at(0).at(0).value<AbstractError>(), AbstractError());

        // Every creation failed: the factory's error.
        selector->setResourceVersions({version("http://m.test/unknown", -1)});
        const AbstractError refused(3, AbstractError::GenericError, {}, "refused");
        factory.setFailure(refused);
        query.query();
        QVERIFY(finished.wait(1000));
        QTest::qWait(20);
        QCOMPARE(finished.size(), 2);
        QCOMPARE(finished.at(1).at(0).value<AbstractError>(), refused);
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownloadResourceVersionsQuerySizes)
#include "tst_abstractdownloadresourceversionsquerysizes.moc"
