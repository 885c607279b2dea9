#include <terncl/fs/qt/utils/filenamerules.h>

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {
QString s(const char* text) {
    return QString::fromUtf8(text);
}
} // namespace

class TestFileNameRules : public QObject {
    Q_OBJECT

private:
    QTemporaryDir dir;

    void touch(const char* name) {
        QFile file(dir.filePath(s(name)));
        QVERIFY(file.open(QIODevice::WriteOnly));
    }
    void expectUnique(const char* name, const char* expected, int number, const char* suffix = "",
                      int startIndex = 0, bool noSpace = false) {
        const auto unique =
            FileNameRules::uniqueFileName(dir.filePath(s(name)), s(suffix), startIndex, noSpace);
        QCOMPARE(unique.path, dir.filePath(s(expected)));
        QCOMPARE(unique.number, number);
    }

private Q_SLOTS:
    void sanitizedFileName() {
        // Each name followed by what it becomes.
        const char* const cases[] = {"",  "",    "a:b?c", "a_b_c", "a::b",  "a_b",       "COM1",
                                     "_", "Con", "_",     "com10", "com10", "name. . .", "name"};
        for (size_t i = 0; i < std::size(cases); i += 2)
            QCOMPARE(FileNameRules::sanitizedFileName(s(cases[i]), true, s("_")), s(cases[i + 1]));
        QCOMPARE(FileNameRules::sanitizedFileName(s("a/?<>\\:*|\"\nb"), true, s("-")), s("a-b"));
        QCOMPARE(FileNameRules::sanitizedFileName(s("a/b|c"), true, QString()), s("abc"));
    }

    void longNamesAreCutBeforeTheFirstDot() {
        const QString u = s("_");
        const QString name = s("xyz") + QString(287, QLatin1Char('a')) + s(".tar.gz12");
        const QString cut = FileNameRules::sanitizedFileName(name, true, u);
        QCOMPARE(cut, name.left(238) + name.right(10)); // 52 characters before the dot at 290 go
        QCOMPARE(FileNameRules::sanitizedFileName(name, false, u), name);

        const QString earlyDot = s("0123456789.") + QString(289, QLatin1Char('e'));
        QCOMPARE(FileNameRules::sanitizedFileName(earlyDot, true, u), earlyDot.mid(52));
        const QString noDot = QString(247, QLatin1Char('n'));
        // A blank left at the end of the cut goes too.
        QCOMPARE(FileNameRules::sanitizedFileName(noDot + s(" xy"), true, u), noDot);

        // A character outside the basic plane is never cut in half.
        const QString clef = s("\xF0\x9D\x84\x9E");
        QCOMPARE(FileNameRules::sanitizedFileName(s("a") + clef.repeated(125) + s(".txt"), true, u),
                 s("a") + clef.repeated(121) + s(".txt"));
    }

    void fileExtension() {
        const struct {
            const char *name, *expected;
        } cases[] = {{"x.y.TAR.GZ", "TAR.GZ"},
                     {"a.b.zip", "zip"},
                     {"/dir.d/file", ""},
                     {"a.tar.gz.sig", "sig"}};
        for (const auto& c : cases)
            QCOMPARE(FileNameRules::fileExtension(s(c.name)), s(c.expected));
    }

    void uniqueNames() {
        QVERIFY(dir.isValid());
        expectUnique("x.txt", "x.txt", 0);
        expectUnique("x.txt", "x (3).txt", 3, "", 3);
        touch("x.txt");
        expectUnique("x.txt", "x (1).txt", 1);
        expectUnique("x.txt", "x(1).txt", 1, "", 0, true);
        touch("a.tar.gz");
        expectUnique("a.tar.gz", "a (1).tar.gz", 1);
        QVERIFY(QFile::link(dir.filePath(s("missing")), dir.filePath(s("dangling.bin"))));
        expectUnique("dangling.bin", "dangling (1).bin", 1);

        // The final and the temporary name are kept free together.
        expectUnique("x.txt.part", "x (1).txt.part", 1, ".part");
        touch("x (1).txt");
        touch("x (2).txt.part");
        expectUnique("x.txt.part", "x (3).txt.part", 3, ".part");
        expectUnique("x.txt", "x (3).txt", 3, ".part"); // no suffix added

        // A number already in the name is continued only when the lower numbers are taken.
        touch("report (1).txt");
        expectUnique("report (1).txt", "report (2).txt", 2);
        touch("report (3).txt");
        expectUnique("report (3).txt", "report (3) (1).txt", 1); // "report (2).txt" is free
        touch("report (2).txt");
        expectUnique("report (3).txt", "report (4).txt", 4);
    }

    void unwantedFolderPath() {
        const struct {
            const char* path;
            bool unwanted;
            const char* expected;
        } cases[] = {{"Album/cd1/track.mp3", true, "Album/.unwanted/cd1/track.mp3"},
                     {"track.mp3", true, ".unwanted/track.mp3"},
                     {"Album/.unwanted/t.mp3", true, "Album/.unwanted/t.mp3"},
                     {"Album/.unwanted/cd1/track.mp3", false, "Album/cd1/track.mp3"},
                     {".Unwanted/t", true, ".Unwanted/.unwanted/t"}};
        for (const auto& c : cases)
            QCOMPARE(FileNameRules::unwantedFolderPath(s(c.path), c.unwanted), s(c.expected));
    }

    void longPaths() {
        const QString at259 = s("C:/") + QString(256, QLatin1Char('d'));
        QCOMPARE(FileNameRules::windowsLongPath(at259), s("C:\\") + at259.mid(3));
        const QString at260 = at259 + s("e");
        QCOMPARE(FileNameRules::windowsLongPath(at260), s("\\\\?\\C:\\") + at260.mid(3));
        const QString unc = s("//server/share/") + QString(400, QLatin1Char('u'));
        QCOMPARE(FileNameRules::windowsLongPath(unc), s("\\\\server\\share\\") + unc.mid(15));
    }
};

QTEST_GUILESS_MAIN(TestFileNameRules)
#include "tst_filenamerules.moc"
