#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/core/qtabstractcomplexmodule.h>
#include <terncl/core/thirdpartylibinfo.h>
#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>
#include <terncl/inet/qt/download/abstractdownloadtype.h>

#include <QByteArray>
#include <QList>
#include <QSharedPointer>
#include <QString>
#include <QUrl>
#include <QVariant>
#include <QWeakPointer>

class AbstractDownload;
class AbstractDownloadsSimpleFactory;
class AbstractNetworkAccessChief;
class QtAppSystemDefaultUserAgentManager;
class QtAppSystemDefaultWebBrowserManager;
class QtCloneableObject;
class QtDenoManager;
class QtFfmpegAvMerger;
class QtFfmpegManager;
class QtPythonManager;
// The application's keeper of short aliases for blob: addresses; the library only hands it on.
class AbstractShortBlobUrlsManager;

// A module that supports a family of download sources (a site, a protocol, a playlist format):
// it tells which downloads and addresses it can take and makes the downloads of its kind. The
// application hands it the shared services before initializing it. Lives on the main thread,
// like the downloads it makes.
class TERNCL_EXPORT AbstractDownloadModule : public QtAbstractComplexModule {
    Q_OBJECT

public:
    // Code of the "GenericError" of createDownload on a module that makes no downloads.
    static constexpr int NoDownloadsErrorCode = 1;

    // How the application may use the module; the user changes it in the settings.
    struct UsageSettings {
        bool enabled = true;
        qint32 maxSimultaneousDownloads = 0; // 0: no limit of the module's own
    };

    explicit AbstractDownloadModule(QObject* parent = nullptr);
    ~AbstractDownloadModule() override;

    // The unique id under which the keeper holds the module; stored in records as moduleName.
    virtual QString uid() const = 0;
    // The uids of the modules this one needs.
    virtual QList<QString> dependsByModules() const;
    virtual QVariant getCustomInfo(const QString& name) const;
    virtual void setCustomOption(const QString& name, const QVariant& value);
    // A cheap first look: the download may be of this module's kind.
    virtual bool isPossiblySupportedSource(const AbstractDownload* download) const = 0;
    // The download is of this module's kind.
    virtual bool supportedSource(const AbstractDownload* download) const = 0;
    // Modules of higher priority are asked first.
    virtual int supportedSourceCheckPriority() const;
    // Unknown for an address the module does not take.
    virtual AbstractDownloadType sourceType(const QUrl& url) const = 0;
    virtual QString sourceDescription(const QUrl& url) const;
    // Whether the module takes the address even where the application's rules would hand it to
    // another downloader (a plain file link the module knows better how to fetch).
    virtual bool overrideUrlPolicy(const QUrl& url) const;
    // Reloads what the module reads at initialization (parsing rules, scripts).
    virtual void reload();
    virtual QByteArray state() const;
    virtual QList<ThirdPartyLibInfo> thirdPartyLibsInfos() const;
    virtual UsageSettings usageSettings() const;
    // A download of this module's kind with the given id, set up from info and then from
    // initData (AbstractDownload::setInitData). On failure returns null and sets error; the
    // default makes none.
    virtual QSharedPointer<AbstractDownload>
    createDownload(qint64 id, const AbstractDownloadPersistentInfo& info, const QVariant& initData,
                   AbstractError& error);

    // Shared services, set by the application before initialization.
    virtual void setApp(const QWeakPointer<QtCloneableObject>& app);
    virtual void setNac(const QSharedPointer<AbstractNetworkAccessChief>& nac);
    virtual void setDownloadsFactory(const QWeakPointer<AbstractDownloadsSimpleFactory>& factory);
    virtual void setFfmpegManager(const QSharedPointer<QtFfmpegManager>& manager);
    virtual void setAvMerger(const QSharedPointer<QtFfmpegAvMerger>& merger);
    virtual void setPythonManager(const QWeakPointer<QtPythonManager>& manager);
    virtual void setDenoManager(const QWeakPointer<QtDenoManager>& manager);
    virtual void
    setShortBlobUrlsManager(const QSharedPointer<AbstractShortBlobUrlsManager>& manager);
    virtual void
    setSystemDefaultUserAgent(const QSharedPointer<QtAppSystemDefaultUserAgentManager>& manager);
    virtual void
    setSystemDefaultWebBrowser(const QSharedPointer<QtAppSystemDefaultWebBrowserManager>& manager);

Q_SIGNALS:
    void stateChanged();
    void customInfoChanged(const QString& name);

protected:
    QWeakPointer<QtCloneableObject> app() const { return m_app; }
    QSharedPointer<AbstractNetworkAccessChief> nac() const { return m_nac; }
    QWeakPointer<AbstractDownloadsSimpleFactory> downloadsFactory() const { return m_factory; }
    QSharedPointer<QtFfmpegManager> ffmpegManager() const { return m_ffmpegManager; }
    QSharedPointer<QtFfmpegAvMerger> avMerger() const { return m_avMerger; }
    QWeakPointer<QtPythonManager> pythonManager() const { return m_pythonManager; }
    QWeakPointer<QtDenoManager> denoManager() const { return m_denoManager; }
    QSharedPointer<AbstractShortBlobUrlsManager> shortBlobUrlsManager() const {
        return m_shortBlobUrlsManager;
    }
    QSharedPointer<QtAppSystemDefaultUserAgentManager> systemDefaultUserAgent() const {
        return m_userAgent;
    }
    QSharedPointer<QtAppSystemDefaultWebBrowserManager> systemDefaultWebBrowser() const {
        return m_webBrowser;
    }

private:
    QWeakPointer<QtCloneableObject> m_app;
    QSharedPointer<AbstractNetworkAccessChief> m_nac;
    QWeakPointer<AbstractDownloadsSimpleFactory> m_factory;
    QSharedPointer<QtFfmpegManager> m_ffmpegManager;
    QSharedPointer<QtFfmpegAvMerger> m_avMerger;
    QWeakPointer<QtPythonManager> m_pythonManager;
    QWeakPointer<QtDenoManager> m_denoManager;
    QSharedPointer<AbstractShortBlobUrlsManager> m_shortBlobUrlsManager;
    QSharedPointer<QtAppSystemDefaultUserAgentManager> m_userAgent;
    QSharedPointer<QtAppSystemDefaultWebBrowserManager> m_webBrowser;
};

Q_DECLARE_METATYPE(AbstractDownloadModule::UsageSettings)
