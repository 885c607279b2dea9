// tern-get: downloads a file or an HLS stream over HTTP with the ternclshared engine.
#include "outputguard.h"
#include "ratetext.h"
#include "terngetjob.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QStandardPaths>
#include <QTextStream>

#include <csignal>
#include <fcntl.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <optional>
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

// Every segment of a stream allocates and frees the same few buffers of 128-256 KiB (libcurl's
// receive buffer, a batch of bytes for the writer). With glibc's defaults these are mapped and
// unmapped, or the heap grows and shrinks around them, each time, and first touching the new
// pages costs more than copying the data into them. Fixed thresholds keep that memory mapped.
void keepHeapMapped() {
#ifdef __GLIBC__
    ::mallopt(M_MMAP_THRESHOLD, 1024 * 1024);
    ::mallopt(M_TRIM_THRESHOLD, 8 * 1024 * 1024);
#endif
}

// $XDG_STATE_HOME/tern-get, or ~/.local/state/tern-get.
QString defaultStateDir() {
    QString base = qEnvironmentVariable("XDG_STATE_HOME");
    if (base.isEmpty())
        base = QStandardPaths::writableLocation(QStandardPaths::HomeLocation) +
               QStringLiteral("/.local/state");
    return base + QStringLiteral("/tern-get");
}

// The options of request logs, battery and output, kept together.
struct ExtraOptions {
    QCommandLineOption logRequests{
        QStringLiteral("log-requests"),
        QStringLiteral("Write the request and response headers of each run to a file in DIR."),
        QStringLiteral("DIR")};
    QCommandLineOption batteryLimitRate{
        QStringLiteral("battery-limit-rate"),
        QStringLiteral("Limit the speed to RATE while the machine runs on battery."),
        QStringLiteral("RATE")};
    QCommandLineOption progress{
        QStringLiteral("progress"),
        QStringLiteral("Show progress as TYPE: bar, lines, or json (one JSON object per line "
                       "on stdout, ending with a result object). Default: a bar on a terminal, "
                       "lines otherwise."),
        QStringLiteral("TYPE")};
    QCommandLineOption quiet{{QStringLiteral("q"), QStringLiteral("quiet")},
                             QStringLiteral("Show no progress and no notes, only errors.")};

    QList<QCommandLineOption> all() const {
        return {logRequests, batteryLimitRate, progress, quiet};
    }

    bool read(const QCommandLineParser& parser, TernGetJob::Options& options,
              QTextStream& err) const {
        options.logRequestsDir = parser.value(logRequests);
        options.quiet = parser.isSet(quiet);
        if (parser.isSet(batteryLimitRate)) {
            options.batteryLimitRate = RateText::parse(parser.value(batteryLimitRate));
            if (options.batteryLimitRate <= 0) {
                err << "tern-get: not a rate: " << parser.value(batteryLimitRate) << Qt::endl;
                return false;
            }
        }
        const QString type = parser.value(progress);
        if (type == QStringLiteral("json"))
            options.jsonProgress = true;
        else if (type == QStringLiteral("bar") || type == QStringLiteral("lines"))
            options.progressBar = type == QStringLiteral("bar");
        else if (!type.isEmpty()) {
            err << "tern-get: --progress takes bar, lines or json: " << type << Qt::endl;
            return false;
        }
        return true;
    }
};

const char* const examples =
    "\n\nExamples:\n"
    "  tern-get https://example.org/file.iso\n"
    "      Download a file into the current folder; run it again to resume.\n"
    "  tern-get -o talk.ts -N 8 https://example.org/talk/index.m3u8\n"
    "      Download an HLS stream, 8 segments at once, into talk.ts.\n"
    "  tern-get --limit-rate 2M --battery-limit-rate 200k URL\n"
    "      Hold 2 MiB/s, and 200 KiB/s while the laptop runs on battery.\n"
    "  tern-get --log-requests logs --progress=json URL\n"
    "      Keep the headers of each run in logs/ and report progress as JSON lines.";

// text as a whole number from low to high, or nothing.
std::optional<int> boundedNumber(const QString& text, int low, int high) {
    bool isNumber = false;
    const int value = text.toInt(&isNumber);
    if (!isNumber || value < low || value > high)
        return std::nullopt;
    return value;
}
} // namespace

