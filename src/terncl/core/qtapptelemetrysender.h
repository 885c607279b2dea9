#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/core/qtrunningobject.h>

// Sends the host's telemetry items (events and health reports). The transport is the host's.
class TERNCL_EXPORT QtAppTelemetrySender : public QtRunningObject {
    Q_OBJECT

public:
    explicit QtAppTelemetrySender(QObject* parent = nullptr);

    // Queues one item and returns its id, which sendingItem and finishedItem carry.
    Q_INVOKABLE virtual qint64 send(bool isHealthReport, const QString& category,
                                    const QString& event, const QString& description) = 0;
    Q_INVOKABLE qint64 send(bool isHealthReport, const QString& category, const QString& event) {
        return send(isHealthReport, category, event, QString());
    }
    Q_INVOKABLE virtual void enable(bool value) = 0;
    Q_INVOKABLE virtual void enableHealthReportsOnly(bool value) = 0;

Q_SIGNALS:
    void sendingItem(qint64 id);
    void finishedItem(qint64 id, const AbstractError& error);
};
