#pragma once

#include <terncl/ternclshared_export.h>

#include <QHashFunctions>
#include <QMetaType>
#include <QString>

// A server endpoint, the key of connections maps.
struct QtHostAndPort {
    QString host;
    int port = 0;

    bool operator==(const QtHostAndPort& other) const {
        return host == other.host && port == other.port;
    }
    bool operator!=(const QtHostAndPort& other) const { return !(*this == other); }
};

// The usual two-field combination over qHash(host, 0) and qHash(port, 0).
TERNCL_EXPORT size_t qHash(const QtHostAndPort& key, size_t seed = 0) noexcept;

Q_DECLARE_METATYPE(QtHostAndPort)
