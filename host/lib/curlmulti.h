#pragma once

#include <QElapsedTimer>
#include <QNetworkProxy>
#include <QObject>
#include <QSet>
#include <QTimer>

#include <curl/curl.h>

#include <unordered_map>

class CurlTransfer;
class QSocketNotifier;

// One libcurl multi handle driven by the Qt event loop: libcurl names the sockets it waits on
// and the time-out it needs, and socket notifiers and a single-shot timer call it back, so no
// thread of its own is needed. Transfers added to one multi share its connection cache, its
// DNS cache and its HTTP/2 connections. Lives on the thread that created it, like its transfers.
class CurlMulti final : public QObject {
    Q_OBJECT

public:
    explicit CurlMulti(QObject* parent = nullptr);
    ~CurlMulti() override;

    // For transfers. libcurl refuses changes to its list of transfers while it runs a callback,
    // so changes asked for from inside one are made as soon as it returns.
    void add(CurlTransfer* transfer);
    void remove(CurlTransfer* transfer);
    void unpause(CurlTransfer* transfer);
    // QNetworkProxy::applicationProxy(), asked again at most once a second: with the system's
    // proxy configuration every answer is a round trip to a resolver thread of Qt's, too much for
    // each segment of a stream. A change of the proxy reaches new transfers within that second.
    QNetworkProxy applicationProxy();

private:
    struct Watch {
        QSocketNotifier* read = nullptr;
        QSocketNotifier* write = nullptr;
    };

    static int onSocket(CURL* easy, curl_socket_t socket, int what, void* self, void*);
    static int onTimer(CURLM* multi, long timeoutMs, void* self);
    void watch(curl_socket_t socket, int what);
    void unwatch(curl_socket_t socket);
    void act(curl_socket_t socket, int events);
    void collectFinished();
    void applyPending();

    CURLM* m_multi;
    QTimer m_timer;
    std::unordered_map<curl_socket_t, Watch> m_watches;
    QSet<CurlTransfer*> m_transfers;
    QList<CurlTransfer*> m_pendingAdds;
    QList<CURL*> m_pendingRemovals;
    bool m_acting = false;
    QNetworkProxy m_applicationProxy;
    QElapsedTimer m_applicationProxyAge;
};
