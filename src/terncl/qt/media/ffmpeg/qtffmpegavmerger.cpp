#include "qtffmpegavmerger.h"

#include "ffmpegpaths_p.h"

#include <terncl/core/sourceplace.h>
#include <terncl/fs/qt/utils/filenamerules.h>

#include <QFileInfo>

QtFfmpegAvMerger::QtFfmpegAvMerger(QSharedPointer<QtFfmpegManager> manager, QObject* parent)
    : QObject(parent)
    , m_manager(std::move(manager)) {
    // Progress is counted in seconds, so it fits the narrower signal.
    connect(m_manager.data(), &QtProcessLaunchManager::progress, this,
            [this](int id, qint64 current, qint64 total) {
                Q_EMIT progress(id, int(current), int(total));
            });
    connect(m_manager.data(), &QtProcessLaunchManager::finished, this,
            &QtFfmpegAvMerger::onFfmpegFinished);
}

QtFfmpegAvMerger::~QtFfmpegAvMerger() = default;

int QtFfmpegAvMerger::nextId() {
    return m_manager->nextId();
}

bool QtFfmpegAvMerger::isSupported(bool forceCheck) const {
    return m_manager->isFfmpegInstalled(forceCheck);
}

void QtFfmpegAvMerger::merge(int id, const QString& videoFile, const QString& audioFile,
                             const QString& resultFile, const QString& resultFileFormat) {
    m_resultFiles.insert(id, resultFile);

    QList<QString> args{QStringLiteral("-y")};
    if (!videoFile.isEmpty())
        args << QStringLiteral("-i") << FileNameRules::nativeLongPath(videoFile);
    if (!audioFile.isEmpty())
        args << QStringLiteral("-i") << FileNameRules::nativeLongPath(audioFile);
    args << QStringLiteral("-vcodec") << QStringLiteral("copy") << QStringLiteral("-acodec")
         << QStringLiteral("copy");
    if (!resultFileFormat.isEmpty())
        args << QStringLiteral("-f") << resultFileFormat;
    args << FileNameRules::nativeLongPath(resultFile);

    const QString workingDir =
        terncl::ffmpegDirectoryPart(videoFile.isEmpty() ? audioFile : videoFile);
    // Merges are heavy on the disk: one at a time is faster than several side by side.
    m_manager->launchFfmpeg(id, args, workingDir, true, 1);
}

void QtFfmpegAvMerger::abort(int id) {
    m_manager->abort(id);
}

void QtFfmpegAvMerger::onFfmpegFinished(int id, const AbstractError& error, int exitCode) {
    const QString resultFile = m_resultFiles.take(id);
    if (error.isSet()) {
        Q_EMIT finished(id, error, 0);
        return;
    }
    if (exitCode != 0) {
        const QString text = tr("%1 returned non-zero (%2) exit status")
                                 .arg(QStringLiteral("FFmpeg"), QString::number(exitCode));
        Q_EMIT finished(id,
                        AbstractError(NonZeroExitErrorCode, AbstractError::GenericError,
                                      TERNCL_SOURCE_PLACE, text.toStdString()),
                        0);
        return;
    }
    Q_EMIT finished(id, AbstractError(), QFileInfo(resultFile).size());
}
