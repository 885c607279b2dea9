#pragma once

#include "mediaparse.h"

#include <terncl/core/abstracterror.h>

#include <QByteArray>
#include <QList>
#include <QString>
#include <QUrl>

// Finds the media a web page links to: <video src>, <audio src>, <source src type>, the
// og:video meta tags (og:video, og:video:url, og:video:secure_url) and <a href> links whose path
// ends in .m3u8, .mpd, .mp4, .webm, .m4a or .mkv. Addresses resolve against the page's URL and
// its <base href>; only http and https are kept, and refused links are counted, not reported.
// The page is read with libxml2's forgiving HTML parser without network access and without
// printing its complaints: broken markup is recovered, never an error. A page with nothing to
// offer is the error "no media found on the page".
class HtmlMediaPageReader {
public:
    enum class LinkKind {
        HlsPlaylist,  // fetch it and read it with HlsPlaylistReader
        DashManifest, // fetch it and read it with DashManifestReader
        MediaFile,    // a file fetched as it is
    };

    struct Link {
        QUrl url;
        LinkKind kind = LinkKind::MediaFile;
        QString mimeType; // the type the page gives, without parameters; empty when none
        // Media files: the container as the URL's suffix or the type tell it ("mp4", "webm",
        // "m4a", "mkv", ...); empty when neither does.
        QString format;
    };

    struct Page {
        QString title;        // the text of <title>, simplified
        QList<Link> links;    // in document order, each URL once
        int refusedLinks = 0; // media links whose URI is not http or https
    };

    // Reads html fetched from pageUrl. encoding is the charset the server named (such as
    // "windows-1252"); without one, text that is valid UTF-8 is read as UTF-8, anything else
    // as the page's own <meta charset> says. On failure (no media at all) returns the page with
    // no links and sets error (codes of MediaParse).
    static Page parse(const QByteArray& html, const QUrl& pageUrl, AbstractError* error,
                      const QByteArray& encoding = {});
};
