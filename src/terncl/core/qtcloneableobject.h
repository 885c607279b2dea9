#pragma once

#include <terncl/ternclshared_export.h>

#include <QObject>

// The application object that modules receive. The library only hands it on.
class TERNCL_EXPORT QtCloneableObject : public QObject {
    Q_OBJECT

public:
    explicit QtCloneableObject(QObject* parent = nullptr);

    // A new object of the same kind and state, owned by parent.
    virtual QtCloneableObject* clone(QObject* parent) const = 0;
};
