#include "abstractdownloadsmoduleskeeper.h"

#include "abstractdownloadsmodulesprovider.h"
#include "qtappdefaultlogger.h"
#include "sourceplace.h"

#include <QMutexLocker>

#include <algorithm>

AbstractDownloadsModulesProvider::~AbstractDownloadsModulesProvider() = default;

AbstractDownloadsModulesKeeper::AbstractDownloadsModulesKeeper(QObject* parent)
    : QObject(parent) {}

AbstractDownloadsModulesKeeper::~AbstractDownloadsModulesKeeper() = default;

void AbstractDownloadsModulesKeeper::addModule(const ModulePtr& module) {
    if (!module)
        return;
    const QString uid = module->uid();
    ModulePtr replaced;
    {
        QMutexLocker lock(&m_mutex);
        if (m_modules.value(uid) == module)
            return;
        replaced = insertLocked(uid, module);
    }
    if (replaced)
        disconnect(replaced.data(), nullptr, this, nullptr);
    watch(uid, module);
}

void AbstractDownloadsModulesKeeper::addModules(AbstractDownloadsModulesProvider& provider) {
    for (const auto& module : provider.modules())
        addModule(module);
    onFinishedAddingModules();
}

void AbstractDownloadsModulesKeeper::onFinishedAddingModules() {
    QMutexLocker lock(&m_mutex);
    sortUidsLocked();
}

AbstractDownloadsModulesKeeper::ModulePtr
AbstractDownloadsModulesKeeper::module(const QString& uid) const {
    QMutexLocker lock(&m_mutex);
    return m_modules.value(uid);
}

bool AbstractDownloadsModulesKeeper::containsModule(const QString& uid) const {
    QMutexLocker lock(&m_mutex);
    return m_modules.contains(uid);
}

QList<QString> AbstractDownloadsModulesKeeper::modulesUids() const {
    QMutexLocker lock(&m_mutex);
    return m_uids;
}

void AbstractDownloadsModulesKeeper::unite(const AbstractDownloadsModulesKeeper* other) {
    if (!other || other == this)
        return;
    // The other keeper's lock is released before this one is taken, so that two keepers
    // uniting with each other from two threads cannot deadlock.
    const auto others = other->modulesSnapshot();
    QList<std::pair<QString, ModulePtr>> added;
    {
        QMutexLocker lock(&m_mutex);
        for (auto i = others.cbegin(); i != others.cend(); ++i) {
            if (!m_modules.contains(i.key())) {
                insertLocked(i.key(), i.value());
                added.append({i.key(), i.value()});
            }
        }
        sortUidsLocked();
    }
    for (const auto& [uid, module] : added)
        watch(uid, module);
}

void AbstractDownloadsModulesKeeper::subtract(const AbstractDownloadsModulesKeeper* other) {
    if (!other)
        return;
    const auto others = other == this ? modulesSnapshot() : other->modulesSnapshot();
    QList<ModulePtr> removed;
    bool passesEnded = false;
    {
        QMutexLocker lock(&m_mutex);
        const bool passesPending = !m_pendingPasses.isEmpty();
        for (auto i = others.cbegin(); i != others.cend(); ++i) {
            if (const auto module = m_modules.take(i.key())) {
                removed.append(module);
                m_failed.remove(i.key());
                m_pendingPasses.remove(i.key());
            }
        }
        passesEnded = passesPending && m_pendingPasses.isEmpty();
        sortUidsLocked();
    }
    for (const auto& module : std::as_const(removed))
        disconnect(module.data(), nullptr, this, nullptr);
    if (passesEnded)
        Q_EMIT modulesInitializeFinished(m_passInit);
}

void AbstractDownloadsModulesKeeper::initializeModules(bool init) {
    QList<ModulePtr> modules;
    {
        QMutexLocker lock(&m_mutex);
        modules = m_modules.values();
        const auto uids = m_modules.keys();
        m_pendingPasses = QSet<QString>(uids.cbegin(), uids.cend());
        m_passInit = init;
    }
    if (modules.isEmpty()) {
        Q_EMIT modulesInitializeFinished(init);
        return;
    }
    // Every pending pass is known before the first module can end its own.
    for (const auto& module : std::as_const(modules))
        module->initialize(init);
}

