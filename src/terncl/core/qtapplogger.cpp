#include "qtapplogger.h"

QtAppLogger::~QtAppLogger() = default;

bool QtAppLogger::isEnabled(int level, quint64 categoriesMask) const {
    return level <= verbosityLevel() && (categories() & categoriesMask) != 0;
}
