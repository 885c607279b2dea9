#pragma once

#include "fakedownload.h"

#include <terncl/inet/qt/download/abstractdownloadssimplefactory.h>

#include <QList>
#include <QSharedPointer>
#include <QWeakPointer>

#include <functional>

// A downloads factory that makes FakeDownloads (or whatever the test's maker returns), gives
// them increasing ids, records every request and can be told to fail.
class FakeDownloadsFactory : public AbstractDownloadsSimpleFactory {
    Q_OBJECT

public:
    struct Request {
        QString moduleName; // empty for createDownload
        AbstractDownloadPersistentInfo info;
        QVariant initData;
    };

    // Makes the download for a request; the factory then applies the record and init data.
    using Maker = std::function<QSharedPointer<FakeDownload>(qint64 id, const Request& request)>;
    // Sets up each new download (for example its stop behaviour) before it is handed out.
    using Configurator = std::function<void(FakeDownload& download, const Request& request)>;

    explicit FakeDownloadsFactory(QObject* parent = nullptr)
        : AbstractDownloadsSimpleFactory(parent) {}

    QSharedPointer<AbstractDownload> createDownload(const AbstractDownloadPersistentInfo& info,
                                                    AbstractError& error) override {
        return create({QString(), info, QVariant()}, error);
    }
    QSharedPointer<AbstractDownload>
    createModuleDownload(const QString& moduleName, const AbstractDownloadPersistentInfo& info,
                         const QVariant& initData, AbstractError& error) override {
        return create({moduleName, info, initData}, error);
    }

    void setMaker(Maker maker) { m_maker = std::move(maker); }
    void setConfigurator(Configurator configurator) { m_configurator = std::move(configurator); }
    // Every request fails with error until it is set back to an error with code 0.
    void setFailure(const AbstractError& error) { m_failure = error; }

    QList<Request> requests() const { return m_requests; }
    // The downloads made so far that are still alive, oldest first.
    QList<QSharedPointer<FakeDownload>> aliveDownloads() const;
    QSharedPointer<FakeDownload> lastDownload() const;

private:
    QSharedPointer<AbstractDownload> create(const Request& request, AbstractError& error);

    Maker m_maker;
    Configurator m_configurator;
    AbstractError m_failure;
    qint64 m_nextId = 1;
    QList<Request> m_requests;
    QList<QWeakPointer<FakeDownload>> m_made;
};
