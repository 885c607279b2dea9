#include "qtstringlist.h"

#include <QSet>

namespace {
// Strings of from that are not in other, each once, in the order of from.
QStringList missingFrom(const QStringList& from, const QSet<QString>& other) {
    QStringList result;
    QSet<QString> seen;
    for (const auto& item : from) {
        if (!other.contains(item) && !seen.contains(item)) {
            seen.insert(item);
            result.append(item);
        }
    }
    return result;
}

QSet<QString> toSet(const QStringList& list) {
    return QSet<QString>(list.cbegin(), list.cend());
}
} // namespace

QtStringList::QtStringList(const QStringList& list, QObject* parent)
    : QObject(parent)
    , m_list(list) {}

QStringList QtStringList::list() const {
    return m_list;
}

void QtStringList::set(const QStringList& list) {
    const auto added = missingFrom(list, toSet(m_list));
    const auto removed = missingFrom(m_list, toSet(list));
    m_list = list;
    if (!added.isEmpty() || !removed.isEmpty())
        Q_EMIT changed(added, removed);
}

void QtStringList::reset(const QStringList& list) {
    m_list = list;
    Q_EMIT wasReset();
}
