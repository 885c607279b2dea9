// tern-get: downloads a file or an HLS stream over HTTP with the ternclshared engine.
#include "ratetext.h"
#include "terngetjob.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QStandardPaths>
#include <QTextStream>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {
int interruptPipe[2] = {-1, -1};

void onInterruptSignal(int) {
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(interruptPipe[1], &byte, 1);
}

// Ctrl-C and SIGTERM reach the event loop through a pipe, so the download can stop cleanly.
void watchInterrupts(TernGetJob* job) {
    if (::pipe2(interruptPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    auto* notifier = new QSocketNotifier(interruptPipe[0], QSocketNotifier::Read, job);
    QObject::connect(notifier, &QSocketNotifier::activated, job, [job] {
        char byte;
        while (::read(interruptPipe[0], &byte, 1) > 0) {
        }
        job->interrupt();
    });
    struct sigaction action = {};
    action.sa_handler = onInterruptSignal;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

// $XDG_STATE_HOME/tern-get, or ~/.local/state/tern-get.
QString defaultStateDir() {
    QString base = qEnvironmentVariable("XDG_STATE_HOME");
    if (base.isEmpty())
        base = QStandardPaths::writableLocation(QStandardPaths::HomeLocation) +
               QStringLiteral("/.local/state");
    return base + QStringLiteral("/tern-get");
}
} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tern-get"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Downloads URL (a file, or an HLS playlist whose segments are joined into one file).\n"
        "Running the same command again resumes an interrupted download."));
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("URL"), QStringLiteral("What to download."));
    const QCommandLineOption output({QStringLiteral("o"), QStringLiteral("output")},
                                    QStringLiteral("Write to FILE."), QStringLiteral("FILE"));
    const QCommandLineOption limitRate(QStringLiteral("limit-rate"),
                                       QStringLiteral("Limit the speed to RATE bytes per second "
                                                      "(suffixes k, M, G)."),
                                       QStringLiteral("RATE"));
    const QCommandLineOption stateDir(QStringLiteral("state-dir"),
                                      QStringLiteral("Keep resume state in DIR."),
                                      QStringLiteral("DIR"), defaultStateDir());
    const QCommandLineOption retries(QStringLiteral("retries"),
                                     QStringLiteral("Retry transient failures N times."),
                                     QStringLiteral("N"), QStringLiteral("5"));
    const QCommandLineOption concurrentSegments(
        {QStringLiteral("N"), QStringLiteral("concurrent-segments")},
        QStringLiteral("Fetch up to N segments of a stream at once (1 to %1).")
            .arg(TernGetJob::MaxConcurrentSegments),
        QStringLiteral("N"), QString::number(TernGetJob::Options().concurrentSegments));
    const QCommandLineOption stallTimeout(
        QStringLiteral("stall-timeout"),
        QStringLiteral("Give up an attempt when no byte arrives for SECONDS (default 30)."),
        QStringLiteral("SECONDS"), QStringLiteral("30"));
    const QCommandLineOption noSandbox(
        QStringLiteral("no-sandbox"),
        QStringLiteral("Run ffmpeg without confining it (it otherwise reads only its inputs)."));
    parser.addOptions(
        {output, limitRate, stateDir, retries, concurrentSegments, stallTimeout, noSandbox});
    parser.process(app);

    QTextStream err(stderr);
    const QStringList positional = parser.positionalArguments();
    const QUrl url = positional.size() == 1 ? QUrl::fromUserInput(positional.constFirst()) : QUrl();
    if (!url.isValid() ||
        (url.scheme() != QStringLiteral("http") && url.scheme() != QStringLiteral("https"))) {
        err << "tern-get: give one http:// or https:// URL (see --help)" << Qt::endl;
        return 2;
    }
    TernGetJob::Options options;
    options.url = url;
    options.output = parser.value(output);
    options.stateDir = parser.value(stateDir);
    options.retries = parser.value(retries).toInt();
    options.progressBar = ::isatty(STDERR_FILENO) == 1;
    bool isNumber = false;
    options.concurrentSegments = parser.value(concurrentSegments).toInt(&isNumber);
    if (!isNumber || options.concurrentSegments < 1 ||
        options.concurrentSegments > TernGetJob::MaxConcurrentSegments) {
        err << "tern-get: --concurrent-segments takes a whole number from 1 to "
            << TernGetJob::MaxConcurrentSegments << ": " << parser.value(concurrentSegments)
            << Qt::endl;
        return 2;
    }
    const double stallSeconds = parser.value(stallTimeout).toDouble(&isNumber);
    if (!isNumber || stallSeconds < 0.1 || stallSeconds > 86400) {
        err << "tern-get: --stall-timeout takes seconds from 0.1 to 86400: "
            << parser.value(stallTimeout) << Qt::endl;
        return 2;
    }
    options.stallTimeoutMs = int(stallSeconds * 1000);
    options.sandbox = !parser.isSet(noSandbox);
    if (parser.isSet(limitRate)) {
        options.limitRate = RateText::parse(parser.value(limitRate));
        if (options.limitRate <= 0) {
            err << "tern-get: not a rate: " << parser.value(limitRate) << Qt::endl;
            return 2;
        }
    }
    TernGetJob job(options);
    QObject::connect(&job, &TernGetJob::finished, &app, &QCoreApplication::exit,
                     Qt::QueuedConnection);
    watchInterrupts(&job);
    QMetaObject::invokeMethod(&job, &TernGetJob::start, Qt::QueuedConnection);
    return app.exec();
}
