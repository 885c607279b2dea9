#include "sourceplace.h"

#include "qtappdefaultlogger.h"
#include "qtapplogger.h"

#include <QString>

namespace terncl {

std::string sourcePlace(const char* file, int line) {
    std::string path = file ? file : "";
    if (path.rfind("./", 0) == 0)
        path.erase(0, 2);
    // A compiler launcher with a base folder (ccache's base_dir) hands the compiler paths
    // relative to the build folder, which sits in the repository.
    while (path.rfind("../", 0) == 0)
        path.erase(0, 3);
    const auto slash = path.find_last_of('/');
    const auto dot = path.find_last_of('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash))
        path.erase(dot);
    return path + "," + std::to_string(line);
}

void reportFailedAssertion(const char* expression, const char* file, int line) {
    const QString text = QStringLiteral("ASSERTION FAILED: ") + QString::fromUtf8(expression) +
                         QStringLiteral(", ") + QString::fromStdString(sourcePlace(file, line));
    QtAppDefaultLogger::instance()->log(QtAppLogger::Critical, QtAppLogger::General, text);
}

} // namespace terncl
