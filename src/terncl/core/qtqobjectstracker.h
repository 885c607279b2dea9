#pragma once

#include <terncl/ternclshared_export.h>

#include <QHash>
#include <QMutex>
#include <QObject>
#include <QSharedPointer>
#include <QWeakPointer>

// A leak detector: objects register with the process-wide tracker when they are made, leave it
// when they are destroyed, and at shutdown verifyNoObjectsLeft() reports by type those that
// never went away. Usable from any thread; removals run in the thread that destroys the object.
class TERNCL_EXPORT QtQObjectsTracker : public QObject {
    Q_OBJECT

public:
    explicit QtQObjectsTracker(QObject* parent = nullptr);
    ~QtQObjectsTracker() override;

    // typeName must outlive the registration (a string literal). A null object is ignored.
    void registerObject(QObject* object, const char* typeName);
    // Logs a warning and one line per type for every registered object still alive.
    void verifyNoObjectsLeft();
    int monitoredObjectsCount() const;

    // The process-wide tracker, or null when none is set or it is gone.
    static QSharedPointer<QtQObjectsTracker> instance();
    static void setInstance(const QWeakPointer<QtQObjectsTracker>& tracker);

private Q_SLOTS:
    void onQObjectDestroyed(QObject* object);

private:
    mutable QMutex m_mutex;
    QHash<QObject*, const char*> m_monitoredObjects;
};
