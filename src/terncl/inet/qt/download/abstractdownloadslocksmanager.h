#pragma once

#include <terncl/ternclshared_export.h>

#include <QList>
#include <QObject>
#include <QString>

// Keeps downloads from being started, changed or removed while something works on them (a
// move of their files, a merge). Announces every change with lockChanged. Main thread.
class TERNCL_EXPORT AbstractDownloadsLocksManager : public QObject {
    Q_OBJECT

public:
    explicit AbstractDownloadsLocksManager(QObject* parent = nullptr);
    ~AbstractDownloadsLocksManager() override;

    // False when the download is locked already.
    virtual bool lock(qint64 downloadId, const QString& reason) = 0;
    virtual void unlock(qint64 downloadId) = 0;
    virtual bool isLocked(qint64 downloadId) const = 0;
    virtual QString lockReason(qint64 downloadId) const = 0;
    virtual QList<qint64> lockedDownloads() const = 0;
    // Locks all or none; false when one of them is locked already.
    virtual bool lockDownloads(const QList<qint64>& downloadIds, const QString& reason) = 0;
    virtual void unlockDownloads(const QList<qint64>& downloadIds) = 0;
    virtual void unlockAll() = 0;

Q_SIGNALS:
    void lockChanged(qint64 downloadId, bool isLocked);
};
