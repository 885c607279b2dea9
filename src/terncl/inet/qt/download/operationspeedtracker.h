#pragma once

#include <QMetaType>
#include <QtGlobal>

#include <ctime>

// Bytes of an operation counted in whole one-second buckets of wall-clock time. Shared through
// a QSharedPointer between the speed meters (and other code) that feed it; not locked, so all
// of them must live in one thread.
struct OperationSpeedTracker {
    std::time_t bucketStart = 0; // seconds since the epoch; 0 in a new tracker
    qint64 currentBucketBytes = 0;
    qint64 totalBytes = 0;
    qint64 lastBucketBytes = 0; // bytes of the most recently closed bucket
};

Q_DECLARE_METATYPE(OperationSpeedTracker)
