// The floor under any downloader built on QNetworkAccessManager: the URLs of a list fetched one
// after another over one connection and appended to one file, with nothing else going on (no
// records, no writers thread, no progress). tern-get is compared against this and against curl.
//   bench_qnamsequential URL-LIST OUTPUT
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>

#include <cstdio>
#include <functional>

namespace {
QList<QUrl> readUrls(const QString& path) {
    QFile file(path);
    QList<QUrl> urls;
    if (!file.open(QIODevice::ReadOnly))
        return urls;
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (!line.trimmed().isEmpty())
            urls.append(QUrl(QString::fromUtf8(line.trimmed())));
    }
    return urls;
}
} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_qnamsequential URL-LIST OUTPUT\n");
        return 2;
    }
    const QList<QUrl> urls = readUrls(QString::fromLocal8Bit(argv[1]));
    QFile output(QString::fromLocal8Bit(argv[2]));
    if (urls.isEmpty() || !output.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        std::fprintf(stderr, "no URLs, or the output cannot be written\n");
        return 1;
    }
    QNetworkAccessManager network;
    QElapsedTimer clock;
    clock.start();
    qsizetype next = 0;
    int exitCode = 0;
    std::function<void()> fetchNext = [&] {
        if (next == urls.size()) {
            std::printf("%lld requests in %lld ms\n", qint64(urls.size()), clock.elapsed());
            app.exit(exitCode);
            return;
        }
        QNetworkReply* reply = network.get(QNetworkRequest(urls.at(next++)));
        QObject::connect(reply, &QNetworkReply::readyRead, reply,
                         [&output, reply] { output.write(reply->readAll()); });
        QObject::connect(reply, &QNetworkReply::finished, reply, [&, reply] {
            output.write(reply->readAll());
            reply->deleteLater();
            if (reply->error() != QNetworkReply::NoError) {
                std::fprintf(stderr, "%s\n", qPrintable(reply->errorString()));
                exitCode = 1;
                next = urls.size();
            }
            fetchNext();
        });
    };
    fetchNext();
    return app.exec();
}
