#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

// Reading the request logs that AbstractDownloadsNetworkRequestsLogger writes, for tests that
// cannot compare a whole file byte for byte (real servers send dates and varying headers).

// One "======= TITLE =======" section of a log: its title without the "=" frames and its
// lines.
struct RequestLogSection {
    QString title;
    QStringList lines;
};

// The paths of the "R_*.log" files in folder, in the order the logger numbered them.
QStringList requestLogFiles(const QString& folder);
// The sections of a log in file order. Lines end with "\r\n"; the empty line before a closing
// section belongs to no section. Header lines are read as Latin-1, the rest as UTF-8.
QList<RequestLogSection> parseRequestLog(const QByteArray& log);
