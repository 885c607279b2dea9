#include <terncl/qt/misc/abstractdependencyinstallmanager.h>
#include <terncl/qt/misc/complexdependencymanager.h>

#include <QSignalSpy>
#include <QTest>

namespace {
// Knows the dependencies named in its list and answers every question with its own tag.
class TaggedManager : public AbstractDependencyManager {
public:
    TaggedManager(const QStringList& names, const QString& tag)
        : m_names(names)
        , m_tag(tag) {}
    void announceInstall() { Q_EMIT dependencyInstalled(); }

    bool isKnownDependency(const DependencyInfo& info) const override {
        return m_names.contains(info.name);
    }
    bool checkDependency(const DependencyInfo&) const override { return m_tag == m_present; }
    QSharedPointer<AbstractDependencyInstallManager>
    installer(const DependencyInfo&) const override {
        return nullptr;
    }
    QUrl dependencyIconUrl(const DependencyInfo&) const override {
        return QUrl(QStringLiteral("icon:") + m_tag);
    }
    QString dependencyDescription(const DependencyInfo&) const override { return m_tag; }
    QUrl dependencyWebPageUrl(const DependencyInfo&) const override {
        return QUrl(QStringLiteral("page:") + m_tag);
    }

    QString m_present = QStringLiteral("first");

private:
    QStringList m_names;
    QString m_tag;
};
} // namespace

class TestComplexDependencyManager : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void firstManagerThatKnowsAnswers() {
        auto first = QSharedPointer<TaggedManager>::create(QStringList{QStringLiteral("ffmpeg")},
                                                           QStringLiteral("first"));
        auto second = QSharedPointer<TaggedManager>::create(
            QStringList{QStringLiteral("ffmpeg"), QStringLiteral("deno")},
            QStringLiteral("second"));
        ComplexDependencyManager complex;
        complex.addDependencyManager(first);
        complex.addDependencyManager(second);
        QSignalSpy installed(&complex, &AbstractDependencyManager::dependencyInstalled);

        const DependencyInfo ffmpeg{QStringLiteral("ffmpeg"), QString(), {}};
        QVERIFY(complex.isKnownDependency(ffmpeg) && complex.checkDependency(ffmpeg));
        QCOMPARE(complex.dependencyDescription(ffmpeg), QStringLiteral("first"));
        QCOMPARE(complex.dependencyIconUrl(ffmpeg), QUrl(QStringLiteral("icon:first")));
        const DependencyInfo deno{QStringLiteral("deno"), QString(), {}};
        QVERIFY(!complex.checkDependency(deno));
        QCOMPARE(complex.dependencyWebPageUrl(deno), QUrl(QStringLiteral("page:second")));

        const DependencyInfo unknown{QStringLiteral("x"), QString(), {}};
        QVERIFY(!complex.isKnownDependency(unknown) && !complex.checkDependency(unknown));
        QVERIFY(complex.installer(unknown).isNull());
        QVERIFY(complex.dependencyIconUrl(unknown).isEmpty() &&
                complex.dependencyWebPageUrl(unknown).isEmpty());
        QVERIFY(complex.dependencyDescription(unknown).isEmpty());

        second->announceInstall();
        QCOMPARE(installed.size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestComplexDependencyManager)
#include "tst_complexdependencymanager.moc"
