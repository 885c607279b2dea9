#pragma once

#include <terncl/ternclshared_export.h>

#include <QObject>
#include <QSharedPointer>

// An observable on/off switch shared between the engine and the user interface, for example
// "pause all downloads". Lives on one thread.
class TERNCL_EXPORT QtToggleSwitchObject : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool switchedOn READ isSwitchedOn WRITE setSwitchedOn NOTIFY switchedOnChanged)

public:
    explicit QtToggleSwitchObject(bool switchedOn = false, QObject* parent = nullptr);

    bool isSwitchedOn() const;
    // Emits switchedOnChanged() only when the state really changes.
    void setSwitchedOn(bool on);
    void toggle();

    // Registers "QSharedPointer<QtToggleSwitchObject>" so that shared switches travel in
    // queued signals and QVariants.
    static void registerMetatypes();

Q_SIGNALS:
    void switchedOnChanged();

private:
    bool m_switchedOn = false;
};

Q_DECLARE_METATYPE(QSharedPointer<QtToggleSwitchObject>)
