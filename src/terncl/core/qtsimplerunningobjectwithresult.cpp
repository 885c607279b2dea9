#include "qtsimplerunningobjectwithresult.h"

QtSimpleRunningObjectWithResult::QtSimpleRunningObjectWithResult(QObject* parent)
    : QtRunningObjectWithResult(parent) {}
