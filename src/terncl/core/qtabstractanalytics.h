#pragma once

#include <terncl/ternclshared_export.h>

#include <QObject>
#include <QVariantHash>

// A sink for named analytics events with parameters.
class TERNCL_EXPORT QtAbstractAnalytics : public QObject {
    Q_OBJECT

public:
    explicit QtAbstractAnalytics(QObject* parent = nullptr);

    Q_INVOKABLE virtual void logEvent(const QString& name, const QVariantHash& params) = 0;
};
