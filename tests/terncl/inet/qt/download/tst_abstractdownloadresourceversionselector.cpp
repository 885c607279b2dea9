#include "support/fakedownload.h"

#include <terncl/inet/qt/download/abstractdownloadresourceversionoption.h>
#include <terncl/inet/qt/download/abstractdownloadresourceversionselector.h>

#include <QTest>

using namespace Qt::StringLiterals;

using Selector = AbstractDownloadResourceVersionSelector;

namespace {
struct TestSelector : Selector {
    using Selector::setResourceVersions;
};

// A download whose versions the test supplies.
struct VersionsDownload : FakeDownload {
    QSharedPointer<TestSelector> selector;
    QSharedPointer<Selector> resourceVersionSelector() override { return selector; }
};

// "format:type:height[:parts[:language]]", kept as the version's title.
Selector::CompositeVersion version(const QString& label) {
    const auto fields = label.split(QLatin1Char(':'));
    Selector::CompositeVersion result;
    result.title = label;
    result.media.format = fields.value(0);
    result.media.type = fields.value(1).toInt();
    result.media.height = fields.value(2).toInt();
    result.parts.resize(fields.value(3).toInt());
    result.media.language = fields.value(4);
    return result;
}

// Space-separated labels of versions.
QSharedPointer<TestSelector> selectorOf(const QByteArray& labels) {
    auto selector = QSharedPointer<TestSelector>::create();
    QList<Selector::CompositeVersion> versions;
    for (const auto& label :
         QString::fromLatin1(labels).split(QLatin1Char(' '), Qt::SkipEmptyParts))
        versions.append(version(label));
    selector->setResourceVersions(versions);
    return selector;
}

QByteArray titles(const Selector& selector) {
    QStringList result;
    for (const auto& version : selector.resourceVersions())
        result.append(version.title);
    return result.join(QLatin1Char(' ')).toLatin1();
}

// In preference order, as the media download hands them over after sorting.
const QByteArray choices =
    "mp4:2:1080:0:en mp4:2:720:0:de webm:2:1440:0:en-GB mp4:3:2160 m4a:1:0:0:de webm:1:0";
} // namespace

class TestAbstractDownloadResourceVersionSelector : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void sortOrdersByFormatTypeHeightAndPartsAndDropsDuplicates() {
        const char* const rows[][2] = {
            // An mp4 beats a higher webm; a webm with video comes early, an audio-only one late.
            {"webm:1:0 m4a:1:0 flv:2:240 3gp:2:144 webm:3:720 mp4:3:360 mkv:2:1080",
             "mp4:3:360 webm:3:720 3gp:2:144 flv:2:240 m4a:1:0 webm:1:0 mkv:2:1080"},
            // Video with audio first, then height, then fewer parts.
            {"mp4:3:1080 mp4:2:720:2 mp4:2:720 mp4:2:1080:2",
             "mp4:2:1080:2 mp4:2:720 mp4:2:720:2 mp4:3:1080"},
            // The audio-only webm goes behind m4a whatever its height; judged by height alone
            // the two webm versions would form a cycle with the m4a one.
            {"webm:1:1080 m4a:1:0 webm:3:720", "webm:3:720 m4a:1:0 webm:1:1080"}};
        for (const auto& row : rows) {
            auto selector = selectorOf(row[0]);
            selector->sort(false);
            QCOMPARE(titles(*selector), QByteArray(row[1]));
        }

        // Duplicates go only when asked. All but the 480p one share one media description; only
        // their parts differ.
        auto selector = selectorOf("mp4:2:720:2 mp4:2:480 mp4:2:720 mp4:2:720");
        selector->sort(false);
        QCOMPARE(selector->resourceVersions().size(), 4);
        selector->sort(true);
        QCOMPARE(titles(*selector), "mp4:2:720 mp4:2:480"); // the better placed one stays
    }

    void selectionAndDashVersions() {
        auto selector = selectorOf("a:2:1 b:2:1:2 c:2:1:1 d:2:1:2 e:2:1:3");
        QVERIFY(selector->containsCompositeVersions());
        // Only an existing index is taken.
        selector->setSelectedVersion(4);
        selector->setSelectedVersion(5);
        selector->setSelectedVersion(-1);
        QCOMPARE(selector->selectedVersion(), 4);
        selector->removeDashVersions();
        QCOMPARE(titles(*selector), "a:2:1 c:2:1:1 e:2:1:3");
        QCOMPARE(selector->selectedVersion(), 4); // not adjusted
    }

    // Criteria "fileType:maxHeight:format:language", fileType 0 (any), 1 (video) or 2 (audio).
    void defaultChoiceFollowsTheCriteria() {
        const struct {
            const char* criteria;
            int expected;
        } rows[] = {
            {"0:0::", 0},     {"1:480::", 1},                    // lowest above a limit none meets
            {"1:720::en", 1}, {"1:0:WEBM:", 2}, {"1:0:mkv:", 0}, // an absent format is ignored
            {"2:0::", 4},     {"2:0::fr", 5},                    // unknown language beats another
        };
        for (const auto& row : rows) {
            const auto c = QString::fromLatin1(row.criteria).split(QLatin1Char(':'));
            VersionsDownload download;
            download.selector = selectorOf(choices);
            QVERIFY(download.chooseDefaultResourceVersion(AbstractFileType(c.at(0).toInt()),
                                                          c.at(1).toInt(), c.at(2), c.at(3)));
            QCOMPARE(download.selector->selectedVersion(), row.expected);
        }
    }

    void defaultChoiceFallsBackKeepsASelectionAndReadsTheOptions() {
        VersionsDownload download;
        QVERIFY(!download.chooseDefaultResourceVersion());
        download.selector = selectorOf("");
        QVERIFY(!download.chooseDefaultResourceVersion());

        // Audio without audio-only versions takes one with sound; video without video anything.
        download.selector = selectorOf("mp4:3:1080 mp4:2:720");
        QVERIFY(download.chooseDefaultResourceVersion(AbstractFileType::Audio, 0, {}, {}));
        QCOMPARE(download.selector->selectedVersion(), 1);
        download.selector = selectorOf("m4a:1:0 ogg:0:0");
        QVERIFY(download.chooseDefaultResourceVersion(AbstractFileType::Video, 0, {}, {}));
        QCOMPARE(download.selector->selectedVersion(), 0);

        // A selection made before is never overridden.
        download.selector = selectorOf(choices);
        download.selector->setSelectedVersion(3);
        QVERIFY(download.chooseDefaultResourceVersion(AbstractFileType::Audio, 0, {}, {}));
        QCOMPARE(download.selector->selectedVersion(), 3);

        // Without criteria given, the stored options are the criteria.
        auto info = download.info();
        info.supportedOptions = PreferredResourceFileType | MaxResourceVideoHeight |
                                PreferredResourceFormat | PreferredResourceLanguage;
        download.setInfo(info);
        download.setOption(PreferredResourceFileType, int(AbstractFileType::Video));
        download.setOption(MaxResourceVideoHeight, 2000);
        download.setOption(PreferredResourceLanguage, u"en-GB"_s);
        download.selector = selectorOf(choices);
        QVERIFY(download.chooseDefaultResourceVersion());
        QCOMPARE(download.selector->selectedVersion(), 2);
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownloadResourceVersionSelector)
#include "tst_abstractdownloadresourceversionselector.moc"
