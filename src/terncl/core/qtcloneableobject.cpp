#include "qtcloneableobject.h"

QtCloneableObject::QtCloneableObject(QObject* parent)
    : QObject(parent) {}
