// The Windows sandbox's decisions, run against a stand-in for the Win32 calls: which mechanism is
// tried, what the child's environment holds, which accesses are granted and withdrawn, and the
// loopback exemption.
#include <terncl/qt/process/qtprocesssandboxmanager.h>
#include <terncl/qt/process/qtwinappcontainerprocessallowedpathsmgr.h>

#include "support/fakewinsandboxapi.h"
#include "support/testchild.h"
#include "support/testfiles.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
using Settings = QtProcessSandboxManager::SandboxSettings;

QtProcessSandboxManager::AllowedPath allowed(const QString& path, bool execute, bool read,
                                             bool write) {
    return {path, execute, read, false, write};
}

struct Rig {
    explicit Rig(int kind = 2) {
        settings.kind = kind;
        api->containerFolder = (dir.path() + u"/container"_s).toStdWString();
        api->lowFolder = (dir.path() + u"/low"_s).toStdWString();
        process.setProgram(TestChild::program());
        process.setArguments({u"exit"_s, u"0"_s});
    }
    // Starts the helper in the sandbox; when it started, waits for its end.
    bool start(bool fallback = true) {
        const bool started =
            manager.startInSandbox(settings, fallback, &process, QIODeviceBase::ReadOnly);
        if (process.state() != QProcess::NotRunning)
            process.waitForFinished(-1);
        return started;
    }
    // The child's variables that the sandbox may set, in this order; "-" for those unset.
    QStringList env() const {
        QStringList values;
        for (const char* name : {"TMPDIR", "TEMP", "TMP", "XDG_CACHE_HOME", "PYTHONPYCACHEPREFIX",
                                 "USERPROFILE", "APPDATA", "LOCALAPPDATA"})
            values << process.processEnvironment().value(QString::fromLatin1(name), u"-"_s);
        return values;
    }

    Settings settings;
    QTemporaryDir dir;
    std::shared_ptr<FakeWinSandboxApi> api = std::make_shared<FakeWinSandboxApi>();
    QtProcessSandboxManager manager{u"tern"_s, api};
    QProcess process;
};
} // namespace

