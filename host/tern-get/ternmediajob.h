#pragma once

#include "mediaprobe.h"
#include "terngetjob.h"

#include <QObject>
#include <QSharedPointer>
#include <QTextStream>

// tern-get's media side: lists the versions of an HLS master, a DASH manifest or a web page
// (-F), or downloads the one that -f SPEC or the default choice names. Main thread.
class TernMediaJob : public QObject {
    Q_OBJECT

public:
    TernMediaJob(const TernGetJob::Options& options, QNetworkAccessManager* network,
                 QObject* parent = nullptr);
    ~TernMediaJob() override;

    void start();
    void interrupt();

Q_SIGNALS:
    void finished(int exitCode);

private:
    void onProbed(const AbstractError& error);
    void list();
    void fail(const QString& text, int exitCode = 1);
    void finish(int exitCode);

    TernGetJob::Options m_options;
    QNetworkAccessManager* m_network;
    MediaProbe* m_probe = nullptr;
    QTextStream m_out;
    QTextStream m_err;
    bool m_finished = false;
};
