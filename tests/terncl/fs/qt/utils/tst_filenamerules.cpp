#include <terncl/fs/qt/utils/filenamerules.h>

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

class TestFileNameRules : public QObject {
    Q_OBJECT

private:
    QTemporaryDir dir;

    QString path(const QString& name) const { return dir.filePath(name); }
    void touch(const QString& name) const {
        QFile file(path(name));
        QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(file.errorString()));
    }
    FileNameRules::UniqueName unique(const QString& name, const QString& suffix = {},
                                     int startIndex = 0, bool noSpace = false) const {
        return FileNameRules::uniqueFileName(path(name), suffix, startIndex, noSpace);
    }
    void compareUnique(const FileNameRules::UniqueName& actual, const QString& name, int number) {
        QCOMPARE(actual.path, path(name));
        QCOMPARE(actual.number, number);
    }

private Q_SLOTS:
    void init() { QVERIFY(dir.isValid()); }
    void cleanup() {
        for (const QString& name : QDir(dir.path()).entryList(QDir::Files | QDir::System))
            QVERIFY(QFile::remove(path(name)));
    }

    void sanitizedFileName_data() {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("replacement");
        QTest::addColumn<QString>("expected");
        const QString u = QStringLiteral("_");
        QTest::newRow("empty") << QString() << u << QString();
        QTest::newRow("each rejected character")
            << QStringLiteral("a:b?c") << u << QStringLiteral("a_b_c");
        QTest::newRow("one replacement per run")
            << QStringLiteral("a::b") << u << QStringLiteral("a_b");
        QTest::newRow("all of them in one run")
            << QStringLiteral("a/?<>\\:*|\"\nb") << QStringLiteral("-") << QStringLiteral("a-b");
        QTest::newRow("dropped with no replacement")
            << QStringLiteral("a/b|c") << QString() << QStringLiteral("abc");
        QTest::newRow("device name") << QStringLiteral("COM1") << u << u;
        QTest::newRow("device name lower case") << QStringLiteral("lpt9") << u << u;
        QTest::newRow("con") << QStringLiteral("Con") << u << u;
        QTest::newRow("nul") << QStringLiteral("nul") << u << u;
        QTest::newRow("device name with extension")
            << QStringLiteral("com1.txt") << u << QStringLiteral("com1.txt");
        QTest::newRow("two digits") << QStringLiteral("com10") << u << QStringLiteral("com10");
        QTest::newRow("aux passes") << QStringLiteral("aux") << u << QStringLiteral("aux");
        QTest::newRow("trailing spaces and dots")
            << QStringLiteral("name. . .") << u << QStringLiteral("name");
        QTest::newRow("only dots") << QStringLiteral("...") << u << QString();
        QTest::newRow("inner dots kept")
            << QStringLiteral("a. b.c") << u << QStringLiteral("a. b.c");
    }
    void sanitizedFileName() {
        QFETCH(QString, name);
        QFETCH(QString, replacement);
        QFETCH(QString, expected);
        QCOMPARE(FileNameRules::sanitizedFileName(name, true, replacement), expected);
    }

    void longNamesAreCutBeforeTheFirstDot() {
        const QString sanitize = QStringLiteral("_");
        QString name = QString(290, QLatin1Char('a')) + QStringLiteral(".tar.gz12");
        name.replace(0, 3, QStringLiteral("xyz"));
        QCOMPARE(name.size(), 299);
        name.insert(100, QLatin1Char('b'));
        const QString cut = FileNameRules::sanitizedFileName(name, true, sanitize);
        QCOMPARE(cut.size(), 248);
        QCOMPARE(cut.right(10), name.right(10)); // the dot at 290 and all after it
        QCOMPARE(cut.left(238), name.left(238)); // the 52 characters before the dot go
        QCOMPARE(FileNameRules::sanitizedFileName(name, false, sanitize), name);

        const QString earlyDot = QStringLiteral("0123456789.") + QString(289, QLatin1Char('e'));
        QCOMPARE(FileNameRules::sanitizedFileName(earlyDot, true, sanitize), earlyDot.mid(52));

        const QString noDot = QString(247, QLatin1Char('n')) + QStringLiteral("xy");
        QCOMPARE(FileNameRules::sanitizedFileName(noDot, true, sanitize), noDot.left(248));
        // The cut end of a name without a dot is trimmed again.
        const QString spaceAtCut = QString(247, QLatin1Char('n')) + QStringLiteral(" xy");
        QCOMPARE(FileNameRules::sanitizedFileName(spaceAtCut, true, sanitize), noDot.left(247));
        const QString limit = QString(248, QLatin1Char('n'));
        QCOMPARE(FileNameRules::sanitizedFileName(limit, true, sanitize), limit);

        // A character outside the basic plane is never cut in half.
        const QString clef = QString::fromUtf8("\xF0\x9D\x84\x9E");
        const QString wide = QLatin1Char('a') + clef.repeated(125) + QStringLiteral(".txt");
        const QString wideCut = FileNameRules::sanitizedFileName(wide, true, sanitize);
        QCOMPARE(wideCut, QLatin1Char('a') + clef.repeated(121) + QStringLiteral(".txt"));
    }

    void fileExtension_data() {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("expected");
        QTest::newRow("plain tar") << QStringLiteral("x.tar") << QStringLiteral("tar");
        QTest::newRow("upper case tarball")
            << QStringLiteral("x.y.TAR.GZ") << QStringLiteral("TAR.GZ");
        QTest::newRow("tarball") << QStringLiteral("a.b.tar.gz") << QStringLiteral("tar.gz");
        QTest::newRow("zip") << QStringLiteral("a.b.zip") << QStringLiteral("zip");
        QTest::newRow("no extension") << QStringLiteral("README") << QString();
        QTest::newRow("dots in folders only") << QStringLiteral("/dir.d/file") << QString();
        QTest::newRow("path") << QStringLiteral("dir.d/a.tar.xz") << QStringLiteral("tar.xz");
        QTest::newRow("nothing before tar") << QStringLiteral(".tar.gz") << QStringLiteral("gz");
        QTest::newRow("tar in the middle")
            << QStringLiteral("a.tar.gz.sig") << QStringLiteral("sig");
        QTest::newRow("nothing after tar") << QStringLiteral("a.b.tar.") << QString();
    }
    void fileExtension() {
        QFETCH(QString, name);
        QFETCH(QString, expected);
        QCOMPARE(FileNameRules::fileExtension(name), expected);
    }

    void uniqueNameOfAFreePath() {
        compareUnique(unique(QStringLiteral("x.txt")), QStringLiteral("x.txt"), 0);
        compareUnique(unique(QStringLiteral("x.txt"), {}, 3), QStringLiteral("x (3).txt"), 3);
        compareUnique(unique(QStringLiteral("x.txt"), {}, 3, true), QStringLiteral("x(3).txt"), 3);
    }

    void uniqueNameCountsUp() {
        touch(QStringLiteral("x.txt"));
        compareUnique(unique(QStringLiteral("x.txt")), QStringLiteral("x (1).txt"), 1);
        compareUnique(unique(QStringLiteral("x.txt"), {}, 0, true), QStringLiteral("x(1).txt"), 1);
        touch(QStringLiteral("x (1).txt"));
        compareUnique(unique(QStringLiteral("x.txt")), QStringLiteral("x (2).txt"), 2);
        touch(QStringLiteral("a.tar.gz"));
        compareUnique(unique(QStringLiteral("a.tar.gz")), QStringLiteral("a (1).tar.gz"), 1);
        touch(QStringLiteral("noext"));
        compareUnique(unique(QStringLiteral("noext")), QStringLiteral("noext (1)"), 1);
    }

    void uniqueNameKeepsTheSuffixTogether() {
        const QString part = QStringLiteral(".part");
        // The final name is taken, so the temporary name is not free either.
        touch(QStringLiteral("x.txt"));
        compareUnique(unique(QStringLiteral("x.txt.part"), part), QStringLiteral("x (1).txt.part"),
                      1);
        // A candidate is taken when either its final or its temporary name exists.
        touch(QStringLiteral("x (1).txt"));
        touch(QStringLiteral("x (2).txt.part"));
        compareUnique(unique(QStringLiteral("x.txt.part"), part), QStringLiteral("x (3).txt.part"),
                      3);
        // A path without the suffix gets none added, but its free name is free with it too.
        compareUnique(unique(QStringLiteral("x.txt"), part), QStringLiteral("x (3).txt"), 3);
        // The suffix is compared case-insensitively and kept as the path spells it.
        touch(QStringLiteral("y.txt"));
        compareUnique(unique(QStringLiteral("y.txt.PART"), part), QStringLiteral("y (1).txt.PART"),
                      1);
    }

    void uniqueNameContinuesNumberingOnlyWhenLowerNumbersAreTaken() {
        touch(QStringLiteral("report (1).txt"));
        compareUnique(unique(QStringLiteral("report (1).txt")), QStringLiteral("report (2).txt"),
                      2);

        touch(QStringLiteral("report (3).txt"));
        // "report (2).txt" is free, so "report (3)" is numbered as a name of its own.
        compareUnique(unique(QStringLiteral("report (3).txt")),
                      QStringLiteral("report (3) (1).txt"), 1);
        touch(QStringLiteral("report (2).txt"));
        compareUnique(unique(QStringLiteral("report (3).txt")), QStringLiteral("report (4).txt"),
                      4);

        touch(QStringLiteral("(0)"));
        compareUnique(unique(QStringLiteral("(0)")), QStringLiteral("(0) (1)"), 1);
        touch(QStringLiteral("v(0).txt"));
        compareUnique(unique(QStringLiteral("v(0).txt")), QStringLiteral("v(0) (1).txt"), 1);
        touch(QStringLiteral("w (0).txt"));
        compareUnique(unique(QStringLiteral("w (0).txt")), QStringLiteral("w (1).txt"), 1);
        touch(QStringLiteral("z (-1).txt"));
        compareUnique(unique(QStringLiteral("z (-1).txt")), QStringLiteral("z (-1) (1).txt"), 1);
    }

    void uniqueNameTreatsADanglingLinkAsTaken() {
        QVERIFY(QFile::link(path(QStringLiteral("missing-target")), path(QStringLiteral("l.bin"))));
        compareUnique(unique(QStringLiteral("l.bin")), QStringLiteral("l (1).bin"), 1);
    }

    void unwantedFolderPath_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("unwanted");
        QTest::addColumn<QString>("expected");
        QTest::newRow("in below the first folder")
            << QStringLiteral("Album/cd1/track.mp3") << true
            << QStringLiteral("Album/.unwanted/cd1/track.mp3");
        QTest::newRow("in at the top")
            << QStringLiteral("track.mp3") << true << QStringLiteral(".unwanted/track.mp3");
        QTest::newRow("already in") << QStringLiteral("Album/.unwanted/t.mp3") << true
                                    << QStringLiteral("Album/.unwanted/t.mp3");
        QTest::newRow("already out")
            << QStringLiteral("Album/t.mp3") << false << QStringLiteral("Album/t.mp3");
        QTest::newRow("out from below") << QStringLiteral("Album/.unwanted/cd1/track.mp3") << false
                                        << QStringLiteral("Album/cd1/track.mp3");
        QTest::newRow("out from the top")
            << QStringLiteral(".unwanted/track.mp3") << false << QStringLiteral("track.mp3");
        QTest::newRow("out from deeper")
            << QStringLiteral("a/b/.unwanted/c") << false << QStringLiteral("a/b/c");
        QTest::newRow("case-sensitive marker")
            << QStringLiteral(".Unwanted/t") << true << QStringLiteral(".Unwanted/.unwanted/t");
    }
    void unwantedFolderPath() {
        QFETCH(QString, path);
        QFETCH(bool, unwanted);
        QFETCH(QString, expected);
        QCOMPARE(FileNameRules::unwantedFolderPath(path, unwanted), expected);
    }

    void longPaths() {
        const QString drive = QStringLiteral("C:/");
        const QString at259 = drive + QString(256, QLatin1Char('d'));
        QCOMPARE(FileNameRules::windowsLongPath(at259), QStringLiteral("C:\\") + at259.mid(3));
        const QString at260 = at259 + QLatin1Char('e');
        QCOMPARE(FileNameRules::windowsLongPath(at260),
                 QStringLiteral("\\\\?\\C:\\") + at260.mid(3));
        const QString unc = QStringLiteral("//server/share/") + QString(400, QLatin1Char('u'));
        QCOMPARE(FileNameRules::windowsLongPath(unc),
                 QStringLiteral("\\\\server\\share\\") + unc.mid(15));
#ifndef Q_OS_WIN
        const QString relative = QString(300, QLatin1Char('r')) + QStringLiteral("/f");
        QCOMPARE(FileNameRules::nativeLongPath(relative), relative);
#endif
    }
};

QTEST_GUILESS_MAIN(TestFileNameRules)
#include "tst_filenamerules.moc"
