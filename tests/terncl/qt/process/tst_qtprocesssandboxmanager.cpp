// Real children confined by the system's sandbox: what a sandboxed Python may read, write and
// reach, its temporary folder, and a child the sandbox refuses to run.
#include <terncl/qt/process/qtprocesslaunchmanager.h>

#include "support/testchild.h"
#include "support/testfiles.h"

#include <QDir>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

namespace {
using Sandbox = QtProcessLaunchManager::Sandbox;

QString s(const char* text) {
    return QString::fromUtf8(text);
}

QtProcessSandboxManager::AllowedPath allowed(const QString& path, bool execute, bool read,
                                             bool write) {
    return {path, execute, read, false, write};
}

// Tries each access and prints "name:ok" or "name:denied", then its no-new-privileges flag and
// capabilities (capget) and its temporary folder.
const char* const probeScript = R"(
import ctypes, os, platform, socket, sys
root, port = sys.argv[1], int(sys.argv[2])
def attempt(name, action):
    try:
        action()
        print(name + ':ok')
    except OSError:
        print(name + ':denied')
attempt('read-outside', lambda: open(root + '/secret.txt').read())
attempt('write-outside', lambda: open(root + '/new.txt', 'w').close())
attempt('write-readonly', lambda: open(root + '/ro/new.txt', 'w').close())
attempt('read-readonly', lambda: open(root + '/ro/data.txt').read())
attempt('write-allowed', lambda: open(root + '/rw/new.txt', 'w').close())
attempt('write-temp', lambda: open(os.environ['TMPDIR'] + '/t', 'w').close())
attempt('connect', lambda: socket.create_connection(('127.0.0.1', port), 5).close())
udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
attempt('send-udp', lambda: udp.sendto(b'x', ('127.0.0.1', port)))
libc = ctypes.CDLL(None)
capabilities = (ctypes.c_uint32 * 6)()
capget = {'x86_64': 125, 'aarch64': 90}[platform.machine()]
libc.syscall(capget, (ctypes.c_uint32 * 2)(0x20080522, 0), capabilities)
print('nnp:%d caps:%x' % (libc.prctl(39, 0, 0, 0, 0), capabilities[0] | capabilities[1]))
print('TMPDIR=' + os.environ['TMPDIR'])
)";

struct Run {
    QByteArray output;
    AbstractError error;
};

// Runs program in the sandbox through a launch manager and waits for its end.
Run runSandboxed(QtProcessLaunchManager& manager, const QString& program, const QStringList& args,
                 const Sandbox& sandbox) {
    Run run;
    QObject context;
    QObject::connect(&manager, &QtProcessLaunchManager::dataFromProcess, &context,
                     [&](int, const QByteArray& data) { run.output += data; });
    QSignalSpy finished(&manager, &QtProcessLaunchManager::finished);
    manager.launch(manager.nextId(), program, args, QString(), true, false, sandbox, 0);
    if (!finished.wait(60000))
        run.error.description = "no end within a minute";
    else
        run.error = finished.at(0).at(1).value<AbstractError>();
    return run;
}
} // namespace

class TestQtProcessSandboxManager : public QObject {
    Q_OBJECT

    QSharedPointer<QtProcessSandboxManager> m_sandbox;

private Q_SLOTS:
    void initTestCase() {
#ifndef Q_OS_LINUX
        QSKIP("these tests confine real children with the Linux sandbox");
#endif
        if (!QtProcessSandboxManager::hasSandboxSupport())
            QSKIP("this kernel cannot confine children (Landlock or namespaces missing)");
        m_sandbox.reset(new QtProcessSandboxManager(s("tst")));
    }

    void cleanup() {
        if (TestChild::runningChildCount() >= 0)
            QTRY_COMPARE(TestChild::runningChildCount(), 0);
    }

    void pythonReachesOnlyWhatItIsAllowed() {
        const QString python = QStandardPaths::findExecutable(s("python3"), {s("/usr/bin")});
        if (python.isEmpty())
            QSKIP("/usr/bin/python3 is not installed");
        QTemporaryDir dir;
        const QString root = dir.path();
        QVERIFY(writeFile(root + s("/secret.txt"), "secret") &&
                writeFile(root + s("/ro/data.txt"), "data") && QDir().mkpath(root + s("/rw")));
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        QSignalSpy connections(&server, &QTcpServer::newConnection);
        const QStringList args{s("-c"), s(probeScript), root, QString::number(server.serverPort())};
        QtProcessLaunchManager manager(m_sandbox);

        Sandbox sandbox;
        sandbox.enabled = true;
        sandbox.allowStartWithoutSandbox = false;
        sandbox.settings.internetClient = false;
        sandbox.settings.allowedPaths = {allowed(root + s("/ro"), false, true, false),
                                         allowed(root + s("/rw"), false, true, true)};
        const Run confined = runSandboxed(manager, python, args, sandbox);
        QVERIFY2(!confined.error.isSet(), confined.error.description.c_str());
        const QByteArray denied = "read-outside:denied\nwrite-outside:denied\n"
                                  "write-readonly:denied\nread-readonly:ok\nwrite-allowed:ok\n"
                                  "write-temp:ok\nconnect:denied\nsend-udp:denied\nnnp:1 caps:0\n";
        QVERIFY2(confined.output.startsWith(denied), confined.output.constData());
        QVERIFY(!QFile::exists(root + s("/new.txt")) && QFile::exists(root + s("/rw/new.txt")));
        QCOMPARE(connections.size(), 0);

        // The temporary folder is the manager's private one.
        QVERIFY(confined.output.contains("\nTMPDIR=" + QDir::tempPath().toUtf8() + "/tstSandbox-"));

        sandbox.settings.internetClient = true;
        sandbox.settings.allowedPaths = {allowed(root + s("/secret.txt"), false, true, false),
                                         allowed(root, false, true, true)};
        const Run allowedRun = runSandboxed(manager, python, args, sandbox);
        QVERIFY2(allowedRun.output.startsWith(
                     "read-outside:ok\nwrite-outside:ok\nwrite-readonly:ok\nread-readonly:ok\n"
                     "write-allowed:ok\nwrite-temp:ok\nconnect:ok\nsend-udp:ok\nnnp:1 caps:0\n"),
                 allowedRun.output.constData());
        QCOMPARE(connections.size(), 1);
    }

    void launchManagerReportsARefusedChild() {
        // A system program copied out of the system folders (an uninstrumented one: a sanitizer
        // build's own helper would want /proc for its leak check).
        QTemporaryDir dir;
        const QString program = dir.filePath(s("echo"));
        QVERIFY(QFile::copy(s("/bin/echo"), program));
        QtProcessLaunchManager manager(m_sandbox);
        Sandbox sandbox;
        sandbox.enabled = true;
        // The sandbox will not run a program from outside its paths...
        const Run refused = runSandboxed(manager, program, {s("confined")}, sandbox);
        QCOMPARE(refused.error.category, std::string(AbstractError::GenericError));
        QVERIFY2(QString::fromStdString(refused.error.description).contains(program),
                 refused.error.description.c_str());
        QVERIFY(refused.output.isEmpty());
        // ...unless it is allowed to.
        sandbox.settings.allowedPaths = {allowed(program, true, true, false)};
        const Run ran = runSandboxed(manager, program, {s("confined")}, sandbox);
        QVERIFY2(!ran.error.isSet(), ran.error.description.c_str());
        QCOMPARE(ran.output, QByteArray("confined\n"));
    }
};

QTEST_GUILESS_MAIN(TestQtProcessSandboxManager)
#include "tst_qtprocesssandboxmanager.moc"