class TestQtWinSandbox : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() {
        for (const char* name :
             {"XDG_CACHE_HOME", "PYTHONPYCACHEPREFIX", "USERPROFILE", "APPDATA", "LOCALAPPDATA"}) {
            qunsetenv(name);
        }
    }

    void kindPicksTheMechanism() {
        const QString container = QStringLiteral("sid ternAppContainerSandbox,folder S-1-15-2-7,"
                                                 "capabilities S-1-15-2-7 internet");
        const QString low = u"lowfolder,lower,resume"_s;
        const struct {
            int kind;
            bool noProfile, noCapabilities;
            QString calls;
        } cases[] = {
            {2, false, false, container},
            {0, false, false, container},
            {1, false, false, low},
            {2, true, false, u"sid ternAppContainerSandbox,"_s + low},
            {2, false, true, container + QLatin1Char(',') + low},
        };
        for (const auto& c : cases) {
            Rig rig(c.kind);
            if (c.noProfile)
                rig.api->sid.clear();
            rig.api->capabilitiesFail = c.noCapabilities;
            QVERIFY(rig.start(false));
            QCOMPARE(rig.api->calls.join(QLatin1Char(',')), c.calls);
            QCOMPARE(rig.process.exitCode(), 0);
        }
    }

    void failuresFollowTheFallbackRule() {
        for (bool fallback : {false, true}) {
            Rig rig(1);
            rig.api->integrityFailure = WinSandboxApi::IntegrityStep::SetLevel;
            QCOMPARE(rig.start(fallback), fallback);
            // A child left suspended runs only when it may run unconfined.
            QCOMPARE(rig.api->calls.endsWith(u"resume"_s), fallback);
        }
        Rig rig(1);
        rig.api->lowFolder.clear();
        QVERIFY(!rig.start(false));
        QVERIFY(!rig.api->calls.contains(u"lower"_s));
    }

    void childEnvironment() {
        Rig rig;
        rig.settings.overrideUserProfile = rig.settings.overrideAppData = true;
        QVERIFY(rig.start());
        const QString base = QString::fromStdWString(rig.api->containerFolder);
        const QString temp = base + u"\\AppData\\Local\\Temp"_s;
        QCOMPARE(rig.env(),
                 (QStringList{temp, temp, temp, temp + u"/.cache"_s, temp + u"/Python"_s, base,
                              base + u"\\AppData\\Roaming"_s, base + u"\\AppData\\Local"_s}));
        QVERIFY(QFileInfo(temp).isDir());

        // A low-integrity child may write only below the LocalLow folder.
        Rig low(1);
        QVERIFY(low.start());
        QCOMPARE(low.env().first(), QString::fromStdWString(low.api->lowFolder) +
                                        u"\\Temp\\tern\\AppData\\Local\\Temp"_s);
    }

    void allowedPathsAreGrantedAndWithdrawn() {
        Rig rig;
        const QString folder = rig.dir.path(), file = TestChild::program();
        const QString missing = folder + u"/missing"_s;
        rig.api->failingGrants << missing;
        rig.settings.allowedPaths = {allowed(folder, false, true, false),
                                     allowed(missing, false, false, true),
                                     allowed(file, true, true, false)};
        const QStringList grants{u"grant %1 80000000"_s.arg(folder),
                                 u"grant %1 40000000"_s.arg(missing),
                                 u"grant %1 a0000000"_s.arg(file)};
        QVERIFY(rig.start(false));
        QCOMPARE(rig.api->calls.mid(2, 3), grants);
        QTRY_VERIFY(rig.api->granted.isEmpty());
        QVERIFY(!rig.api->calls.contains(u"revoke "_s + missing));

        // A grant that fails on an existing path undoes this child's grants and the container.
        rig.api->calls.clear();
        rig.api->failingGrants = {missing, file};
        QVERIFY(rig.start(false));
        QCOMPARE(rig.api->calls.mid(2, 5),
                 grants + QStringList({u"revoke "_s + folder, u"lowfolder"_s}));
        QVERIFY(rig.api->granted.isEmpty());

        rig.api->failingGrants.clear();
        rig.settings.revokeAllowedPathsOnFinish = false;
        QVERIFY(rig.start(false));
        QCoreApplication::processEvents();
        QCOMPARE(rig.api->granted.value(folder), WinSandboxApi::GenericRead);
    }

    void sharedPathKeepsTheUnionOfItsHolders() {
        auto api = std::make_shared<FakeWinSandboxApi>();
        QtWinAppContainerProcessAllowedPathsMgr paths(api, u"S-1"_s);
        QProcess first, second;
        const QString path = u"/data"_s;
        QVERIFY(paths.grantAccess(&first, path, WinSandboxApi::GenericRead));
        QVERIFY(paths.grantAccess(&second, path, WinSandboxApi::GenericWrite));
        paths.withdrawAll(&first);
        QCOMPARE(paths.grantedAccess(path), WinSandboxApi::GenericWrite);
        paths.withdrawAll(&second);
        QCOMPARE(api->calls,
                 QStringList({u"grant /data 80000000"_s, u"grant /data c0000000"_s,
                              u"revoke /data"_s, u"grant /data 40000000"_s, u"revoke /data"_s}));
        QCOMPARE(paths.grantedAccess(path), 0u);
    }

    void loopbackExemption() {
        Rig rig;
        const QString listing = rig.dir.filePath(u"listing"_s);
        QVERIFY(writeScript(rig.dir.filePath(u"CheckNetIsolation.exe"_s),
                            QByteArrayLiteral("[ \"$*\" = \"LoopbackExempt -s\" ] && cat ") +
                                listing.toUtf8()));
        const QByteArray path = qgetenv("PATH");
        qputenv("PATH", rig.dir.path().toUtf8() + ':' + path);
        QVERIFY(writeFile(listing, "Name: ternappcontainersandbox\n"));
        const bool listed = rig.manager.isGlobalLoopbackAccessEnabled();
        QVERIFY(writeFile(listing, "Name: otherappcontainersandbox\n"));
        const bool unlisted = rig.manager.isGlobalLoopbackAccessEnabled();
        rig.settings.requireLoopbackExemption = true;
        QVERIFY(rig.start());
        qputenv("PATH", path);
        QVERIFY(listed && !unlisted);
        QVERIFY(rig.api->calls.contains(u"lowfolder"_s));

        QVERIFY(rig.manager.enableGlobalLoopbackAccess(true));
        QCOMPARE(rig.api->calls.last(), QStringLiteral("shell CheckNetIsolation.exe LoopbackExempt "
                                                       "-a -n=\"ternAppContainerSandbox\" runas"));
    }
};

QTEST_GUILESS_MAIN(TestQtWinSandbox)
#include "tst_qtwinsandbox.moc"