QHash<QString, AbstractError> AbstractDownloadsModulesKeeper::failedModules() const {
    QMutexLocker lock(&m_mutex);
    return m_failed;
}

AbstractDownloadsModulesKeeper::ModulePtr
AbstractDownloadsModulesKeeper::moduleForSource(const AbstractDownload* download) const {
    for (const auto& module : workingModulesInOrder()) {
        if (module->supportedSource(download))
            return module;
    }
    return {};
}

QString AbstractDownloadsModulesKeeper::moduleForUrl(const QUrl& url) const {
    for (const auto& module : workingModulesInOrder()) {
        if (module->sourceType(url) != AbstractDownloadType::Unknown)
            return module->uid();
    }
    return {};
}

QSharedPointer<AbstractDownload> AbstractDownloadsModulesKeeper::createDownload(
    const QString& uid, qint64 id, const AbstractDownloadPersistentInfo& info,
    const QVariant& initData, AbstractError& error) const {
    ModulePtr module;
    AbstractError failure;
    {
        QMutexLocker lock(&m_mutex);
        module = m_modules.value(uid);
        failure = m_failed.value(uid);
    }
    if (!module) {
        error =
            AbstractError(UnknownModuleErrorCode, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                          tr("There is no download module \"%1\"").arg(uid).toStdString());
        return {};
    }
    if (failure.isSet()) {
        error =
            AbstractError(FailedModuleErrorCode, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                          tr("The download module \"%1\" failed to initialize: %2")
                              .arg(uid, QString::fromStdString(failure.description))
                              .toStdString());
        return {};
    }
    return module->createDownload(id, info, initData, error);
}

AbstractDownloadsModulesKeeper::ModulePtr
AbstractDownloadsModulesKeeper::insertLocked(const QString& uid, const ModulePtr& module) {
    ModulePtr replaced = m_modules.value(uid);
    m_modules.insert(uid, module);
    m_failed.remove(uid);
    return replaced;
}

void AbstractDownloadsModulesKeeper::sortUidsLocked() {
    QList<std::pair<int, QString>> order;
    for (auto i = m_modules.cbegin(); i != m_modules.cend(); ++i)
        order.append({-i.value()->supportedSourceCheckPriority(), i.key()});
    std::sort(order.begin(), order.end());
    m_uids.clear();
    for (const auto& entry : std::as_const(order))
        m_uids.append(entry.second);
}

QHash<QString, AbstractDownloadsModulesKeeper::ModulePtr>
AbstractDownloadsModulesKeeper::modulesSnapshot() const {
    QMutexLocker lock(&m_mutex);
    return m_modules;
}

QList<AbstractDownloadsModulesKeeper::ModulePtr>
AbstractDownloadsModulesKeeper::workingModulesInOrder() const {
    QMutexLocker lock(&m_mutex);
    QList<ModulePtr> modules;
    for (const auto& uid : std::as_const(m_uids)) {
        const auto module = m_modules.value(uid);
        if (module && !m_failed.contains(uid))
            modules.append(module);
    }
    return modules;
}

void AbstractDownloadsModulesKeeper::watch(const QString& uid, const ModulePtr& module) {
    connect(module.data(), &QtAbstractModule::initializeRunning, this,
            [this, uid](bool running, bool initializing) {
                if (!running)
                    onModulePassEnded(uid, initializing);
            });
}

void AbstractDownloadsModulesKeeper::onModulePassEnded(const QString& uid, bool init) {
    const auto ended = module(uid);
    if (!ended)
        return;
    const bool failed = ended->initFailed(init);
    const AbstractError error = ended->error();
    bool allEnded = false;
    {
        QMutexLocker lock(&m_mutex);
        if (init && failed)
            m_failed.insert(uid, error);
        allEnded = m_pendingPasses.remove(uid) && m_pendingPasses.isEmpty();
    }
    if (failed) {
        terncl::logLine(
            QtAppLogger::Warning, QtAppLogger::General,
            QStringLiteral("[AbstractDownloadsModulesKeeper]: WARNING: the download "
                           "module \"%1\" failed to %2: %3")
                .arg(uid, init ? QStringLiteral("initialize") : QStringLiteral("de-initialize"),
                     error.toText()));
        Q_EMIT moduleInitializeFailed(uid, init, error);
    }
    if (allEnded)
        Q_EMIT modulesInitializeFinished(init);
}
