#pragma once

#include <QMetaType>
#include <QString>

// Credentials for one scope.
struct QtNetworkAuthRecord {
    QString user;
    QString password;

    bool isEmpty() const { return user.isEmpty() && password.isEmpty(); }
    bool operator==(const QtNetworkAuthRecord& other) const {
        return user == other.user && password == other.password;
    }
    bool operator!=(const QtNetworkAuthRecord& other) const { return !(*this == other); }
};

Q_DECLARE_METATYPE(QtNetworkAuthRecord)
