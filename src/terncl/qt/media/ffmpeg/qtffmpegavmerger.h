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
    QSharedPointer<QtFfmpegManager> m_manager;
    QHash<int, QString> m_resultFiles;
};
