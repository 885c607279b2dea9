#pragma once

#include <terncl/core/qtapplogger.h>

#include <QSharedPointer>
#include <QStringList>

// Installs itself as the default logger for its lifetime and keeps every line, so that tests
// can assert exact log lines. Restores the previous logger when destroyed.
class RecordingLogger {
public:
    RecordingLogger();
    ~RecordingLogger();

    QStringList lines() const;
    bool contains(const QString& line) const { return lines().contains(line); }
    void clear();

private:
    class Sink;
    QSharedPointer<Sink> m_sink;
    QSharedPointer<QtAppLogger> m_previous;
};
