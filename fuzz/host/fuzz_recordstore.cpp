// Feeds arbitrary bytes to tern-get's state record loader as a saved file. A parse fails with a
// reason or gives an entry; an entry the resume checks accept, fitted to a data file of any size,
// claims no more than that file holds and stays acceptable. Input that does not begin with "{"
// is read as small numbers that make an entry directly: mutating JSON text seldom reaches odd
// lists of sections or segment ends.
#include "recordstore.h"
#include "resumecheck.h"

#include <terncl/inet/qt/download/independentsegmentsdownloader.h>

#include <QByteArray>

#include <cstdlib>

namespace {
void check(bool condition) {
    if (!condition)
        std::abort();
}

qint64 claimedBytes(const RecordStore::Entry& entry) {
    return entry.record.hasFiles() ? entry.record.files.constFirst().downloadedBytes() : 0;
}

// Small signed numbers from the input, 0 once it runs out.
struct Numbers {
    const uint8_t* data;
    size_t size;
    qint64 next() {
        if (size < 2)
            return 0;
        const auto value = qint16(data[0] | data[1] << 8);
        data += 2;
        size -= 2;
        return value;
    }
};

RecordStore::Entry entryFromNumbers(Numbers in) {
    RecordStore::Entry entry;
    const bool stream = in.next() & 1;
    entry.host.insert(ResumeCheck::KindKey,
                      stream ? QStringLiteral("hls") : QStringLiteral("file"));
    entry.host.insert(ResumeCheck::OutputKey, QStringLiteral("/d/out"));
    entry.host.insert(ResumeCheck::PlaylistUrlKey, QStringLiteral("http://h/p.m3u8"));
    entry.host.insert(ResumeCheck::SegmentsDoneKey, in.next());
    entry.host.insert(ResumeCheck::SegmentsTotalKey, in.next());
    QVariantList ends;
    for (qint64 count = in.next() & 7; count > 0; --count)
        ends.append(in.next());
    entry.host.insert(ResumeCheck::SegmentEndsKey, ends);
    entry.record.customData.insert(IndependentSegmentsDownloader::DownloadedSegmentsTotalKey,
                                   in.next());
    entry.record.destinationPath = QStringLiteral("/d");
    AbstractDownloadFileInfo file;
    file.tmpPath = QStringLiteral("/d/out.part");
    file.size = in.next();
    for (qint64 count = in.next() & 3; count > 0; --count)
        file.sections.append({in.next(), in.next(), in.next()});
    entry.record.files = {file};
    return entry;
}

void checkFitted(const RecordStore::Entry& entry, qint64 fileSize) {
    RecordStore::Entry fitted = entry;
    qint64 cutTo = -2;
    ResumeCheck::fitToFile(fitted, fileSize, &cutTo);
    check(cutTo == -1 || (cutTo >= 0 && cutTo < fileSize));
    check(ResumeCheck::impossibility(fitted).isEmpty());
    if (!entry.record.isFinished())
        check(claimedBytes(fitted) <= qMax<qint64>(0, fileSize));
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::optional<RecordStore::Entry> entry;
    if (size > 0 && data[0] == '{') {
        QString error;
        entry = RecordStore::parse(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)),
                                   &error);
        if (!entry) {
            check(!error.isEmpty());
            return 0;
        }
    } else {
        entry = entryFromNumbers({data, size});
    }
    if (!ResumeCheck::impossibility(*entry).isEmpty())
        return 0;
    const qint64 claimed = claimedBytes(*entry);
    for (const qint64 fileSize : {qint64(-1), qint64(0), claimed / 2, claimed, claimed + 1})
        checkFitted(*entry, fileSize);
    return 0;
}
