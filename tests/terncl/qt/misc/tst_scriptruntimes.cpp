// Finding and checking Python and Deno: fake interpreters that answer right, wrong or never,
// the search path, and the real programs run in the sandbox; and the manager that asks several
// dependency managers.
#include <terncl/qt/misc/complexdependencymanager.h>
#include <terncl/qt/misc/qtdenomanager.h>
#include <terncl/qt/misc/qtpythonmanager.h>

#include "support/testfiles.h"

#include <QDir>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
using Sandbox = QtProcessLaunchManager::Sandbox;

QString s(const char* text) {
    return QString::fromUtf8(text);
}

// Runs a launch manager's program and gives its output, or "<error>" on failure.
template <typename Launch> QByteArray runOutput(QtProcessLaunchManager& manager, Launch launch) {
    QByteArray output;
    QObject::connect(&manager, &QtProcessLaunchManager::dataFromProcess,
                     [&](int, const QByteArray& data) { output += data; });
    QSignalSpy finished(&manager, &QtProcessLaunchManager::finished);
    launch();
    if (!finished.wait(60000) || finished.at(0).at(1).value<AbstractError>().isSet())
        return "<error>";
    return output;
}

bool hasPath(const Sandbox& sandbox, const QString& path) {
    for (const auto& entry : sandbox.settings.allowedPaths) {
        if (entry.path == path && entry.read && entry.execute && !entry.write)
            return true;
    }
    return false;
}

// Knows the dependencies named in its list and answers every question with its own tag.
class TaggedManager : public AbstractDependencyManager {
public:
    TaggedManager(const QStringList& names, const QString& tag)
        : m_names(names)
        , m_tag(tag) {}

    bool isKnownDependency(const DependencyInfo& info) const override {
        return m_names.contains(info.name);
    }
    bool checkDependency(const DependencyInfo&) const override { return m_tag == u"first"_s; }
    QSharedPointer<AbstractDependencyInstallManager>
    installer(const DependencyInfo&) const override {
        return nullptr;
    }
    QUrl dependencyIconUrl(const DependencyInfo&) const override {
        return QUrl(u"icon:"_s + m_tag);
    }
    QString dependencyDescription(const DependencyInfo&) const override { return m_tag; }
    QUrl dependencyWebPageUrl(const DependencyInfo&) const override {
        return QUrl(u"page:"_s + m_tag);
    }

private:
    QStringList m_names;
    QString m_tag;
};
} // namespace

class TestScriptRuntimes : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;

    void fake(const char* name, const char* body) {
        QVERIFY(writeScript(m_dir.filePath(s(name)), QByteArray(body)));
    }

