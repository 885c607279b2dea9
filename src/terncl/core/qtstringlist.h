#pragma once

#include <terncl/ternclshared_export.h>

#include <QObject>
#include <QStringList>

// An observable list of strings: tells its listeners which strings a replacement added and
// which it removed, so that views can update without diffing themselves. Lives on one thread.
class TERNCL_EXPORT QtStringList : public QObject {
    Q_OBJECT

public:
    explicit QtStringList(const QStringList& list = {}, QObject* parent = nullptr);

    QStringList list() const;

    // Replaces the list and emits changed() with the strings that appeared and disappeared.
    // Only membership counts: a reordering or a change in duplicates emits nothing.
    void set(const QStringList& list);
    // Replaces the list and emits wasReset(), for listeners that rebuild from scratch.
    void reset(const QStringList& list);

Q_SIGNALS:
    // Each list keeps the order in which its strings first appear, without duplicates.
    void changed(const QStringList& added, const QStringList& removed);
    void wasReset();

private:
    QStringList m_list;
};
