#include "abstractdownloadmodule.h"

#include "sourceplace.h"

#include <terncl/inet/qt/download/abstractdownload.h>

AbstractDownloadModule::AbstractDownloadModule(QObject* parent)
    : QtAbstractComplexModule(parent) {}

AbstractDownloadModule::~AbstractDownloadModule() = default;

QList<QString> AbstractDownloadModule::dependsByModules() const {
    return {};
}

QVariant AbstractDownloadModule::getCustomInfo(const QString&) const {
    return {};
}

void AbstractDownloadModule::setCustomOption(const QString&, const QVariant&) {}

int AbstractDownloadModule::supportedSourceCheckPriority() const {
    return 0;
}

QString AbstractDownloadModule::sourceDescription(const QUrl&) const {
    return {};
}

bool AbstractDownloadModule::overrideUrlPolicy(const QUrl&) const {
    return false;
}

void AbstractDownloadModule::reload() {}

QByteArray AbstractDownloadModule::state() const {
    return {};
}

QList<ThirdPartyLibInfo> AbstractDownloadModule::thirdPartyLibsInfos() const {
    return {};
}

AbstractDownloadModule::UsageSettings AbstractDownloadModule::usageSettings() const {
    return {};
}

QSharedPointer<AbstractDownload>
AbstractDownloadModule::createDownload(qint64, const AbstractDownloadPersistentInfo&,
                                       const QVariant&, AbstractError& error) {
    error = AbstractError(NoDownloadsErrorCode, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                          tr("The module \"%1\" makes no downloads").arg(uid()).toStdString());
    return {};
}

void AbstractDownloadModule::setApp(const QWeakPointer<QtCloneableObject>& app) {
    m_app = app;
}

void AbstractDownloadModule::setNac(const QSharedPointer<AbstractNetworkAccessChief>& nac) {
    m_nac = nac;
}

void AbstractDownloadModule::setDownloadsFactory(
    const QWeakPointer<AbstractDownloadsSimpleFactory>& factory) {
    m_factory = factory;
}

void AbstractDownloadModule::setFfmpegManager(const QSharedPointer<QtFfmpegManager>& manager) {
    m_ffmpegManager = manager;
}

void AbstractDownloadModule::setAvMerger(const QSharedPointer<QtFfmpegAvMerger>& merger) {
    m_avMerger = merger;
}

void AbstractDownloadModule::setPythonManager(const QWeakPointer<QtPythonManager>& manager) {
    m_pythonManager = manager;
}

void AbstractDownloadModule::setDenoManager(const QWeakPointer<QtDenoManager>& manager) {
    m_denoManager = manager;
}

void AbstractDownloadModule::setShortBlobUrlsManager(
    const QSharedPointer<AbstractShortBlobUrlsManager>& manager) {
    m_shortBlobUrlsManager = manager;
}

void AbstractDownloadModule::setSystemDefaultUserAgent(
    const QSharedPointer<QtAppSystemDefaultUserAgentManager>& manager) {
    m_userAgent = manager;
}

void AbstractDownloadModule::setSystemDefaultWebBrowser(
    const QSharedPointer<QtAppSystemDefaultWebBrowserManager>& manager) {
    m_webBrowser = manager;
}