int main(int argc, char** argv) {
    keepHeapMapped();
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tern-get"));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral(
            "Downloads URL (a file, or an HLS playlist whose segments are joined into one file).\n"
            "Running the same command again resumes an interrupted download.") +
        QLatin1String(examples));
    parser.addHelpOption();
    QCoreApplication::setApplicationVersion(QStringLiteral(TERN_GET_VERSION));
    parser.addVersionOption();
    parser.addPositionalArgument(QStringLiteral("URL"), QStringLiteral("What to download."));
    const QCommandLineOption output({QStringLiteral("o"), QStringLiteral("output")},
                                    QStringLiteral("Write to FILE, a new name or a regular file "
                                                   "that is replaced only once the download is "
                                                   "complete."),
                                    QStringLiteral("FILE"));
    const QCommandLineOption limitRate(QStringLiteral("limit-rate"),
                                       QStringLiteral("Limit the speed to RATE bytes per second "
                                                      "(suffixes k, M, G)."),
                                       QStringLiteral("RATE"));
    const QCommandLineOption stateDir(QStringLiteral("state-dir"),
                                      QStringLiteral("Keep resume state in DIR."),
                                      QStringLiteral("DIR"), defaultStateDir());
    const QCommandLineOption retries(
        QStringLiteral("retries"),
        QStringLiteral("Retry transient failures N times (0 to %1).").arg(TernGetJob::MaxRetries),
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
    const QCommandLineOption listFormats(
        {QStringLiteral("F"), QStringLiteral("list-formats")},
        QStringLiteral("List the versions of a media URL (HLS master, DASH manifest, web page)."));
    const QCommandLineOption format(
        {QStringLiteral("f"), QStringLiteral("format")},
        QStringLiteral("Download the version FORMAT names: an id, best, worst, "
                       "bestvideo+bestaudio, height<=N, lang=L, joined with + and , (see README)."),
        QStringLiteral("FORMAT"));
    const QCommandLineOption mergeFormat(
        QStringLiteral("merge-format"),
        QStringLiteral("Merge separate video and audio into FORMAT (mp4 or mkv)."),
        QStringLiteral("FORMAT"));
    parser.addOptions({output, limitRate, stateDir, retries, concurrentSegments, stallTimeout,
                       noSandbox, listFormats, format, mergeFormat});
    const ExtraOptions extra;
    parser.addOptions(extra.all());
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
    // A bad output is a usage error, found before anything is fetched.
    if (const QString refused = OutputGuard::refusal(options.output);
        !options.output.isEmpty() && !refused.isEmpty()) {
        err << "tern-get: -o: " << refused << Qt::endl;
        return 2;
    }
    options.stateDir = parser.value(stateDir);
    options.progressBar = ::isatty(STDERR_FILENO) == 1;
    const auto retryCount = boundedNumber(parser.value(retries), 0, TernGetJob::MaxRetries);
    if (!retryCount) {
        err << "tern-get: --retries takes a whole number from 0 to " << TernGetJob::MaxRetries
            << ": " << parser.value(retries) << Qt::endl;
        return 2;
    }
    options.retries = *retryCount;
    const auto segmentCount =
        boundedNumber(parser.value(concurrentSegments), 1, TernGetJob::MaxConcurrentSegments);
    if (!segmentCount) {
        err << "tern-get: --concurrent-segments takes a whole number from 1 to "
            << TernGetJob::MaxConcurrentSegments << ": " << parser.value(concurrentSegments)
            << Qt::endl;
        return 2;
    }
    options.concurrentSegments = *segmentCount;
    bool isNumber = false;
    const double stallSeconds = parser.value(stallTimeout).toDouble(&isNumber);
    if (!isNumber || stallSeconds < 0.1 || stallSeconds > 86400) {
        err << "tern-get: --stall-timeout takes seconds from 0.1 to 86400: "
            << parser.value(stallTimeout) << Qt::endl;
        return 2;
    }
    options.stallTimeoutMs = int(stallSeconds * 1000);
    options.sandbox = !parser.isSet(noSandbox);
    options.listFormats = parser.isSet(listFormats);
    options.format = parser.value(format);
    options.mergeFormat = parser.value(mergeFormat).toLower();
    if (!options.mergeFormat.isEmpty() && options.mergeFormat != QStringLiteral("mp4") &&
        options.mergeFormat != QStringLiteral("mkv")) {
        err << "tern-get: --merge-format takes mp4 or mkv: " << parser.value(mergeFormat)
            << Qt::endl;
        return 2;
    }
    if (parser.isSet(limitRate)) {
        options.limitRate = RateText::parse(parser.value(limitRate));
        if (options.limitRate <= 0) {
            err << "tern-get: not a rate: " << parser.value(limitRate) << Qt::endl;
            return 2;
        }
    }
    if (!extra.read(parser, options, err))
        return 2;
    TernGetJob job(options);
    QObject::connect(&job, &TernGetJob::finished, &app, &QCoreApplication::exit,
                     Qt::QueuedConnection);
    watchInterrupts(&job);
    QMetaObject::invokeMethod(&job, &TernGetJob::start, Qt::QueuedConnection);
    return app.exec();
}
