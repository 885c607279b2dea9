#include "curlmulti.h"

#include "curltransfer.h"

#include <QSocketNotifier>

#include <mutex>
#include <utility>

namespace {
void initialiseLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}
} // namespace

CurlMulti::CurlMulti(QObject* parent)
    : QObject(parent) {
    initialiseLibrary();
    m_multi = curl_multi_init();
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, &CurlMulti::onSocket);
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, &CurlMulti::onTimer);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERDATA, this);
    // Segments of one stream come from one server: several streams on one HTTP/2 connection
    // when it offers that, otherwise a handful of reused HTTP/1.1 connections.
    curl_multi_setopt(m_multi, CURLMOPT_PIPELINING, long(CURLPIPE_MULTIPLEX));
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, [this] { act(CURL_SOCKET_TIMEOUT, 0); });
}

CurlMulti::~CurlMulti() {
    for (CurlTransfer* transfer : std::as_const(m_transfers)) {
        curl_multi_remove_handle(m_multi, transfer->handle());
        transfer->detach();
    }
    for (auto& [socket, watch] : m_watches) {
        delete watch.read;
        delete watch.write;
    }
    curl_multi_cleanup(m_multi);
}

void CurlMulti::add(CurlTransfer* transfer) {
    m_transfers.insert(transfer);
    if (m_acting)
        m_pendingAdds.append(transfer);
    else
        curl_multi_add_handle(m_multi, transfer->handle());
}

void CurlMulti::remove(CurlTransfer* transfer) {
    if (!m_transfers.remove(transfer))
        return;
    if (m_pendingAdds.removeAll(transfer) > 0)
        return;
    if (m_acting)
        m_pendingRemovals.append(transfer->handle());
    else
        curl_multi_remove_handle(m_multi, transfer->handle());
}

void CurlMulti::unpause(CurlTransfer* transfer) {
    // Unpausing hands over the bytes libcurl kept at once, through the callbacks.
    const bool acting = std::exchange(m_acting, true);
    curl_easy_pause(transfer->handle(), CURLPAUSE_CONT);
    m_acting = acting;
    if (!acting)
        applyPending();
    m_timer.start(0);
}

QNetworkProxy CurlMulti::applicationProxy() {
    if (!m_applicationProxyAge.isValid() || m_applicationProxyAge.elapsed() >= 1000) {
        m_applicationProxy = QNetworkProxy::applicationProxy();
        m_applicationProxyAge.start();
    }
    return m_applicationProxy;
}

void CurlMulti::applyPending() {
    // A handle to remove is still alive: transfers are deleted later, never inside callbacks.
    for (CURL* handle : std::exchange(m_pendingRemovals, {}))
        curl_multi_remove_handle(m_multi, handle);
    for (CurlTransfer* transfer : std::exchange(m_pendingAdds, {}))
        curl_multi_add_handle(m_multi, transfer->handle());
}

int CurlMulti::onSocket(CURL*, curl_socket_t socket, int what, void* self, void*) {
    auto* multi = static_cast<CurlMulti*>(self);
    if (what == CURL_POLL_REMOVE)
        multi->unwatch(socket);
    else
        multi->watch(socket, what);
    return 0;
}

int CurlMulti::onTimer(CURLM*, long timeoutMs, void* self) {
    auto* multi = static_cast<CurlMulti*>(self);
    if (timeoutMs < 0)
        multi->m_timer.stop();
    else
        multi->m_timer.start(int(qMin<long>(timeoutMs, 24L * 3600 * 1000)));
    return 0;
}

void CurlMulti::watch(curl_socket_t socket, int what) {
    Watch& watch = m_watches[socket];
    const auto ensure = [this, socket](QSocketNotifier*& notifier, QSocketNotifier::Type type,
                                       int event, bool wanted) {
        if (!notifier && wanted) {
            notifier = new QSocketNotifier(socket, type, this);
            connect(notifier, &QSocketNotifier::activated, this,
                    [this, socket, event] { act(socket, event); });
        }
        if (notifier)
            notifier->setEnabled(wanted);
    };
    ensure(watch.read, QSocketNotifier::Read, CURL_CSELECT_IN,
           what == CURL_POLL_IN || what == CURL_POLL_INOUT);
    ensure(watch.write, QSocketNotifier::Write, CURL_CSELECT_OUT,
           what == CURL_POLL_OUT || what == CURL_POLL_INOUT);
}

// libcurl closes the socket after this, and the number may come back for a new connection at
// once: the notifiers are switched off now and deleted later, as one may be emitting right now.
void CurlMulti::unwatch(curl_socket_t socket) {
    const auto it = m_watches.find(socket);
    if (it == m_watches.end())
        return;
    for (QSocketNotifier* notifier : {it->second.read, it->second.write}) {
        if (!notifier)
            continue;
        notifier->setEnabled(false);
        notifier->disconnect(this);
        notifier->deleteLater();
    }
    m_watches.erase(it);
}

void CurlMulti::act(curl_socket_t socket, int events) {
    int running = 0;
    m_acting = true;
    curl_multi_socket_action(m_multi, socket, events, &running);
    m_acting = false;
    applyPending();
    collectFinished();
}

void CurlMulti::collectFinished() {
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(m_multi, &left)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        CurlTransfer* transfer = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
        const CURLcode code = message->data.result;
        // The message points into the handle, which the transfer may free when told.
        if (transfer && m_transfers.remove(transfer)) {
            curl_multi_remove_handle(m_multi, transfer->handle());
            transfer->onDone(code);
        }
    }
}
