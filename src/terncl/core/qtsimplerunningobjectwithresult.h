#pragma once

#include <terncl/core/qtrunningobjectwithresult.h>

// The base of the application's simple jobs: start one run, or abort the run in progress.
// The library never calls these itself.
class TERNCL_EXPORT QtSimpleRunningObjectWithResult : public QtRunningObjectWithResult {
    Q_OBJECT

public:
    explicit QtSimpleRunningObjectWithResult(QObject* parent = nullptr);

    virtual void run() = 0;
    virtual void abort() = 0;
};
