#pragma once

#include <QString>
#include <QtGlobal>

namespace terncl {

// Reserving the disk blocks of a range of a file (extending the file to the range's end), so that
// a preallocated file really owns its space instead of being sparse, and a full disk or a size
// limit shows at once. The reserved blocks read as zeros. Only Linux has it so far; elsewhere
// every call answers Unsupported and the caller relies on what it writes itself.
struct SpaceReservation {
    enum Outcome { Reserved, Unsupported, Failed };

    Outcome outcome = Unsupported;
    int systemError = 0;
    QString description;
};

SpaceReservation reserveFileSpace(int fileDescriptor, qint64 offset, qint64 length);

} // namespace terncl
