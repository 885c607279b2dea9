#pragma once

#include <terncl/core/qtabstractanalytics.h>

// Analytics that records nothing: every event is dropped.
class TERNCL_EXPORT QtAnalyticsDummy : public QtAbstractAnalytics {
    Q_OBJECT

public:
    explicit QtAnalyticsDummy(QObject* parent = nullptr);

    Q_INVOKABLE void logEvent(const QString& name, const QVariantHash& params) override;
};
