#pragma once

#include <terncl/ternclshared_export.h>

#include <QObject>
#include <QSharedPointer>

class AbstractChildDownloadsManager;
class AbstractDownload;

// Hands each composite download that asks for one (isChildDownloadsManagerRequired) the child
// downloads manager of its own. Main thread.
class TERNCL_EXPORT AbstractChildDownloadsManagersChief : public QObject {
    Q_OBJECT

public:
    explicit AbstractChildDownloadsManagersChief(QObject* parent = nullptr);
    ~AbstractChildDownloadsManagersChief() override;

    virtual QSharedPointer<AbstractChildDownloadsManager>
    childDownloadsManager(AbstractDownload* parentDownload) = 0;
};
