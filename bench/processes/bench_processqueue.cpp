// Launches a trivial program many times through the launch queue (maximum 1) and in a plain
// sequential QProcess loop, alternating rounds in the same run, and prints the time of each and
// their ratio (queue / plain loop; the target is at most 1.2). Then the same queue with every
// launch in the sandbox (no network, the program the only allowed path) against the queue
// without it, and the cost the sandbox adds per launch (the target is at most 5 ms).
//
// Usage: bench_processqueue [LAUNCHES=500] [ROUNDS=5]

#include <terncl/qt/process/qtprocesslaunchmanager.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QProcess>

#include <algorithm>
#include <cstdio>

namespace {
const QString program = QString::fromUtf8(TERNCL_BENCH_CHILD_PATH);
const QStringList arguments{QStringLiteral("exit"), QStringLiteral("0")};

double plainLoopMs(int launches) {
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < launches; ++i) {
        QProcess process;
        process.start(program, arguments, QIODeviceBase::ReadOnly);
        if (!process.waitForFinished(-1) || process.exitCode() != 0)
            std::fprintf(stderr, "plain launch %d failed\n", i);
    }
    return double(timer.nsecsElapsed()) / 1e6;
}

QtProcessLaunchManager::Sandbox confined() {
    QtProcessLaunchManager::Sandbox sandbox;
    sandbox.enabled = true;
    sandbox.allowStartWithoutSandbox = false;
    sandbox.settings.internetClient = false;
    QtProcessSandboxManager::AllowedPath entry;
    entry.path = program;
    entry.read = entry.execute = true;
    sandbox.settings.allowedPaths = {entry};
    return sandbox;
}

double queueMs(int launches, const QtProcessLaunchManager::Sandbox& sandbox = {},
               QSharedPointer<QtProcessSandboxManager> sandboxManager = nullptr) {
    QtProcessLaunchManager manager(sandboxManager);
    QEventLoop loop;
    int finished = 0;
    QObject::connect(&manager, &QtProcessLaunchManager::finished,
                     [&](int id, const AbstractError& error, int exitCode) {
                         if (error.isSet() || exitCode != 0)
                             std::fprintf(stderr, "queued launch %d failed\n", id);
                         if (++finished == launches)
                             loop.quit();
                     });
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < launches; ++i) {
        manager.launch(manager.nextId(), program, arguments, QString(), false, true, sandbox, 1);
    }
    loop.exec();
    return double(timer.nsecsElapsed()) / 1e6;
}

double median(QList<double> values) {
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}
} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int launches = argc > 1 ? std::atoi(argv[1]) : 500;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
    QList<double> plain, queued;
    for (int round = 0; round < rounds; ++round) {
        // Alternating which goes first spreads the load of other programs over both sides.
        if (round % 2 == 0) {
            plain << plainLoopMs(launches);
            queued << queueMs(launches);
        } else {
            queued << queueMs(launches);
            plain << plainLoopMs(launches);
        }
        std::printf("round %d: plain loop %.0f ms, queue %.0f ms\n", round + 1, plain.last(),
                    queued.last());
    }
    const double plainMedian = median(plain), queueMedian = median(queued);
    std::printf("%d launches, median of %d rounds: plain loop %.0f ms (%.2f ms/launch), "
                "queue %.0f ms (%.2f ms/launch)\n",
                launches, rounds, plainMedian, plainMedian / launches, queueMedian,
                queueMedian / launches);
    std::printf("ratio queue/plain: %.3f (target <= 1.2)\n", queueMedian / plainMedian);

    if (!QtProcessSandboxManager::hasSandboxSupport()) {
        std::printf("no sandbox on this system: sandboxed launches not measured\n");
        return 0;
    }
    auto sandboxManager = QSharedPointer<QtProcessSandboxManager>::create(QStringLiteral("bench"));
    QList<double> open, sandboxed;
    for (int round = 0; round < rounds; ++round) {
        if (round % 2 == 0) {
            open << queueMs(launches);
            sandboxed << queueMs(launches, confined(), sandboxManager);
        } else {
            sandboxed << queueMs(launches, confined(), sandboxManager);
            open << queueMs(launches);
        }
        std::printf("round %d: queue %.0f ms, sandboxed queue %.0f ms\n", round + 1, open.last(),
                    sandboxed.last());
    }
    const double openMedian = median(open), sandboxedMedian = median(sandboxed);
    std::printf("%d launches, median of %d rounds: queue %.2f ms/launch, sandboxed %.2f "
                "ms/launch\n",
                launches, rounds, openMedian / launches, sandboxedMedian / launches);
    std::printf("sandbox cost: %.2f ms per launch (target <= 5)\n",
                (sandboxedMedian - openMedian) / launches);
    return 0;
}
