#include "outputguard.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
QString kindOf(mode_t mode) {
    if (S_ISDIR(mode))
        return QStringLiteral("a folder");
    if (S_ISCHR(mode) || S_ISBLK(mode))
        return QStringLiteral("a device");
    if (S_ISSOCK(mode))
        return QStringLiteral("a socket");
    if (S_ISFIFO(mode))
        return QStringLiteral("a pipe");
    if (S_ISLNK(mode))
        return QStringLiteral("a symbolic link");
    return QStringLiteral("not a regular file");
}

QString systemError() {
    return QString::fromLocal8Bit(std::strerror(errno));
}

// What a held lock file says about its holder, for the message of the run that finds it held.
QString holderOf(int fd) {
    char text[32] = {};
    const ssize_t read = ::pread(fd, text, sizeof text - 1, 0);
    const long pid = read > 0 ? std::strtol(text, nullptr, 10) : 0;
    return pid > 0 ? QStringLiteral(" (process %1)").arg(pid) : QString();
}

// The lock is only good on the file still at its path: a run that finished may have removed it
// between this run's open and its flock.
bool isStillAt(int fd, const QByteArray& path) {
    struct stat held = {}, current = {};
    return ::fstat(fd, &held) == 0 && ::stat(path.constData(), &current) == 0 &&
           held.st_dev == current.st_dev && held.st_ino == current.st_ino;
}
} // namespace

OutputGuard::~OutputGuard() {
    unlock();
}

QString OutputGuard::refusal(const QString& path) {
    if (path.endsWith(u'/'))
        return QStringLiteral("%1 names a folder; give a file name").arg(path);
    for (const QString& candidate : {path, path + QStringLiteral(".part")}) {
        struct stat status = {};
        if (::lstat(QFile::encodeName(candidate).constData(), &status) != 0)
            continue; // nothing there, or nothing the download could reach either
        if (!S_ISREG(status.st_mode))
            return QStringLiteral("%1 is %2; only a regular file is ever replaced")
                .arg(candidate, kindOf(status.st_mode));
    }
    return {};
}

bool OutputGuard::lock(const QString& stateDir, const QString& output, QString* error) {
    unlock();
    if (!QDir().mkpath(stateDir)) {
        *error = QStringLiteral("cannot create the state folder %1").arg(stateDir);
        return false;
    }
    const QByteArray digest =
        QCryptographicHash::hash(output.toUtf8(), QCryptographicHash::Sha1).toHex();
    const QString path =
        QDir(stateDir).filePath(QString::fromLatin1(digest) + QStringLiteral(".lock"));
    const QByteArray name = QFile::encodeName(path);
    for (int attempt = 0; attempt < 3; ++attempt) {
        const int fd = ::open(name.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) {
            *error = QStringLiteral("cannot create the lock %1: %2").arg(path, systemError());
            return false;
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            const bool held = errno == EWOULDBLOCK;
            *error = held ? QStringLiteral("another tern-get%1 is downloading to %2")
                                .arg(holderOf(fd), output)
                          : QStringLiteral("cannot lock %1: %2").arg(path, systemError());
            ::close(fd);
            return false;
        }
        if (isStillAt(fd, name)) {
            const QByteArray pid = QByteArray::number(qint64(::getpid())) + '\n';
            if (::ftruncate(fd, 0) == 0) {
                [[maybe_unused]] const auto written = ::pwrite(fd, pid.constData(), pid.size(), 0);
            }
            m_fd = fd;
            m_lockPath = path;
            return true;
        }
        ::close(fd);
    }
    *error = QStringLiteral("cannot lock %1: it keeps being replaced").arg(path);
    return false;
}

void OutputGuard::unlock() {
    if (m_fd < 0)
        return;
    // Removed while still held, so that no other run can lock the file on its way out.
    ::unlink(QFile::encodeName(m_lockPath).constData());
    ::close(m_fd);
    m_fd = -1;
    m_lockPath.clear();
}

bool OutputGuard::replace(const QString& staged, const QString& output, QString* error) {
    const QString refused = refusal(output);
    if (!refused.isEmpty()) {
        *error = QStringLiteral("%1; the download stays in %2").arg(refused, staged);
        return false;
    }
    if (::rename(QFile::encodeName(staged).constData(), QFile::encodeName(output).constData()) !=
        0) {
        *error = QStringLiteral("cannot move %1 to %2: %3; the download stays in %1")
                     .arg(staged, output, systemError());
        return false;
    }
    return true;
}
