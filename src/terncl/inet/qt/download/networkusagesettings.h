#pragma once

#include <terncl/inet/qt/download/networktrafficdirection.h>

#include <QMetaType>
#include <QtGlobal>

// How much of the network a consumer may use. 0 means no limit. Packs divide the two speed
// limits and the connections limit among their active items; the per-server limit and the
// flag are handed on unchanged.
struct NetworkUsageSettings {
    qint64 downloadSpeedLimit = 0; // bytes per second, traffic direction 0
    qint64 uploadSpeedLimit = 0;   // bytes per second, traffic direction 1
    qint32 connectionsLimit = 0;
    qint32 connectionsPerServerLimit = 0;
    bool lowPriority = false; // yield bandwidth to other traffic where the consumer can

    qint64 speedLimit(NetworkTrafficDirection direction) const {
        return direction == NetworkTrafficDirection::Download ? downloadSpeedLimit
                                                              : uploadSpeedLimit;
    }
    bool hasLimits() const {
        return downloadSpeedLimit || uploadSpeedLimit || connectionsLimit ||
               connectionsPerServerLimit;
    }
    bool operator==(const NetworkUsageSettings& other) const {
        return downloadSpeedLimit == other.downloadSpeedLimit &&
               uploadSpeedLimit == other.uploadSpeedLimit &&
               connectionsLimit == other.connectionsLimit &&
               connectionsPerServerLimit == other.connectionsPerServerLimit &&
               lowPriority == other.lowPriority;
    }
    bool operator!=(const NetworkUsageSettings& other) const { return !(*this == other); }
};

Q_DECLARE_METATYPE(NetworkUsageSettings)
