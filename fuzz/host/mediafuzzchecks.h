#pragma once

// What every media parser fuzzer checks of a result: only http and https addresses leave a
// parser, a failure leaves nothing behind, and a listing names its versions uniquely.
#include "mediaparse.h"
#include "mediaversions.h"

#include <QSet>

#include <cstdlib>

inline void check(bool condition) {
    if (!condition)
        std::abort();
}

inline void checkUrl(const QUrl& url) {
    check(MediaParse::isAllowedUrl(url));
}

inline void checkSources(const QList<AbstractDownloadSourceInfo>& sources) {
    for (const auto& source : sources) {
        checkUrl(source.url);
        check(source.rangeOffset >= 0 && source.rangeSize >= -1);
    }
}

inline void checkListing(const MediaVersions::Listing& listing) {
    QSet<QString> ids;
    for (const auto& version : listing.versions) {
        const QString id = MediaVersions::id(version).toLower();
        check(!id.isEmpty() && !ids.contains(id));
        ids.insert(id);
        checkSources(MediaVersions::sources(version));
        for (const auto& part : version.parts) {
            checkUrl(part.url);
            checkSources(MediaVersions::sources(part));
        }
        (void)MediaVersions::sizeOf(version);
    }
}

inline void checkError(const AbstractError& error) {
    check(error.category == AbstractError::GenericError);
    check(!error.description.empty() && error.description.size() < 2000);
}
