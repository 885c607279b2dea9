#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/qt/media/ffmpeg/qtffmpegmanager.h>
#include <terncl/ternclshared_export.h>

#include <QHash>
#include <QObject>
#include <QSharedPointer>
#include <QString>

// Joins a separately downloaded video file and audio file into one result file with ffmpeg,
// copying the streams without re-encoding. Merges wait in the manager's queue and run one at a
// time. The manager may be shared with other users: every progress of the manager is passed on,
// so listeners keep to the ids they took from nextId(). Lives on the manager's thread.
class TERNCL_EXPORT QtFfmpegAvMerger : public QObject {
    Q_OBJECT

public:
    // Code of the "GenericError" of a merge whose ffmpeg ended with a non-zero exit code.
    static constexpr int NonZeroExitErrorCode = 1;

    explicit QtFfmpegAvMerger(QSharedPointer<QtFfmpegManager> manager, QObject* parent = nullptr);
    ~QtFfmpegAvMerger() override;

    int nextId();
    // Whether merges run confined when the manager has a named sandbox manager and the system
    // can confine children (on by default): ffmpeg may then read its program and its inputs and
    // write into the result's folder, nothing else, and has no network. A merge whose sandbox
    // cannot be set up then fails rather than run unconfined on downloaded files.
    void setSandboxEnabled(bool enabled);
    bool isSandboxEnabled() const;
    // Whether ffmpeg answers; forceCheck asks it again instead of using the cached answer.
    bool isSupported(bool forceCheck) const;

    // Either input may be empty (one stream only). resultFileFormat, when not empty, names the
    // container format ("mp4", "matroska") for a result whose extension does not say it. An
    // existing result file is overwritten.
    void merge(int id, const QString& videoFile, const QString& audioFile,
               const QString& resultFile, const QString& resultFileFormat);
    void abort(int id);

Q_SIGNALS:
    void progress(int id, int currentSeconds, int totalSeconds);
    // fileSize is the size of the result file on success, 0 otherwise.
    void finished(int id, const AbstractError& error, qint64 fileSize);

private Q_SLOTS:
    void onFfmpegFinished(int id, const AbstractError& error, int exitCode);

private:
    QtProcessLaunchManager::Sandbox mergeSandbox(const QStringList& inputs,
                                                 const QString& resultFile) const;

    QSharedPointer<QtFfmpegManager> m_manager;
    QHash<int, QString> m_resultFiles;
    bool m_sandboxEnabled = true;
};
