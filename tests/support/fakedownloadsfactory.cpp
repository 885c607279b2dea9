#include "fakedownloadsfactory.h"

QList<QSharedPointer<FakeDownload>> FakeDownloadsFactory::aliveDownloads() const {
    QList<QSharedPointer<FakeDownload>> alive;
    for (const auto& weak : m_made) {
        if (auto download = weak.toStrongRef())
            alive.append(download);
    }
    return alive;
}

QSharedPointer<FakeDownload> FakeDownloadsFactory::lastDownload() const {
    return m_made.isEmpty() ? nullptr : m_made.last().toStrongRef();
}

QSharedPointer<AbstractDownload> FakeDownloadsFactory::create(const Request& request,
                                                              AbstractError& error) {
    m_requests.append(request);
    if (m_failure.isSet()) {
        error = m_failure;
        return {};
    }
    const qint64 id = m_nextId++;
    auto download = m_maker ? m_maker(id, request) : QSharedPointer<FakeDownload>::create(id);
    download->setInfo(request.info);
    if (request.initData.isValid())
        download->setInitData(request.initData);
    if (m_configurator)
        m_configurator(*download, request);
    m_made.append(download);
    error = {};
    return download;
}
