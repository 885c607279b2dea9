#pragma once

#include <terncl/inet/qt/download/abstractnetworkconsumersettings.h>
#include <terncl/inet/qt/download/networkusagesettings.h>
#include <terncl/ternclshared_export.h>

#include <QList>
#include <QNetworkCookie>
#include <QNetworkProxy>
#include <QObject>
#include <QSharedPointer>
#include <QSslError>
#include <QUrl>

class QAuthenticator;
class QNetworkAccessManager;
class QNetworkReply;
class QtNetworkProxyFactory;
class QtAbstractNetworkPasswordsKeeper;
class QtAbstractKnownSslHostsKeeper;
class QtAbstractSslCertificatesKeeper;

// The application's owner of network access. It announces what needs the user or the global
// settings: credentials, proxy credentials and TLS errors of replies, and settings changes.
class TERNCL_EXPORT AbstractNetworkAccessChief : public QObject {
    Q_OBJECT

public:
    explicit AbstractNetworkAccessChief(QObject* parent = nullptr);
    ~AbstractNetworkAccessChief() override;

    virtual NetworkUsageSettings networkUsageSettings() const = 0;
    virtual void setNetworkUsageSettings(const NetworkUsageSettings& settings) = 0;
    virtual AbstractNetworkConsumerSettings networkSettings() const = 0;
    virtual void setNetworkSettings(const AbstractNetworkConsumerSettings& settings) = 0;
    virtual QSharedPointer<QtNetworkProxyFactory> proxyFactory() const = 0;
    virtual void setProxyFactory(const QSharedPointer<QtNetworkProxyFactory>& factory) = 0;
    // A manager configured with the chief's proxy, cookies and TLS settings, owned by parent.
    virtual QNetworkAccessManager* createNetworkAccessManager(QObject* parent) = 0;
    // Watches a reply for credentials requests and TLS errors until it finishes.
    virtual void registerReply(QNetworkReply* reply) = 0;
    virtual void unregisterReply(QNetworkReply* reply) = 0;
    virtual QSharedPointer<QtAbstractNetworkPasswordsKeeper> passwordsKeeper() const = 0;
    virtual QSharedPointer<QtAbstractKnownSslHostsKeeper> knownSslHostsKeeper() const = 0;
    virtual QSharedPointer<QtAbstractSslCertificatesKeeper> sslCertificatesKeeper() const = 0;
    virtual QList<QNetworkCookie> cookies(const QUrl& url) const = 0;
    virtual void setCookies(const QList<QNetworkCookie>& cookies, const QUrl& url) = 0;

Q_SIGNALS:
    void authenticationRequired(QNetworkReply* reply, QAuthenticator* authenticator);
    void proxyAuthenticationRequired(const QNetworkProxy& proxy, QAuthenticator* authenticator);
    void sslErrors(QNetworkReply* reply, QList<QSslError> errors);
    void nusChanged();
    void proxySettingsChanged();
};
