#pragma once

#include <terncl/inet/qt/download/qthostandport.h>
#include <terncl/inet/qt/download/qtsslhostpublickey.h>

// A TLS server identified by its endpoint and its public key: the same endpoint with another
// key is another host.
struct QtSslHost {
    QtHostAndPort hostAndPort;
    QtSslHostPublicKey publicKey;

    QtSslHost() = default;
    QtSslHost(QtHostAndPort endpoint, QtSslHostPublicKey key)
        : hostAndPort(std::move(endpoint))
        , publicKey(std::move(key)) {}

    bool empty() const { return hostAndPort.host.isEmpty() && publicKey.key.isEmpty(); }
    bool operator==(const QtSslHost& other) const {
        return publicKey.kind == other.publicKey.kind &&
               hostAndPort.port == other.hostAndPort.port &&
               hostAndPort.host == other.hostAndPort.host && publicKey.key == other.publicKey.key;
    }
    bool operator!=(const QtSslHost& other) const { return !(*this == other); }
};

Q_DECLARE_METATYPE(QtSslHost)
