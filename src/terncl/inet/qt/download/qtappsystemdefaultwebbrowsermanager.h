#pragma once

#include <terncl/ternclshared_export.h>

#include <QObject>
#include <QString>

// Tells which browser is the system default (its name, as the platform reports it).
class TERNCL_EXPORT QtAppSystemDefaultWebBrowserManager : public QObject {
    Q_OBJECT

public:
    explicit QtAppSystemDefaultWebBrowserManager(QObject* parent = nullptr);

    virtual QString defaultBrowser() const = 0;

Q_SIGNALS:
    void browserChanged();
};
