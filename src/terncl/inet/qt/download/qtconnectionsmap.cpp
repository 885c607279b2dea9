#include "qtconnectionsmap.h"

size_t qHash(const QtHostAndPort& key, size_t seed) noexcept {
    size_t h = seed ^ (qHash(key.host, 0) + 0x9e3779b9 + (seed << 6) + (seed >> 2));
    h ^= qHash(key.port, 0) + 0x9e3779b9 + (h << 6) + (h >> 2);
    return h;
}

namespace terncl {

void applyConnectionsDelta(QtConnectionsMap& map, const QtConnectionsMap& delta, int sign) {
    for (auto it = delta.cbegin(); it != delta.cend(); ++it) {
        auto& entry = map[it.key()];
        entry.count += sign * it.value().count;
        if (entry.count == 0)
            map.remove(it.key());
    }
}

QtConnectionsMap negatedConnections(const QtConnectionsMap& map) {
    QtConnectionsMap negated = map;
    for (auto& entry : negated)
        entry.count = -entry.count;
    return negated;
}

} // namespace terncl
