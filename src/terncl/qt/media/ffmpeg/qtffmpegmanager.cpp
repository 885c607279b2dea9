#include "qtffmpegmanager.h"

#include "ffmpegpaths_p.h"

#include <QProcess>
#include <QRegularExpression>
#include <QThread>

#include <cstdio>

namespace {
// Output without any line end is not progress; past this size only its tail is kept, so that a
// misbehaving program cannot make the pending text grow without bound.
constexpr qsizetype MaxPendingChars = 64 * 1024;

QString timePattern(const char* label) {
    return QString::fromLatin1(label) + QStringLiteral("(\\d\\d):(\\d\\d):(\\d\\d).(\\d\\d\\d?)");
}

const QRegularExpression& durationExpression() {
    static const QRegularExpression expression(timePattern("Duration *: *"));
    return expression;
}

const QRegularExpression& timeExpression() {
    static const QRegularExpression expression(timePattern("time *= *"));
    return expression;
}

// The fraction rounds up from 500, whatever its number of digits: a two-digit fraction such as
// ".50" never reaches 500 and so never rounds, which callers have come to rely on.
int secondsFromMatch(const QRegularExpressionMatch& match) {
    if (match.lastCapturedIndex() != 4)
        return -1;
    const int hours = match.captured(1).toInt();
    const int minutes = match.captured(2).toInt();
    const int seconds = match.captured(3).toInt();
    const int fraction = match.captured(4).toInt();
    return (hours * 60 + minutes) * 60 + seconds + (fraction >= 500 ? 1 : 0);
}

QString ffmpegPathFrom(const QString& folder, const QString& fileName) {
    if (folder.isEmpty() || folder.endsWith(QLatin1Char('/')))
        return folder + fileName;
    return folder + QLatin1Char('/') + fileName;
}
} // namespace

QtFfmpegManager::QtFfmpegManager(const QString& folder, const QString& fileName,
                                 QSharedPointer<QtProcessSandboxManager> sandboxManager,
                                 QObject* parent)
    : QtProcessLaunchManager(std::move(sandboxManager), parent)
    , m_ffmpegPath(ffmpegPathFrom(folder, fileName)) {
    connect(this, &QtProcessLaunchManager::launching, this, &QtFfmpegManager::onFfmpegLaunching);
    connect(this, &QtProcessLaunchManager::dataFromProcess, this,
            &QtFfmpegManager::onDataFromFfmpeg);
    connect(this, &QtProcessLaunchManager::finished, this, &QtFfmpegManager::onFfmpegFinished);
}

QtFfmpegManager::~QtFfmpegManager() = default;

QString QtFfmpegManager::ffmpegPath() const {
    return m_ffmpegPath;
}

QString QtFfmpegManager::ffmpegVersion() const {
    return m_version;
}

bool QtFfmpegManager::isFfmpegInstalled(bool forceCheck) {
    if (!forceCheck && m_installedState != 0)
        return m_installedState == 1;

    QProcess process;
    process.setProgram(m_ffmpegPath);
    process.setArguments({QStringLiteral("-version")});
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QIODeviceBase::ReadOnly);
    if (!process.waitForFinished(m_versionCheckTimeoutMs)) {
        // Missing, or hanging: either way not usable, and a hanging one must not stay behind.
        process.kill();
        process.waitForFinished();
        m_installedState = 2;
        return false;
    }
    parseVersionOutput(QString::fromLocal8Bit(process.readAll()));
    return m_installedState == 1;
}

void QtFfmpegManager::parseVersionOutput(const QString& output) {
    static const QString prefix = QStringLiteral("ffmpeg version ");
    if (!output.startsWith(prefix, Qt::CaseInsensitive)) {
        m_installedState = 2;
        return;
    }
    const QString rest = output.mid(prefix.size());
    qsizetype end = 0;
    while (end < rest.size() && (rest.at(end).isDigit() || rest.at(end) == QLatin1Char('.')))
        ++end;
    m_version = rest.left(end);
    // Builds from a source snapshot name themselves ("N-109421-g...") instead of a number; they
    // are ffmpeg all the same, and their first word is the best version there is.
    if (m_version.isEmpty())
        m_version = rest.section(QRegularExpression(QStringLiteral("\\s")), 0, 0);
    m_mp3LamePresent = output.contains(QLatin1String("libmp3lame"));
    m_installedState = 1;
}

