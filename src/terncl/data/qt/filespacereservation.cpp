#include "filespacereservation_p.h"

#ifdef Q_OS_LINUX
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#endif

namespace terncl {

#ifdef Q_OS_LINUX

SpaceReservation reserveFileSpace(int fileDescriptor, qint64 offset, qint64 length) {
    int result = 0;
    do {
        result = ::fallocate(fileDescriptor, 0, offset, length);
    } while (result != 0 && errno == EINTR);
    if (result == 0)
        return {SpaceReservation::Reserved, 0, {}};
    const int error = errno;
    const QString description = QString::fromLocal8Bit(std::strerror(error));
    switch (error) {
    case EOPNOTSUPP:
    case ENOSYS:
    case ENODEV: // not a regular file (a device)
    case ESPIPE:
        return {SpaceReservation::Unsupported, error, description};
    default:
        return {SpaceReservation::Failed, error, description};
    }
}

#else

SpaceReservation reserveFileSpace(int, qint64, qint64) {
    return {};
}

#endif

} // namespace terncl
