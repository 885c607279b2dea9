#pragma once

#include <QMetaType>
#include <QString>

// A consumer's network settings, copied whole from its owner (packs hand theirs to every item).
struct AbstractNetworkConsumerSettings {
    QString userAgent;        // sent with every request; empty means the consumer's default
    QString networkInterface; // local interface to bind to; empty means any
    bool followRedirects = true;
    bool ignoreSslErrors = false;

    bool operator==(const AbstractNetworkConsumerSettings& other) const {
        return userAgent == other.userAgent && networkInterface == other.networkInterface &&
               followRedirects == other.followRedirects && ignoreSslErrors == other.ignoreSslErrors;
    }
    bool operator!=(const AbstractNetworkConsumerSettings& other) const {
        return !(*this == other);
    }
};

Q_DECLARE_METATYPE(AbstractNetworkConsumerSettings)
