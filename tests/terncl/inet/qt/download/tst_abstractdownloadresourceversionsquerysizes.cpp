#include "support/fakedownloadsfactory.h"

#include <terncl/inet/qt/download/abstractdownloadresourceversionsquerysizes.h>

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
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
    result.requestHeaders = {u"Cookie: a=1"_s};
    return result;
}

Selector::CompositeVersion composite(const Selector::Version& video,
                                     const Selector::Version& audio) {
    Selector::CompositeVersion result(version("http://m.test/both", -1));
    result.parts = {video, audio};
    return result;
}

// A query over its own selector and factory, its finished signal recorded.
struct Rig {
    explicit Rig(const QList<Selector::CompositeVersion>& versions) {
        selector->setResourceVersions(versions);
    }
    QString requestedUrls() const {
        QStringList urls;
        for (const auto& request : factory->requests())
            urls.append(request.info.resourceUrl);
        return urls.join(QLatin1Char(' '));
    }
    AbstractError error(int signal) const {
        return finished.at(signal).at(0).value<AbstractError>();
    }

    QSharedPointer<TestSelector> selector = QSharedPointer<TestSelector>::create();
    QSharedPointer<FakeDownloadsFactory> factory = QSharedPointer<FakeDownloadsFactory>::create();
    QuerySizes query{selector, factory};
    QSignalSpy finished{&query, &QuerySizes::finished};
};
} // namespace

class TestAbstractDownloadResourceVersionsQuerySizes : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // Only unknown sizes of plain requests are measured; what the children learn goes back into
    // the selector, and a child that learns nothing leaves -1 behind and still lets the query end.
    void measuresUnknownSizesAndWritesThemBack() {
        Rig rig({
            version("http://m.test/known", 500),
            version("http://m.test/unknown", -1),
            composite(version("http://m.test/video", 1000), version("http://m.test/audio", -1)),
            composite(version("http://m.test/v2", -1), version("http://m.test/a2", -1)),
            version("http://m.test/stream.m3u8", -1, 1),
        });
        rig.query.query();
        QCOMPARE(rig.requestedUrls(),
                 u"http://m.test/unknown http://m.test/audio http://m.test/v2 http://m.test/a2"_s);
        for (const auto& request : rig.factory->requests()) {
            QVERIFY(request.info.testFlag(AbstractDownloadPersistentInfo::SizeQueryOnly));
            const auto source = request.initData.toHash().value(u"source"_s).toHash();
            QCOMPARE(source.value(u"url"_s).toString(), request.info.resourceUrl);
        }
        const auto children = rig.factory->aliveDownloads();
        QCOMPARE(children.size(), 4);
        for (const auto& child : children)
            QCOMPARE(child->commands(),
                     QList<AbstractDownloadCommand>{AbstractDownloadCommand::Start});
        children.at(0)->setFileSize(700);
        children.at(0)->finish();
        children.at(1)->stopUnfinished(); // the audio part: no size learnt
        children.at(2)->setFileSize(300);
        children.at(2)->finish();
        QCOMPARE(rig.finished.size(), 0);
        children.at(3)->setFileSize(40);
        children.at(3)->finish();
        QCOMPARE(rig.finished.size(), 1);
        QCOMPARE(rig.error(0), AbstractError());
        QList<qint64> totals; // the video of the third is known: its -1 is the audio's
        for (const auto& version : rig.selector->resourceVersions())
            totals.append(version.totalSize());
        QCOMPARE(totals, (QList<qint64>{500, 700, -1, 340, -1}));
    }

    // A child's error is the query's error, ahead of one kept from the factory.
    void reportsThePacksErrorBeforeTheFactorys() {
        Rig rig({version("http://m.test/a", -1), version("http://m.test/b", -1)});
        const AbstractError refused(3, AbstractError::GenericError, {}, "refused");
        const AbstractError notFound(404, AbstractError::HttpError, {}, "not found");
        rig.factory->setConfigurator([&](FakeDownload&, const FakeDownloadsFactory::Request&) {
            rig.factory->setFailure(refused); // the second child is not made
        });
        rig.query.query();
        QCOMPARE(rig.factory->requests().size(), 2);
        rig.factory->lastDownload()->fail(notFound);
        QCOMPARE(rig.finished.size(), 1);
        QCOMPARE(rig.error(0), notFound);
        QCOMPARE(rig.selector->resourceVersions().at(0).size, -1);
    }

    // Without a child the pack never runs: finished still comes, once, after query() returned.
    void finishesWithoutChildren() {
        Rig rig({version("http://m.test/known", 5)});
        rig.query.query();
        QCOMPARE(rig.finished.size(), 0);
        QVERIFY(rig.finished.wait(1000));
        QCOMPARE(rig.error(0), AbstractError());

        // Every creation failed: the factory's error.
        rig.selector->setResourceVersions({version("http://m.test/unknown", -1)});
        const AbstractError refused(3, AbstractError::GenericError, {}, "refused");
        rig.factory->setFailure(refused);
        rig.query.query();
        QVERIFY(rig.finished.wait(1000));
        QTest::qWait(20);
        QCOMPARE(rig.finished.size(), 2);
        QCOMPARE(rig.error(1), refused);
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownloadResourceVersionsQuerySizes)
#include "tst_abstractdownloadresourceversionsquerysizes.moc"
