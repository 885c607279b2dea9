// Times FileDataAsyncWriter on a real disk against the system calls it stands for:
//  - writing 1 GiB in 16 KiB, 64 KiB and 1 MiB chunks handed in from another thread, against a
//    plain write(2) loop with the same chunks (throughput ratio; target at least 0.9 from 64 KiB);
//  - preallocating 2 GiB, against one fallocate(2) of the whole size (time ratio; target at most
//    2), the space really allocated, and how long a write posted meanwhile waits at most, next to
//    the longest chunk step (a write must not wait longer than one step).
// The page cache is written back (sync) between runs, outside the timings, and the files are
// deleted at the end.
// Run: bench_writers [folder, default .] [write MiB, default 1024] [preallocate MiB, default 2048]
//                    [runs, default 5]
#include <terncl/data/qt/filedataasyncwriter.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSemaphore>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr qint64 KiB = 1024;
constexpr qint64 MiB = 1024 * KiB;

double seconds(const QElapsedTimer& timer) {
    return double(timer.nsecsElapsed()) / 1e9;
}

qint64 allocatedBytes(const QString& path) {
    struct stat info {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? qint64(info.st_blocks) * 512
                                                                   : -1;
}

void removeAndSync(const QString& path) {
    QFile::remove(path);
    ::sync();
}

QByteArray chunkOf(qint64 size) {
    QByteArray data(size, Qt::Uninitialized);
    for (qint64 i = 0; i < size; ++i)
        data[i] = char(i * 31 + 7);
    return data;
}

double plainWriteSeconds(const QString& path, const QByteArray& chunk, qint64 total) {
    QElapsedTimer timer;
    timer.start();
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        std::perror("open");
        std::exit(1);
    }
    for (qint64 done = 0; done < total; done += chunk.size()) {
        qint64 written = 0;
        while (written < chunk.size()) {
            const ssize_t count = ::write(fd, chunk.constData() + written, chunk.size() - written);
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0) {
                std::perror("write");
                std::exit(1);
            }
            written += count;
        }
    }
    ::close(fd);
    return seconds(timer);
}

// The writer lives on its own thread; this thread hands the chunks in, as a download would.
double writerSeconds(QThread& writersThread, const QString& path, const QByteArray& chunk,
                     qint64 total) {
    FileDataAsyncWriter writer;
    writer.moveToThread(&writersThread);
    QSemaphore done;
    std::atomic_bool failed{false};
    QObject::connect(
        &writer, &AbstractDataAsyncProcessor::allDataIsProcessed, &writer, [&] { done.release(); },
        Qt::DirectConnection);
    QObject::connect(
        &writer, &AbstractDataAsyncProcessor::failed, &writer, [&] { failed = true; },
        Qt::DirectConnection);

    QElapsedTimer timer;
    timer.start();
    writer.open(path, 0);
    for (qint64 posted = 0; posted < total; posted += chunk.size())
        writer.processData(chunk);
    writer.close();
    writer.emitAllDataIsProcessed();
    done.acquire();
    const double elapsed = seconds(timer);
    if (failed) {
        std::fprintf(stderr, "writer failed: %s\n", qPrintable(writer.lastError().toText()));
        std::exit(1);
    }
    QMetaObject::invokeMethod(
        &writer, [&] { writer.moveToThread(QCoreApplication::instance()->thread()); },
        Qt::BlockingQueuedConnection);
    return elapsed;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

// The machine may be shared, so each measurement alternates the two ways several times and the
// table gives the best and the median of each.
void benchWrites(QThread& writersThread, const QString& folder, qint64 total, int runs) {
    const QString path = QDir(folder).filePath(QStringLiteral("bench_writers_data.bin"));
    std::printf("\nWriting %lld MiB, %d alternating runs each (MB/s = 10^6 bytes per second; "
                "ratio = writer throughput / write(2) throughput)\n",
                total / MiB, runs);
    std::printf("%-9s %14s %14s %14s %14s %12s %12s\n", "chunk", "write(2) best", "writer best",
                "write(2) med.", "writer med.", "ratio best", "ratio med.");
    for (const qint64 chunkSize : {16 * KiB, 64 * KiB, 1 * MiB}) {
        const QByteArray chunk = chunkOf(chunkSize);
        std::vector<double> plain;
        std::vector<double> writer;
        for (int run = 0; run < runs; ++run) {
            for (int turn = 0; turn < 2; ++turn) {
                removeAndSync(path);
                if ((run + turn) % 2 == 0) {
                    plain.push_back(plainWriteSeconds(path, chunk, total));
                    continue;
                }
                writer.push_back(writerSeconds(writersThread, path, chunk, total));
                if (QFileInfo(path).size() != total) {
                    std::fprintf(stderr, "the writer left %lld bytes\n", QFileInfo(path).size());
                    std::exit(1);
                }
            }
        }
        const double plainBest = *std::min_element(plain.cbegin(), plain.cend());
        const double writerBest = *std::min_element(writer.cbegin(), writer.cend());
        const auto rate = [total](double secs) {
            return double(total) / secs / 1e6;
        };
        std::printf("%-9s %9.0f MB/s %9.0f MB/s %9.0f MB/s %9.0f MB/s %12.2f %12.2f\n",
                    qPrintable(QStringLiteral("%1 KiB").arg(chunkSize / KiB)), rate(plainBest),
                    rate(writerBest), rate(median(plain)), rate(median(writer)),
                    plainBest / writerBest, median(plain) / median(writer));
    }
    removeAndSync(path);
}

double fallocateSeconds(const QString& path, qint64 size) {
    QElapsedTimer timer;
    timer.start();
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::fallocate(fd, 0, 0, size) != 0) {
        std::perror("fallocate");
        std::exit(1);
    }
    ::close(fd);
    return seconds(timer);
}