bool QtFfmpegManager::isMp3LamePresent(bool forceCheck) {
    return isFfmpegInstalled(forceCheck) && m_mp3LamePresent;
}

void QtFfmpegManager::setVersionCheckTimeout(int msec) {
    m_versionCheckTimeoutMs = msec;
}

int QtFfmpegManager::versionCheckTimeout() const {
    return m_versionCheckTimeoutMs;
}

int QtFfmpegManager::idealFfmpegCount() {
    return idealFfmpegCount(QThread::idealThreadCount());
}

int QtFfmpegManager::idealFfmpegCount(int idealThreadCount) {
    return qMax(1, idealThreadCount / 2);
}

void QtFfmpegManager::launchFfmpeg(int id, const QList<QString>& args, const QString& workingDir,
                                   bool useQueue, int maxRunningProcessesInQueue) {
    launch(id, m_ffmpegPath, args, workingDir, true, useQueue, Sandbox(),
           maxRunningProcessesInQueue);
}

void QtFfmpegManager::launchFfmpeg(int id, const QString& file, bool useQueue) {
    launchFfmpeg(id, {QStringLiteral("-i"), file}, terncl::ffmpegDirectoryPart(file), useQueue,
                 useQueue ? idealFfmpegCount() : 0);
}

int QtFfmpegManager::secondsFromFfmpegTimeString(const QString& text) {
    int hours = 0, minutes = 0, seconds = 0, fraction = 0;
    const QByteArray bytes = text.toLatin1();
    if (std::sscanf(bytes.constData(), "%02d:%02d:%02d.%02d", &hours, &minutes, &seconds,
                    &fraction) != 4) {
        return -1;
    }
    return (hours * 60 + minutes) * 60 + seconds;
}

QString QtFfmpegManager::secondsToFfmpegString(int seconds) {
    return QString::asprintf("%02d:%02d:%02d.%02d", seconds / 3600, (seconds % 3600) / 60,
                             seconds % 60, 0);
}

void QtFfmpegManager::onFfmpegLaunching(int id) {
    m_runningRecords.insert(id, RunningFfmpegRecord());
}

void QtFfmpegManager::onDataFromFfmpeg(int id, const QByteArray& data) {
    const auto it = m_runningRecords.find(id);
    if (it == m_runningRecords.end())
        return;
    RunningFfmpegRecord& record = *it;
    QString text = record.pendingText + QString::fromUtf8(data);

    // Progress lines end in a carriage return, other lines in a line feed; a line whose end has
    // not arrived yet waits for the next chunk so that it is parsed exactly once.
    const qsizetype lastBreak =
        qMax(text.lastIndexOf(QLatin1Char('\r')), text.lastIndexOf(QLatin1Char('\n')));
    record.pendingText = text.mid(lastBreak + 1);
    if (record.pendingText.size() > MaxPendingChars)
        record.pendingText = record.pendingText.right(MaxPendingChars / 2);
    if (lastBreak <= 0)
        return;
    text.truncate(lastBreak);
    processData(id, record, text);
}

void QtFfmpegManager::onFfmpegFinished(int id) {
    const auto it = m_runningRecords.find(id);
    if (it == m_runningRecords.end())
        return;
    RunningFfmpegRecord record = *it;
    m_runningRecords.erase(it);
    if (!record.pendingText.isEmpty())
        processData(id, record, record.pendingText);
}

void QtFfmpegManager::processData(int id, RunningFfmpegRecord& record, const QString& text) {
    if (record.durationSeconds == -1) {
        // Each input reports its own duration; the longest is the length of the result.
        int longest = -1;
        auto matches = durationExpression().globalMatch(text);
        bool found = false;
        while (matches.hasNext()) {
            longest = qMax(longest, secondsFromMatch(matches.next()));
            found = true;
        }
        if (found) {
            record.durationSeconds = longest;
            Q_EMIT duration(id, longest);
        }
        return;
    }

    const int time = secondsFromMatch(timeExpression().match(text));
    if (time == -1)
        return;
    // The record is not touched after the first signal: a listener may launch another ffmpeg
    // and so move the records around.
    const bool beyondDuration = time > record.durationSeconds;
    if (beyondDuration)
        record.durationSeconds = time;
    const int total = record.durationSeconds;
    if (beyondDuration)
        Q_EMIT duration(id, time);
    Q_EMIT progress(id, time, total);
}
