#include "support/recordinglogger.h"

#include <terncl/core/abstracterror.h>
#include <terncl/core/qtabstracterror.h>
#include <terncl/core/sourceplace.h>
#include <terncl/core/windowserrorcategory.h>

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
class PrefixConverter : public QtAbstractErrorToString {
public:
    QString toString(const AbstractError& error, bool shortText) const override {
        return (shortText ? u"short:"_s : u"long:"_s) + QString::fromStdString(error.description);
    }
};
} // namespace

class TestAbstractError : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void sourcePlaceIsRelativeWithoutExtension() {
        QCOMPARE(QString::fromStdString(terncl::sourcePlace("./a/b.c/file.cpp", 3)),
                 u"a/b.c/file,3"_s);
        QCOMPARE(QString::fromStdString(terncl::sourcePlace("a/b.c/noext", 3)), u"a/b.c/noext,3"_s);
    }

    void failedAssertionLogsAndContinues() {
        RecordingLogger logger;
        int sideEffects = 0;
        const int line = __LINE__ + 1;
        TERNCL_ASSERT(++sideEffects == 2);
        TERNCL_ASSERT(++sideEffects == 2);
        QCOMPARE(sideEffects, 2);
        QCOMPARE(logger.lines(),
                 QStringList{QStringLiteral("ASSERTION FAILED: ++sideEffects == 2, "
                                            "tests/terncl/core/tst_abstracterror,%1")
                                 .arg(line)});
    }

    void windowsCategory() {
        const auto& category = WindowsErrorCategory::instance();
        QCOMPARE(QString::fromLatin1(category.name()), u"windows"_s);
        QVERIFY(std::error_code(5, category) == std::errc::permission_denied);
        QVERIFY(std::error_code(12007, category) == std::errc::address_not_available);
        QVERIFY(std::error_code(12029, category) == std::errc::host_unreachable);
        QVERIFY(std::error_code(12030, category) == std::errc::connection_aborted);
        QVERIFY(std::error_code(12031, category) == std::errc::connection_reset);
        const auto other = category.default_error_condition(42);
        QVERIFY(other.value() == 42 && &other.category() == &category);
    }

    void changesAreSignalledOnlyWhenReal() {
        QtAbstractError wrapper(QSharedPointer<PrefixConverter>::create(),
                                AbstractError(403, "HttpError", "a,1", "first"));
        QSignalSpy changed(&wrapper, &QtAbstractError::changed);

        wrapper.setError(AbstractError(403, "HttpError", "b,2", "second"));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(wrapper.description(), u"first"_s);
        QCOMPARE(wrapper.source(), u"a,1"_s);

        wrapper.setError(AbstractError(403, "GenericError", "c,3", "third"));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(wrapper.category(), u"GenericError"_s);
        QCOMPARE(wrapper.description(), u"third"_s);
        QCOMPARE(wrapper.displayTextShort(), u"short:third"_s);
        QCOMPARE(wrapper.displayTextLong(), u"long:third"_s);

        QtAbstractError none(nullptr, AbstractError());
        QSignalSpy noneChanged(&none, &QtAbstractError::changed);
        none.setError(AbstractError(0, "Other", "x", "y"));
        QCOMPARE(noneChanged.count(), 0);
        QCOMPARE(none.category(), QString());
        QCOMPARE(none.displayTextShort(), QString());

        // The setters signal only a real change.
        none.setCategory(QString());
        none.setCode(0);
        QCOMPARE(noneChanged.count(), 0);
        const QString text = u"Ошибка: файл «загрузка» ✓ 😀"_s;
        for (int i = 0; i < 2; ++i) {
            none.setCode(2);
            none.setDescription(text);
        }
        QCOMPARE(noneChanged.count(), 2);
        QCOMPARE(QString::fromStdString(none.error().description), text);
    }
};

QTEST_GUILESS_MAIN(TestAbstractError)
#include "tst_abstracterror.moc"
