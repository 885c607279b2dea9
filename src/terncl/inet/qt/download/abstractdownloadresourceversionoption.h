#pragma once

#include <QtGlobal>

// Download options (single bits of the options store of AbstractDownload) that steer the default
// choice among the versions of a resource; AbstractDownload::chooseDefaultResourceVersion reads
// them. A missing option means "no preference".
//
// The library reserves bits 48 to 55 for these options: an application that defines options of
// its own must use other bits.
enum AbstractDownloadResourceVersionOption : quint64 {
    // An AbstractFileType (or its int value): Video, Audio, or anything else for no preference.
    PreferredResourceFileType = quint64(1) << 48,
    // An int: the highest wanted video height in pixels; 0 or less for no limit.
    MaxResourceVideoHeight = quint64(1) << 49,
    // A QString: the wanted container format, such as "mp4".
    PreferredResourceFormat = quint64(1) << 50,
    // A QString: the wanted language, such as "en" or "en-US".
    PreferredResourceLanguage = quint64(1) << 51,
};
