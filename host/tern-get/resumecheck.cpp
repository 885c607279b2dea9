#include "resumecheck.h"

#include "mediaparse.h"

#include <terncl/inet/qt/download/abstractdownloadfileops.h>
#include <terncl/inet/qt/download/independentsegmentsdownloader.h>

#include <QFileInfo>

#include <algorithm>
#include <limits>

const QString ResumeCheck::KindKey = QStringLiteral("kind");
const QString ResumeCheck::OutputKey = QStringLiteral("output");
const QString ResumeCheck::PlaylistUrlKey = QStringLiteral("playlistUrl");
const QString ResumeCheck::SegmentsDoneKey = QStringLiteral("segmentsDone");
const QString ResumeCheck::SegmentsTotalKey = QStringLiteral("segmentsTotal");
const QString ResumeCheck::SegmentEndsKey = QStringLiteral("segmentEnds");

namespace {
using Segments = IndependentSegmentsDownloader;

// Sections, in the order of their offsets, each ending before the next begins.
bool sectionsOverlap(QList<AbstractDownloadFileSection> sections) {
    std::sort(sections.begin(), sections.end(),
              [](const auto& a, const auto& b) { return a.offset < b.offset; });
    for (qsizetype i = 1; i < sections.size(); ++i) {
        const auto& before = sections.at(i - 1);
        const qint64 extent = before.size >= 0 ? before.size : before.done;
        if (extent > sections.at(i).offset - before.offset)
            return true;
    }
    return false;
}

QString sectionsProblem(const AbstractDownloadFileInfo& file) {
    qint64 done = 0;
    for (const auto& section : file.sections) {
        if (section.offset < 0 || section.done < 0 || section.size < -1)
            return QStringLiteral("a section with a negative offset or count");
        if (section.size >= 0 && section.done > section.size)
            return QStringLiteral("a section with more bytes done than it holds");
        const qint64 extent = section.size >= 0 ? section.size : section.done;
        if (file.size >= 0 && (section.offset > file.size || extent > file.size - section.offset))
            return QStringLiteral("a section past the end of the %1 bytes").arg(file.size);
        if (section.done > std::numeric_limits<qint64>::max() - done)
            return QStringLiteral("more bytes done than any file holds");
        done += section.done;
    }
    if (file.size >= 0 && done > file.size)
        return QStringLiteral("%1 bytes done of %2").arg(done).arg(file.size);
    return sectionsOverlap(file.sections) ? QStringLiteral("sections that overlap") : QString();
}

QString streamProblem(const RecordStore::Entry& entry) {
    const qint64 done = entry.host.value(ResumeCheck::SegmentsDoneKey).toLongLong();
    const qint64 total = entry.host.value(ResumeCheck::SegmentsTotalKey).toLongLong();
    if (done < 0 || total < 0 || done > total)
        return QStringLiteral("%1 segments done of %2").arg(done).arg(total);
    const QUrl playlist(entry.host.value(ResumeCheck::PlaylistUrlKey).toString());
    if (!MediaParse::isAllowedUrl(playlist))
        return QStringLiteral("a playlist address that is not http or https: %1")
            .arg(MediaParse::shortened(playlist.toString()));
    const qint64 bytes =
        entry.record.customData.value(Segments::DownloadedSegmentsTotalKey).toLongLong();
    if (!entry.record.isFinished() &&
        (bytes < 0 || bytes > entry.record.files.constFirst().downloadedBytes()))
        return QStringLiteral("%1 bytes of finished segments, more than the bytes done").arg(bytes);
    return {};
}

// The saved segment ends when they agree with the rest of the entry, otherwise none.
QVariantList segmentEnds(const RecordStore::Entry& entry) {
    const QVariantList ends = entry.host.value(ResumeCheck::SegmentEndsKey).toList();
    const qint64 done = entry.host.value(ResumeCheck::SegmentsDoneKey).toLongLong();
    if (ends.size() != done + 1 || ends.constFirst().toLongLong() != 0)
        return {};
    for (qsizetype i = 1; i < ends.size(); ++i) {
        if (ends.at(i).toLongLong() <= ends.at(i - 1).toLongLong())
            return {};
    }
    const qint64 total =
        entry.record.customData.value(Segments::DownloadedSegmentsTotalKey).toLongLong();
    return ends.constLast().toLongLong() == total ? ends : QVariantList();
}

QString lostNote(const QString& path, qint64 fileSize, qint64 claimed) {
    if (fileSize < 0)
        return QStringLiteral("%1 is missing; fetching its %2 bytes again").arg(path).arg(claimed);
    return QStringLiteral("%1 holds %2 bytes, fewer than the %3 saved; fetching the rest again")
        .arg(path)
        .arg(fileSize)
        .arg(claimed);
}

// Each section keeps the bytes the file really has; the file is cut where the claims end.
QString fitPlainFile(RecordStore::Entry& entry, qint64 fileSize, qint64* cutTo) {
    auto& file = entry.record.files.first();
    const qint64 claimed = file.downloadedBytes();
    qint64 end = 0;
    for (auto& section : file.sections) {
        section.done = qBound<qint64>(0, fileSize - section.offset, section.done);
        end = qMax(end, section.offset + section.done);
    }
    if (fileSize > end)
        *cutTo = end;
    const QString path = ResumeCheck::dataPath(entry);
    return file.downloadedBytes() < claimed ? lostNote(path, fileSize, claimed) : QString();
}

// A stream goes back to the last whole segment the file holds (to its start when the ends of
// its segments are unknown); the segment that was half done is fetched again from its start.
QString fitStream(RecordStore::Entry& entry, qint64 fileSize, qint64* cutTo) {
    const QVariantList ends = segmentEnds(entry);
    if (ends.isEmpty())
        entry.host.remove(ResumeCheck::SegmentEndsKey);
    auto& record = entry.record;
    auto& file = record.files.first();
    const qint64 claimed = file.downloadedBytes();
    const qint64 held = qMax<qint64>(0, fileSize);
    if (held >= claimed)
        return {};
    qint64 total = record.customData.value(Segments::DownloadedSegmentsTotalKey).toLongLong();
    if (held < total) {
        qsizetype whole = 0;
        while (whole + 1 < ends.size() && ends.at(whole + 1).toLongLong() <= held)
            ++whole;
        total = ends.isEmpty() ? 0 : ends.at(whole).toLongLong();
        entry.host.insert(ResumeCheck::SegmentsDoneKey, qint64(whole));
        if (!ends.isEmpty())
            entry.host.insert(ResumeCheck::SegmentEndsKey, ends.mid(0, whole + 1));
        record.customData.insert(Segments::DownloadedSegmentsTotalKey, total);
        if (fileSize > total)
            *cutTo = total;
    }
    record.customData.remove(Segments::CurrentSegmentSourceKey);
    record.customData.remove(Segments::CurrentSegmentFileKey);
    record.customData.remove(Segments::CurrentSegmentResumeKey);
    file.size = -1;
    file.sections = {{0, -1, total}};
    return lostNote(ResumeCheck::dataPath(entry), fileSize, claimed) +
           QStringLiteral(" (from segment %1)")
               .arg(entry.host.value(ResumeCheck::SegmentsDoneKey).toLongLong() + 1);
}
} // namespace

