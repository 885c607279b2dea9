#pragma once

#include <QList>
#include <QMetaType>
#include <QString>

#include <utility>

// Ordered (name, value) pairs of settings.
using QtStringsPairVector = QList<std::pair<QString, QString>>;

Q_DECLARE_METATYPE(QtStringsPairVector)
