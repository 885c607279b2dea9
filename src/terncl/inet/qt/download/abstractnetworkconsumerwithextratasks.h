#pragma once

#include <terncl/inet/qt/download/abstractnetworkconsumer.h>

// A consumer that can be running while it moves no bytes (file operations, merging).
// isRunning() and running(bool) always agree; running is emitted only on a change.
class TERNCL_EXPORT AbstractNetworkConsumerWithExtraTasks : public AbstractNetworkConsumer {
    Q_OBJECT

public:
    explicit AbstractNetworkConsumerWithExtraTasks(QObject* parent = nullptr);

    virtual bool isRunning() const = 0;

Q_SIGNALS:
    void running(bool isRunning);
};
