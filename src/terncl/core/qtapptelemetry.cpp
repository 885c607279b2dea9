#include "qtabstractanalytics.h"
#include "qtanalyticsdummy.h"
#include "qtapptelemetrysender.h"

QtAppTelemetrySender::QtAppTelemetrySender(QObject* parent)
    : QtRunningObject(parent) {}

QtAbstractAnalytics::QtAbstractAnalytics(QObject* parent)
    : QObject(parent) {}

QtAnalyticsDummy::QtAnalyticsDummy(QObject* parent)
    : QtAbstractAnalytics(parent) {}

void QtAnalyticsDummy::logEvent(const QString&, const QVariantHash&) {}
