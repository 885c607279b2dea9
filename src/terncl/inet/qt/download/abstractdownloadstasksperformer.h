#pragma once

#include <terncl/core/qtrunningobject.h>

// A piece of the application that works on downloads in the background (checking, moving,
// scheduling) and reports through running(bool) whether it is busy. Lives in the main thread.
class TERNCL_EXPORT AbstractDownloadsTasksPerformer : public QtRunningObject {
    Q_OBJECT

public:
    explicit AbstractDownloadsTasksPerformer(QObject* parent = nullptr);
    ~AbstractDownloadsTasksPerformer() override;
};