struct PreallocationRun {
    double seconds = 0;
    int steps = 0;
    double longestStepMs = 0;
    double longestWriteWaitMs = 0;
    int writes = 0;
    // The most chunk steps that ended between posting a write and carrying it out.
    int mostStepsWaited = 0;
};

// Meanwhile this thread keeps one small write posted at all times and the writer's thread notes how
// long each waited to be carried out and how many chunk steps ended in between.
PreallocationRun writerPreallocation(QThread& writersThread, const QString& path, qint64 size) {
    using Clock = std::chrono::steady_clock;
    FileDataAsyncWriter writer;
    writer.moveToThread(&writersThread);
    PreallocationRun run;
    std::atomic_bool finished{false};
    std::atomic_int writesDone{0};
    std::atomic<qint64> postedAtNs{0};
    std::atomic_int stepsDone{0};
    std::atomic_int postedAtStep{0};
    Clock::time_point lastStep;
    const auto sinceNs = [](Clock::time_point from) {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - from).count();
    };
    const Clock::time_point origin = Clock::now();
    const auto noteStep = [&] {
        const Clock::time_point now = Clock::now();
        run.longestStepMs = std::max(run.longestStepMs, (now - lastStep).count() / 1e6);
        lastStep = now;
        ++stepsDone;
    };
    QObject::connect(&writer, &FileDataAsyncWriter::preallocatingProgress, &writer, noteStep,
                     Qt::DirectConnection);
    QObject::connect(
        &writer, &FileDataAsyncWriter::preallocateFinished, &writer,
        [&] {
            noteStep();
            finished = true;
        },
        Qt::DirectConnection);
    QObject::connect(
        &writer, &FileDataAsyncWriter::opened, &writer, [&] { lastStep = Clock::now(); },
        Qt::DirectConnection);
    QObject::connect(
        &writer, &AbstractDataAsyncProcessor::dataProcessed, &writer,
        [&] {
            const double waitMs = (sinceNs(origin) - postedAtNs) / 1e6;
            run.longestWriteWaitMs = std::max(run.longestWriteWaitMs, waitMs);
            run.mostStepsWaited = std::max(run.mostStepsWaited, stepsDone - postedAtStep);
            ++writesDone;
        },
        Qt::DirectConnection);

    QElapsedTimer timer;
    timer.start();
    writer.schedulePreallocateOnOpen(size);
    writer.open(path, 0);
    const QByteArray small(512, 'w');
    int handedIn = 0;
    while (!finished) {
        if (writesDone == handedIn) { // one write in flight at a time, so each wait is its own
            postedAtNs = sinceNs(origin);
            postedAtStep = int(stepsDone);
            writer.processData(small);
            ++handedIn;
        }
        std::this_thread::yield();
    }
    run.seconds = seconds(timer);
    run.writes = writesDone;
    run.steps = stepsDone;
    writer.close();
    writer.emitAllDataIsProcessed();
    QMetaObject::invokeMethod(
        &writer, [&] { writer.moveToThread(QCoreApplication::instance()->thread()); },
        Qt::BlockingQueuedConnection);
    if (writer.lastError().isSet()) {
        std::fprintf(stderr, "writer failed: %s\n", qPrintable(writer.lastError().toText()));
        std::exit(1);
    }
    return run;
}

