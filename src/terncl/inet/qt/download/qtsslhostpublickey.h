#pragma once

#include <QByteArray>
#include <QMetaType>

// A server's public key; kind qualifies the bytes (for example the key algorithm).
struct QtSslHostPublicKey {
    QByteArray key;
    int kind = 0;

    bool empty() const { return key.isEmpty(); }
    bool operator==(const QtSslHostPublicKey& other) const {
        return kind == other.kind && key == other.key;
    }
    bool operator!=(const QtSslHostPublicKey& other) const { return !(*this == other); }
};

Q_DECLARE_METATYPE(QtSslHostPublicKey)
