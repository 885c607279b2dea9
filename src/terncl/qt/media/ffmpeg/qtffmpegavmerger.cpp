#include "qtffmpegavmerger.h"

#include "ffmpegpaths_p.h"

#include <terncl/core/sourceplace.h>
#include <terncl/fs/qt/utils/filenamerules.h>

#include <QFileInfo>
#include <QStandardPaths>

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

void QtFfmpegAvMerger::setSandboxEnabled(bool enabled) {
    m_sandboxEnabled = enabled;
}

bool QtFfmpegAvMerger::isSandboxEnabled() const {
    return m_sandboxEnabled;
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
    m_manager->launch(id, m_manager->ffmpegPath(), args, workingDir, true, true,
                      mergeSandbox({videoFile, audioFile}, resultFile), 1);
}

QtProcessLaunchManager::Sandbox QtFfmpegAvMerger::mergeSandbox(const QStringList& inputs,
                                                               const QString& resultFile) const {
    QtProcessLaunchManager::Sandbox sandbox;
    const auto sandboxManager = m_manager->sandboxManager();
    sandbox.enabled = m_sandboxEnabled && sandboxManager && !sandboxManager->name().isEmpty() &&
                      QtProcessSandboxManager::hasSandboxSupport();
    if (!sandbox.enabled)
        return sandbox;
    sandbox.allowStartWithoutSandbox = false;
    QtProcessSandboxManager::SandboxSettings& settings = sandbox.settings;
    settings.internetClient = false;
    const auto allow = [&settings](const QString& path, bool execute, bool read, bool write) {
        QtProcessSandboxManager::AllowedPath entry;
        entry.path = path;
        entry.execute = execute;
        entry.read = read;
        entry.write = write;
        settings.allowedPaths.append(entry);
    };
    QString program = m_manager->ffmpegPath();
    if (!program.contains(QLatin1Char('/')) && !program.contains(QLatin1Char('\\')))
        program = QStandardPaths::findExecutable(program);
    if (!program.isEmpty())
        allow(QFileInfo(program).absoluteFilePath(), true, true, false);
    for (const QString& input : inputs) {
        if (!input.isEmpty())
            allow(QFileInfo(input).absoluteFilePath(), false, true, false);
    }
    allow(QFileInfo(resultFile).absolutePath(), false, false, true);
    return sandbox;
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
