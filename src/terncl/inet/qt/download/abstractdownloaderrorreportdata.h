#pragma once

#include <QJsonDocument>
#include <QMetaType>
#include <QString>

// What a download adds to an error report (AbstractDownload::errorReportData()).
struct AbstractDownloadErrorReportData {
    QString text;          // a readable account of what went wrong
    QJsonDocument details; // machine-readable details for the report

    bool isEmpty() const { return text.isEmpty() && details.isNull(); }
};

Q_DECLARE_METATYPE(AbstractDownloadErrorReportData)
