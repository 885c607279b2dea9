#pragma once

#include <terncl/core/abstractdownloadmodule.h>
#include <terncl/core/abstracterror.h>
#include <terncl/ternclshared_export.h>

#include <QHash>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QSharedPointer>
#include <QString>

class AbstractDownloadsModulesProvider;

// The registry of download modules by uid. Used from several threads: every public operation
// takes the keeper's one mutex, and no module is called while it is held except for its uid and
// priority. A host's downloads factory makes "a download of module X" through createDownload,
// and finds the module for a record without one through moduleForUrl.
//
// initializeModules runs every module's pass independently: a module whose initialization
// fails is reported (one warning line and moduleInitializeFailed) and refused by createDownload
// and the lookups by source, while the other modules go on working.
class TERNCL_EXPORT AbstractDownloadsModulesKeeper : public QObject {
    Q_OBJECT

public:
    using ModulePtr = QSharedPointer<AbstractDownloadModule>;

    // Codes of the "GenericError" values of createDownload.
    enum ErrorCode : int {
        UnknownModuleErrorCode = 1,
        FailedModuleErrorCode = 2,
    };

    explicit AbstractDownloadsModulesKeeper(QObject* parent = nullptr);
    ~AbstractDownloadsModulesKeeper() override;

    // Holds the module under its uid, replacing one of the same uid. modulesUids() includes it
    // after onFinishedAddingModules().
    void addModule(const ModulePtr& module);
    // Adds every module of the provider, then onFinishedAddingModules().
    void addModules(AbstractDownloadsModulesProvider& provider);
    // Rebuilds the uid list in the order of trial: highest check priority first.
    void onFinishedAddingModules();
    ModulePtr module(const QString& uid) const;
    bool containsModule(const QString& uid) const;
    QList<QString> modulesUids() const;
    // Adds the other keeper's modules whose uids this one lacks.
    void unite(const AbstractDownloadsModulesKeeper* other);
    // Removes the modules whose uids the other keeper holds.
    void subtract(const AbstractDownloadsModulesKeeper* other);

    // Starts an initialize (init true) or de-initialize pass on every module;
    // modulesInitializeFinished(init) follows when all have ended.
    void initializeModules(bool init);
    // The modules whose last initialization failed, with their errors.
    QHash<QString, AbstractError> failedModules() const;

    // The first working module, in the order of trial, that supports the download; null if none.
    ModulePtr moduleForSource(const AbstractDownload* download) const;
    // The uid of the first working module, in the order of trial, that takes the address;
    // empty if none.
    QString moduleForUrl(const QUrl& url) const;
    // A download made by the module uid. An unknown or failed module gives null and an error
    // that says so; otherwise the module's own result.
    QSharedPointer<AbstractDownload> createDownload(const QString& uid, qint64 id,
                                                    const AbstractDownloadPersistentInfo& info,
                                                    const QVariant& initData,
                                                    AbstractError& error) const;

Q_SIGNALS:
    void moduleInitializeFailed(const QString& uid, bool init, const AbstractError& error);
    void modulesInitializeFinished(bool init);

private:
    // Holds the module; the caller holds the mutex. Returns the module it replaced, if any.
    ModulePtr insertLocked(const QString& uid, const ModulePtr& module);
    void sortUidsLocked();
    QHash<QString, ModulePtr> modulesSnapshot() const;
    QList<ModulePtr> workingModulesInOrder() const;
    void watch(const QString& uid, const ModulePtr& module);
    void onModulePassEnded(const QString& uid, bool init);

    mutable QMutex m_mutex;
    QHash<QString, ModulePtr> m_modules;
    QList<QString> m_uids;
    QHash<QString, AbstractError> m_failed;
    QSet<QString> m_pendingPasses;
    bool m_passInit = true;
};
