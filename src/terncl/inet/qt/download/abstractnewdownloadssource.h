#pragma once

#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>

#include <QList>
#include <QObject>

// A source of further downloads that a download found (the other pages of a gallery, the
// next items of a playlist). The user calls retrieveMoreDownloads(), waits for
// finishedRetrievingMoreDownloads() and takes what was found. Main thread.
class TERNCL_EXPORT AbstractNewDownloadsSource : public QObject {
    Q_OBJECT

public:
    // The records of the downloads the source found.
    struct Downloads {
        QList<AbstractDownloadPersistentInfo> infos;
    };

    explicit AbstractNewDownloadsSource(QObject* parent = nullptr);
    ~AbstractNewDownloadsSource() override;

Q_SIGNALS:
    void finishedRetrievingMoreDownloads();

public Q_SLOTS:
    virtual void retrieveMoreDownloads() = 0;

public:
    // Whether retrieveMoreDownloads() may find more than was taken so far.
    virtual bool hasMoreDownloads() const = 0;
    // The downloads found since the last call; the source forgets them.
    virtual Downloads takeRetrievedDownloads() = 0;
};

Q_DECLARE_METATYPE(AbstractNewDownloadsSource::Downloads)
