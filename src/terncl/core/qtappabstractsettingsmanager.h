#pragma once

#include <terncl/core/qtstringspairvector.h>
#include <terncl/ternclshared_export.h>

#include <QObject>
#include <QStringList>
#include <QVariant>

// The application's settings, read and changed by name. Storage, defaults and persistence
// belong to the concrete manager; an implementation only needs setValues to handle changes.
class TERNCL_EXPORT QtAppAbstractSettingsManager : public QObject {
    Q_OBJECT

public:
    explicit QtAppAbstractSettingsManager(QObject* parent = nullptr);

    virtual QString value(const QString& name) const = 0;
    virtual QString defaultValue(const QString& name) const = 0;
    virtual bool contains(const QString& name) const = 0;
    virtual QStringList names() const = 0;
    virtual QtStringsPairVector values() const = 0;
    virtual bool load() = 0;
    virtual bool save() = 0;

public Q_SLOTS:
    // One change reaches listeners as a one-element valuesChanged.
    virtual void setValue(const QString& name, const QString& value);
    // Stores all pairs as one change.
    virtual void setValues(const QtStringsPairVector& values) = 0;
    virtual void resetToDefaults() = 0;

Q_SIGNALS:
    void valuesChanged(const QtStringsPairVector& values, const QString& source);
    void allValuesChanged(const QString& source);
    void settingsResetToDefaults(const QString& source);
};
