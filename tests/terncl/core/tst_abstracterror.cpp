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
        QVERIFY(std::error_code(5, category) == std::errc::permission_denied);
    }

    void wrapperShowsTheErrorThroughItsConverter() {
        QtAbstractError wrapper(QSharedPointer<PrefixConverter>::create(),
                                AbstractError(403, "HttpError", "a,1", "first"));
        QSignalSpy changed(&wrapper, &QtAbstractError::changed);
        wrapper.setError(AbstractError(403, "GenericError", "c,3", "third"));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(wrapper.category(), u"GenericError"_s);
        QCOMPARE(wrapper.displayTextShort(), u"short:third"_s);
        QCOMPARE(wrapper.displayTextLong(), u"long:third"_s);
    }
};

QTEST_GUILESS_MAIN(TestAbstractError)
#include "tst_abstracterror.moc"
