#pragma once

#include <QMetaType>
#include <QString>
#include <QVariantMap>

// Names one optional dependency of the application (a program, a package, a module). Only the
// dependency managers that the application supplies interpret it.
struct DependencyInfo {
    // What the dependency is, in the terms of the manager that knows it.
    QString name;
    // The version wanted; empty for any.
    QString version;
    // Whatever else that manager needs.
    QVariantMap properties;
};

Q_DECLARE_METATYPE(DependencyInfo)
