#pragma once

#include <QMetaType>
#include <QtGlobal>

// What to take over when a duplicate download is merged into an existing one
// (AbstractDownload::acquireDownloadsMergeOptions and the merge operations).
struct AbstractDownloadMergeOptions {
    enum Option : quint64 {
        AddSources = 0x1,        // the other's addresses become extra sources of this one
        UpdateRequestData = 0x2, // take the other's referrer and request data (fresh cookies)
        SelectFiles = 0x4,       // select the files the other one selected
    };

    quint64 options = 0;

    bool testOption(Option option) const { return (options & option) != 0; }

    bool operator==(const AbstractDownloadMergeOptions& other) const {
        return options == other.options;
    }
    bool operator!=(const AbstractDownloadMergeOptions& other) const { return !(*this == other); }
};

Q_DECLARE_METATYPE(AbstractDownloadMergeOptions)