QString ResumeCheck::impossibility(const RecordStore::Entry& entry) {
    const QString kind = entry.host.value(KindKey).toString();
    if (kind != QLatin1String("file") && kind != QLatin1String("hls"))
        return QStringLiteral("an unknown kind of download");
    const QString output = entry.host.value(OutputKey).toString();
    if (output.isEmpty() || QFileInfo(output).isRelative())
        return QStringLiteral("no absolute output path");
    if (entry.record.files.size() != 1)
        return QStringLiteral("%1 files instead of one").arg(entry.record.files.size());
    const auto& file = entry.record.files.constFirst();
    if (file.size < -1 || file.writeOffset != 0)
        return QStringLiteral("a negative size or a write offset");
    const QString data = dataPath(entry);
    if (QFileInfo(data).absolutePath() != QFileInfo(output).absolutePath() ||
        (data == output && !entry.record.isFinished()))
        return QStringLiteral("a data file that is not beside the output: %1").arg(data);
    if (QString problem = sectionsProblem(file); !problem.isEmpty())
        return problem;
    return kind == QLatin1String("hls") ? streamProblem(entry) : QString();
}

QString ResumeCheck::dataPath(const RecordStore::Entry& entry) {
    return AbstractDownloadFileOps::currentFilePath(entry.record, 0);
}

QString ResumeCheck::fitToFile(RecordStore::Entry& entry, qint64 fileSize, qint64* cutTo) {
    *cutTo = -1;
    if (entry.record.isFinished() || !entry.record.hasFiles())
        return {};
    if (entry.host.value(KindKey).toString() == QLatin1String("hls"))
        return fitStream(entry, fileSize, cutTo);
    return fitPlainFile(entry, fileSize, cutTo);
}
