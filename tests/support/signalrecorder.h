#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>

#include <functional>

// Records the signals of several objects in one ordered log, as "name(arg, arg)" entries, so
// that a test can assert the order of signals across objects. Arguments are formatted with
// QVariant::toString(); types without a text form show as their type name.
class SignalRecorder : public QObject {
public:
    explicit SignalRecorder(QObject* parent = nullptr)
        : QObject(parent) {}

    template <typename Sender, typename... Args>
    void record(const Sender* sender, void (Sender::*signal)(Args...), const QString& name) {
        connect(sender, signal, this, [this, name](Args... args) {
            append(name, QVariantList{QVariant::fromValue(std::decay_t<Args>(args))...});
        });
    }

    QStringList events() const { return m_events; }
    void clear() { m_events.clear(); }

private:
    void append(const QString& name, const QVariantList& args);

    QStringList m_events;
};