void benchPreallocation(QThread& writersThread, const QString& folder, qint64 size, int runs) {
    const QString path = QDir(folder).filePath(QStringLiteral("bench_writers_prealloc.bin"));
    std::vector<double> single;
    std::vector<double> chunked;
    qint64 singleAllocated = size;
    qint64 chunkedAllocated = size;
    qint64 chunkedFileSize = size;
    PreallocationRun worst;
    for (int run = 0; run < runs; ++run) {
        removeAndSync(path);
        single.push_back(fallocateSeconds(path, size));
        singleAllocated = std::min(singleAllocated, allocatedBytes(path));
        removeAndSync(path);
        const PreallocationRun chunkedRun = writerPreallocation(writersThread, path, size);
        chunked.push_back(chunkedRun.seconds);
        chunkedAllocated = std::min(chunkedAllocated, allocatedBytes(path));
        chunkedFileSize = std::min(chunkedFileSize, QFileInfo(path).size());
        worst.steps = std::max(worst.steps, chunkedRun.steps);
        worst.writes += chunkedRun.writes;
        worst.longestStepMs = std::max(worst.longestStepMs, chunkedRun.longestStepMs);
        worst.longestWriteWaitMs =
            std::max(worst.longestWriteWaitMs, chunkedRun.longestWriteWaitMs);
        worst.mostStepsWaited = std::max(worst.mostStepsWaited, chunkedRun.mostStepsWaited);
    }
    removeAndSync(path);

    std::printf("\nPreallocating %lld MiB, %d runs each\n", size / MiB, runs);
    std::printf("%-26s %10s %10s %20s %14s\n", "", "best ms", "median ms", "least allocated MiB",
                "file MiB");
    std::printf("%-26s %10.2f %10.2f %20.1f %14.1f\n", "fallocate(2), whole size",
                *std::min_element(single.cbegin(), single.cend()) * 1e3, median(single) * 1e3,
                double(singleAllocated) / MiB, double(size) / MiB);
    std::printf("%-26s %10.2f %10.2f %20.1f %14.1f\n", "writer, chunk steps",
                *std::min_element(chunked.cbegin(), chunked.cend()) * 1e3, median(chunked) * 1e3,
                double(chunkedAllocated) / MiB, double(chunkedFileSize) / MiB);
    std::printf("time ratio writer / fallocate (medians): %.2f (target <= 2)\n",
                median(chunked) / median(single));
    std::printf("fully allocated in every run: %s\n", chunkedAllocated >= size ? "yes" : "NO");
    std::printf("chunk steps per run: %d, longest step %.2f ms (from one step's end to the next)\n",
                worst.steps, worst.longestStepMs);
    std::printf("writes posted meanwhile: %d, longest wait %.2f ms, most chunk steps a write "
                "waited for: %d (target <= 1)\n",
                worst.writes, worst.longestWriteWaitMs, worst.mostStepsWaited);
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString folder = args.size() > 1 ? args.at(1) : QStringLiteral(".");
    const qint64 writeTotal = (args.size() > 2 ? args.at(2).toLongLong() : 1024) * MiB;
    const qint64 preallocateTotal = (args.size() > 3 ? args.at(3).toLongLong() : 2048) * MiB;
    const int runs = args.size() > 4 ? args.at(4).toInt() : 5;
    std::printf("Folder: %s\n", qPrintable(QDir(folder).absolutePath()));

    QThread writersThread;
    writersThread.start();
    benchWrites(writersThread, folder, writeTotal, runs);
    benchPreallocation(writersThread, folder, preallocateTotal, runs);
    writersThread.quit();
    writersThread.wait();
    return 0;
}
