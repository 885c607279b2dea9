#pragma once

#include <QMetaType>
#include <QtGlobal>

// In a map the number of open connections; in a delta the signed change of it.
struct QtConnectionsMapEntry {
    qint32 count = 0;

    bool operator==(const QtConnectionsMapEntry& other) const { return count == other.count; }
    bool operator!=(const QtConnectionsMapEntry& other) const { return !(*this == other); }
};

Q_DECLARE_METATYPE(QtConnectionsMapEntry)
