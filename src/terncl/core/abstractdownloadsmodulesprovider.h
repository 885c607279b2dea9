#pragma once

#include <terncl/ternclshared_export.h>

#include <QList>
#include <QSharedPointer>

class AbstractDownloadModule;

// Whatever supplies download modules: the application's built-in set, a plugin folder.
class TERNCL_EXPORT AbstractDownloadsModulesProvider {
public:
    virtual ~AbstractDownloadsModulesProvider();

    // New modules, not yet initialized, owned by the caller.
    virtual QList<QSharedPointer<AbstractDownloadModule>> modules() = 0;
};
