#pragma once

#include <terncl/ternclshared_export.h>

#include <QObject>

#include <atomic>

// An object that is either running or not and announces each change once by running(bool).
// isRunning() may be read from any thread; setRunning runs in the object's thread.
class TERNCL_EXPORT QtRunningObject : public QObject {
    Q_OBJECT

public:
    explicit QtRunningObject(QObject* parent = nullptr);

    bool isRunning() const { return m_running.load(); }

Q_SIGNALS:
    void running(bool isRunning);

protected:
    // Returns false for an unchanged value. Otherwise emits running(value) and returns whether
    // the state still equals value once the signal was delivered (a receiver may change it).
    bool setRunning(bool value);

private:
    std::atomic_bool m_running{false};
};
