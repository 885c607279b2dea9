#pragma once

#include <terncl/ternclshared_export.h>

#include <QMetaType>
#include <QString>
#include <QUrl>

// Where credentials apply: a kind (server or proxy), the address and the realm.
struct QtNetworkAuthScope {
    enum Kind : int { Server = 0, Proxy = 1 };

    int kind = Server;
    QUrl url;
    QString realm;

    bool isValid() const { return url.isValid(); }
    bool operator==(const QtNetworkAuthScope& other) const {
        return kind == other.kind && realm == other.realm && url == other.url;
    }
    bool operator!=(const QtNetworkAuthScope& other) const { return !(*this == other); }
    // Kind first, then the URL, and the realm only between equal URLs.
    TERNCL_EXPORT bool operator<(const QtNetworkAuthScope& other) const;
};

Q_DECLARE_METATYPE(QtNetworkAuthScope)
