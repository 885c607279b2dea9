#include "testchild.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#ifdef Q_OS_LINUX
#include <unistd.h>
#endif

QString TestChild::program() {
    return QString::fromUtf8(TERNCL_TEST_CHILD_PATH);
}

QString TestChild::makeFakeTool(const QString& folder, const QString& mode) {
#ifdef Q_OS_WIN
    const QString name = QStringLiteral("fake-%1.exe").arg(mode);
#else
    const QString name = QStringLiteral("fake-%1").arg(mode);
#endif
    const QString target = QDir(folder).filePath(name);
    QFile::remove(target);
    if (!QFile::copy(program(), target))
        return QString();
    QFile::setPermissions(target, QFile::permissions(program()));
    return name;
}

int TestChild::runningChildCount() {
#ifdef Q_OS_LINUX
    const QString self = QString::number(::getpid());
    int count = 0;
    const auto entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : entries) {
        QFile stat(QStringLiteral("/proc/%1/stat").arg(entry));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        // "pid (name) state ppid ...": the name may hold blanks, so read after its last ')'.
        const QByteArray line = stat.readAll();
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 1 && fields.at(1) == self.toLatin1() && fields.at(0) != "Z")
            ++count;
    }
    return count;
#else
    return -1;
#endif
}