private Q_SLOTS:
    void initTestCase() {
        fake("exact", "echo 'Python 3.12.3'");
        fake("major", "echo 'Python 3'");
        fake("foreign", "echo 'xPython 3'");
        fake("hang", "exec sleep 30");
    }

    void pythonVersionProbe() {
        QtPythonManager python(m_dir.path() + s("/"),
                               {s("missing"), s("foreign"), s("hang"), s("major"), s("exact")},
                               nullptr);
        python.setVersionCheckTimeout(300);
        QVERIFY(python.isPythonInstalled(false));
        QCOMPARE(python.pythonPath(), m_dir.filePath(s("major")));
        QCOMPARE(python.pythonVersion(), s("3"));
        // Older than 3.12.3: low integrity only.
        QCOMPARE(python.buildSandboxSettings(true).settings.kind, 1);

        QtPythonManager exact(m_dir.path(), {s("exact")}, nullptr);
        QCOMPARE(exact.buildSandboxSettings(true).settings.kind, 2);
        QCOMPARE(exact.pythonVersion(), s("3.12.3"));

        QtPythonManager none(m_dir.path(), {s("missing"), s("foreign"), s("hang")}, nullptr);
        none.setVersionCheckTimeout(300);
        QVERIFY(!none.isPythonInstalled(true));
        QVERIFY(none.pythonPath().isEmpty() && none.pythonVersion().isEmpty());
        QSignalSpy launching(&none, &QtProcessLaunchManager::launching);
        none.launchPython(1, {}, QString(), false, false, Sandbox(), 0);
        QVERIFY(launching.isEmpty() && !none.isRunning());
        const Sandbox withoutPython = none.buildSandboxSettings(true);
        QVERIFY(withoutPython.enabled && withoutPython.settings.allowedPaths.isEmpty());
    }

    void realPythonRunsInTheSandbox() {
        if (!QFileInfo::exists(s("/usr/bin/python3")))
            QSKIP("/usr/bin/python3 is not installed");
        auto sandbox = QSharedPointer<QtProcessSandboxManager>::create(s("tst"));
        QtPythonManager python(s("/usr/bin"), {s("python3")}, sandbox);
        QVERIFY(python.isPythonInstalled(true));
        Sandbox request = python.buildSandboxSettings(true);
        QVERIFY(request.enabled && hasPath(request, s("/usr")));
        if (!QtProcessSandboxManager::hasSandboxSupport())
            QSKIP("this kernel cannot confine children");
        request.allowStartWithoutSandbox = false;
        const QByteArray output = runOutput(python, [&] {
            python.launchPython(1, {s("-c"), s("print('hello')")}, QString(), true, false, request,
                                0);
        });
        QCOMPARE(output, QByteArray("hello\n"));
    }

    void denoOnTheSearchPath() {
        QVERIFY(QDir().mkpath(m_dir.filePath(s("dir/deno"))));
        QVERIFY(writeScript(m_dir.filePath(s("wrong/deno")), "echo 'Deno 1.0'"));
        QVERIFY(writeScript(m_dir.filePath(s("right/deno")), "echo 'deno 1.46.3 (stable)'"));
        const QByteArray path = qgetenv("PATH");
        const auto folders = [&](const char* names) {
            QStringList list;
            for (const QString& name : s(names).split(QLatin1Char(',')))
                list << m_dir.filePath(name);
            return list.join(QDir::listSeparator()).toUtf8();
        };
        QtDenoManager deno(nullptr);
        qputenv("PATH", folders("dir,wrong,right"));
        const bool found = deno.isDenoInstalled(false);
        const QString foundPath = deno.denoPath(), foundVersion = deno.denoVersion();
        const Sandbox request = deno.buildSandboxSettings(false);
        qputenv("PATH", path);
        QVERIFY(found);
        QCOMPARE(foundPath, m_dir.filePath(s("right/deno")));
        QCOMPARE(foundVersion, s("1.46.3"));
        QVERIFY(!request.enabled && hasPath(request, foundPath));
    }

    void realDenoRunsInTheSandbox() {
        // The Deno that scripts/install-deps installs from npm.
        QString tools = qEnvironmentVariable("TERNCL_TOOLS_DIR");
        if (tools.isEmpty())
            tools = QDir::homePath() + s("/.local/share/ternclshared-tools");
        const QString folder = tools + s("/bin");
        if (!QFileInfo::exists(folder + s("/deno")))
            QSKIP("Deno is not installed: scripts/install-deps installs it from npm into "
                  "$TERNCL_TOOLS_DIR (default ~/.local/share/ternclshared-tools)");
        const QByteArray path = qgetenv("PATH");
        qputenv("PATH", folder.toUtf8() + QDir::listSeparator().toLatin1() + path);
        auto sandbox = QSharedPointer<QtProcessSandboxManager>::create(s("tst"));
        QtDenoManager deno(sandbox);
        const bool installed = deno.isDenoInstalled(true);
        qputenv("PATH", path);
        QVERIFY(installed);
        QCOMPARE(deno.denoPath(), folder + s("/deno"));
        Sandbox request = deno.buildSandboxSettings(true);
        QVERIFY(request.enabled && hasPath(request, deno.denoPath()));
        if (!QtProcessSandboxManager::hasSandboxSupport())
            QSKIP("this kernel cannot confine children");
        request.allowStartWithoutSandbox = false;
        request.settings.internetClient = false;
        const QByteArray output = runOutput(deno, [&] {
            deno.launchDeno(1, {s("eval"), s("console.log(6 * 7)")}, QString(), true, false,
                            request, 0);
        });
        QCOMPARE(output, QByteArray("42\n"));
    }

    void firstManagerThatKnowsAnswers() {
        auto first = QSharedPointer<TaggedManager>::create(QStringList{u"ffmpeg"_s}, u"first"_s);
        auto second =
            QSharedPointer<TaggedManager>::create(QStringList{u"ffmpeg"_s, u"deno"_s}, u"second"_s);
        ComplexDependencyManager complex;
        complex.addDependencyManager(first);
        complex.addDependencyManager(second);

        const DependencyInfo ffmpeg{u"ffmpeg"_s, QString(), {}};
        QVERIFY(complex.isKnownDependency(ffmpeg) && complex.checkDependency(ffmpeg));
        QCOMPARE(complex.dependencyIconUrl(ffmpeg), QUrl(u"icon:first"_s));
        const DependencyInfo deno{u"deno"_s, QString(), {}};
        QVERIFY(!complex.checkDependency(deno));
        QCOMPARE(complex.dependencyWebPageUrl(deno), QUrl(u"page:second"_s));

        const DependencyInfo unknown{u"x"_s, QString(), {}};
        QVERIFY(!complex.isKnownDependency(unknown) && !complex.checkDependency(unknown));
    }
};

QTEST_GUILESS_MAIN(TestScriptRuntimes)
#include "tst_scriptruntimes.moc"
