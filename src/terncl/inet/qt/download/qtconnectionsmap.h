#pragma once

#include <terncl/inet/qt/download/qtconnectionsmapentry.h>
#include <terncl/inet/qt/download/qthostandport.h>

#include <QHash>
#include <QMetaType>

// Open connections per host and port. A map never stores a zero count.
using QtConnectionsMap = QHash<QtHostAndPort, QtConnectionsMapEntry>;

Q_DECLARE_METATYPE(QtConnectionsMap)

namespace terncl {
// Adds (sign 1) or subtracts (sign -1) every count of delta; a key that reaches 0 is erased.
// Negative counts are kept: only 0 is erased.
TERNCL_EXPORT void applyConnectionsDelta(QtConnectionsMap& map, const QtConnectionsMap& delta,
                                         int sign = 1);
// A copy with every count negated, the delta that undoes map.
TERNCL_EXPORT QtConnectionsMap negatedConnections(const QtConnectionsMap& map);
} // namespace terncl
