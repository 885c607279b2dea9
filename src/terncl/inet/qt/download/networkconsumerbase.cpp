// Constructors of the network coordination interfaces and their meta-type registration.
#include "abstractnetworkaccesschief.h"
#include "abstractnetworkconsumer.h"
#include "abstractnetworkconsumerwithextratasks.h"
#include "qtabstractknownsslhostskeeper.h"
#include "qtabstractnetworkpasswordskeeper.h"
#include "qtabstractsslcertificateskeeper.h"
#include "qtabstracttwowaynetworkauthrequestor.h"
#include "qtappsystemdefaultuseragentmanager.h"
#include "qtappsystemdefaultwebbrowsermanager.h"
#include "qtnetworkproxyfactory.h"

#include <QCoreApplication>

AbstractNetworkConsumer::AbstractNetworkConsumer(QObject* parent)
    : QtObj(parent) {}

AbstractNetworkConsumerWithExtraTasks::AbstractNetworkConsumerWithExtraTasks(QObject* parent)
    : AbstractNetworkConsumer(parent) {}

bool QtNetworkAuthScope::operator<(const QtNetworkAuthScope& other) const {
    if (kind != other.kind)
        return kind < other.kind;
    if (url != other.url)
        return url < other.url;
    return realm < other.realm;
}

QtAbstractNetworkAuthRequestor::QtAbstractNetworkAuthRequestor(QObject* parent)
    : QObject(parent) {}

QtAbstractTwoWayNetworkAuthRequestor::QtAbstractTwoWayNetworkAuthRequestor(QObject* parent)
    : QtAbstractNetworkAuthRequestor(parent) {}

QtAbstractNetworkPasswordsKeeper::QtAbstractNetworkPasswordsKeeper(QObject* parent)
    : QObject(parent) {}

QtAbstractKnownSslHostsKeeper::QtAbstractKnownSslHostsKeeper(QObject* parent)
    : QObject(parent) {}

QtAbstractSslCertificatesKeeper::QtAbstractSslCertificatesKeeper(QObject* parent)
    : QObject(parent) {}

AbstractNetworkAccessChief::AbstractNetworkAccessChief(QObject* parent)
    : QObject(parent) {}

AbstractNetworkAccessChief::~AbstractNetworkAccessChief() = default;

QtNetworkProxyFactory::QtNetworkProxyFactory(QObject* parent)
    : QObject(parent) {}

QtAppSystemDefaultUserAgentManager::QtAppSystemDefaultUserAgentManager(QObject* parent)
    : QObject(parent) {}

QtAppSystemDefaultWebBrowserManager::QtAppSystemDefaultWebBrowserManager(QObject* parent)
    : QObject(parent) {}

namespace {
void registerNetworkMetaTypes() {
    qRegisterMetaType<QtHostAndPort>("QtHostAndPort");
    qRegisterMetaType<QtConnectionsMapEntry>("QtConnectionsMapEntry");
    qRegisterMetaType<QtConnectionsMap>("QtConnectionsMap");
    qRegisterMetaType<QtNetworkAuthScope>("QtNetworkAuthScope");
    qRegisterMetaType<QtNetworkAuthRecord>("QtNetworkAuthRecord");
    qRegisterMetaType<QtSslHostPublicKey>("QtSslHostPublicKey");
    qRegisterMetaType<QtSslHost>("QtSslHost");
    qRegisterMetaType<NetworkTrafficDirection>("NetworkTrafficDirection");
    qRegisterMetaType<NetworkUsageSettings>("NetworkUsageSettings");
    qRegisterMetaType<AbstractNetworkConsumerSettings>("AbstractNetworkConsumerSettings");
    qRegisterMetaType<bool*>("bool*");
}
} // namespace

Q_COREAPP_STARTUP_FUNCTION(registerNetworkMetaTypes)
