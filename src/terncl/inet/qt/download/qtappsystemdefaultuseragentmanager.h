#pragma once

#include <terncl/ternclshared_export.h>

#include <QObject>
#include <QString>

// Tells the user agent that the system's default browser sends.
class TERNCL_EXPORT QtAppSystemDefaultUserAgentManager : public QObject {
    Q_OBJECT

public:
    explicit QtAppSystemDefaultUserAgentManager(QObject* parent = nullptr);

    virtual QString userAgent() const = 0;

Q_SIGNALS:
    void userAgentChanged();
};
