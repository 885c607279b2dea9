#pragma once

#include <QHash>
#include <QMetaType>

#include <utility>

// Work a download may be doing. Every value is a single bit, so that currentTasks() returns
// them OR-ed together in a quint64.
enum class AbstractDownloadTask : quint64 {
    Downloading = 0x1,
    QueryingInfo = 0x2,
    AllocatingFiles = 0x4,
    PerformingFilesOperations = 0x8,
    Merging = 0x10,
    Verifying = 0x20,
};

inline size_t qHash(AbstractDownloadTask task, size_t seed = 0) noexcept {
    return qHash(quint64(task), seed);
}

inline constexpr quint64 operator|(AbstractDownloadTask a, AbstractDownloadTask b) {
    return quint64(a) | quint64(b);
}

// Done and total amounts of each task in progress (AbstractDownload::tasksProgress()).
using AbstractDownloadTasksProgress = QHash<AbstractDownloadTask, std::pair<qint64, qint64>>;

Q_DECLARE_METATYPE(AbstractDownloadTask)
