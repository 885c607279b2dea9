#pragma once

#include <terncl/core/qtrunningobject.h>

#include <QList>
#include <QPointer>

// Runs exactly while at least one of its live children runs. Children are guarded pointers:
// a destroyed child leaves a null entry that every walk skips.
class TERNCL_EXPORT QtCompositeRunningObject : public QtRunningObject {
    Q_OBJECT

public:
    explicit QtCompositeRunningObject(QObject* parent = nullptr);

protected:
    // Appends without a duplicate check; a running child sets this object running at once,
    // an idle one changes nothing.
    void addRunningObject(QPointer<QtRunningObject> child);
    // Removes the last entry for child and breaks its connections; re-evaluates only when
    // the child runs at that moment.
    void removeRunningObject(QPointer<QtRunningObject> child);

private Q_SLOTS:
    void updateRunningState();

private:
    QList<QPointer<QtRunningObject>> m_children;
};
