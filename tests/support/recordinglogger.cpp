#include "recordinglogger.h"

#include <terncl/core/qtappdefaultlogger.h>

#include <QMutexLocker>

class RecordingLogger::Sink : public QtAppLogger {
public:
    int verbosityLevel() const override { return Debug; }
    quint64 categories() const override { return AllCategories; }
    void log(int, quint64, const QString& text) override {
        QMutexLocker lock(&mutex);
        lines.append(text);
    }

    mutable QMutex mutex;
    QStringList lines;
};

RecordingLogger::RecordingLogger()
    : m_sink(new Sink)
    , m_previous(QtAppDefaultLogger::instance()) {
    QtAppDefaultLogger::setInstance(m_sink);
}

RecordingLogger::~RecordingLogger() {
    QtAppDefaultLogger::setInstance(m_previous);
}

QStringList RecordingLogger::lines() const {
    QMutexLocker lock(&m_sink->mutex);
    return m_sink->lines;
}

void RecordingLogger::clear() {
    QMutexLocker lock(&m_sink->mutex);
    m_sink->lines.clear();
}
