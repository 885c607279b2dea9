#pragma once

#include <QByteArray>
#include <QMetaType>
#include <QString>
#include <QUrl>

// Where a preview picture of a download (or of one of its files) can be had: at an address
// (a remote thumbnail or a local file) or as bytes already in memory. The user interface
// decodes it; the engine never handles images.
struct AbstractItemPreviewSource {
    int fileIndex = -1; // the file it shows; -1 for the download as a whole
    QUrl url;
    QByteArray data;
    QString mimeType;

    bool operator==(const AbstractItemPreviewSource& other) const {
        return fileIndex == other.fileIndex && url == other.url && data == other.data &&
               mimeType == other.mimeType;
    }
    bool operator!=(const AbstractItemPreviewSource& other) const { return !(*this == other); }
};

Q_DECLARE_METATYPE(AbstractItemPreviewSource)
