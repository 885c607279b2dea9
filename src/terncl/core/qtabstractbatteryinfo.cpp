#include "qtabstractbatteryinfo.h"

#if defined(Q_OS_WIN)
#include "qtwindowsbatteryinfo.h"
#elif defined(Q_OS_LINUX)
#include "qtlinuxbatteryinfo.h"
#endif

QtAbstractBatteryInfo::QtAbstractBatteryInfo(QObject* parent)
    : QObject(parent) {}

QtAbstractBatteryInfo::~QtAbstractBatteryInfo() = default;

QtAbstractBatteryInfo* QtAbstractBatteryInfo::createForThisSystem(QObject* parent) {
#if defined(Q_OS_WIN)
    return new QtWindowsBatteryInfo(parent);
#elif defined(Q_OS_LINUX)
    return new QtLinuxBatteryInfo(parent);
#else
    Q_UNUSED(parent);
    return nullptr;
#endif
}
