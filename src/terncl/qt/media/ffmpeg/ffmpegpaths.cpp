#include "ffmpegpaths_p.h"

namespace terncl {

QString ffmpegDirectoryPart(const QString& path) {
    const qsizetype separator =
        qMax(path.lastIndexOf(QLatin1Char('/')), path.lastIndexOf(QLatin1Char('\\')));
    if (separator < 0)
        return QString();
    const bool isRoot = separator == 0;
    const bool isDriveRoot = separator == 2 && path.at(1) == QLatin1Char(':');
    return path.left(isRoot || isDriveRoot ? separator + 1 : separator);
}

} // namespace terncl
