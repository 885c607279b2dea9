// Feeds arbitrary text to the HLS playlist reader as if fetched from an http URL, and lists
// what it reads as versions, applying a media playlist to the parts of the first version.
#include "hlsplaylistreader.h"
#include "mediafuzzchecks.h"

#include <QByteArray>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray text(reinterpret_cast<const char*>(data), qsizetype(size));
    const QUrl base(QStringLiteral("http://host/path/master.m3u8"));
    AbstractError error;
    const auto playlist = HlsPlaylistReader::parse(text, base, &error);
    if (error.isSet()) {
        checkError(error);
        check(playlist.segments.isEmpty() && playlist.variants.isEmpty());
        return 0;
    }
    checkSources(playlist.segments);
    for (const auto& variant : playlist.variants)
        checkUrl(variant.url);
    for (const auto& rendition : playlist.renditions)
        check(rendition.url.isEmpty() || MediaParse::isAllowedUrl(rendition.url));
    check(playlist.exactSize >= -1);
    auto listing = playlist.isMaster ? MediaVersions::fromHlsMaster(playlist, base)
                                     : MediaVersions::fromHlsMedia(playlist, base);
    checkListing(listing);
    if (!listing.versions.isEmpty() && !playlist.isMaster) {
        auto& first = listing.versions.first();
        for (int part = -1; part < first.parts.size(); ++part)
            MediaVersions::applyMediaPlaylist(&first, part, playlist);
        check(MediaVersions::sizeOf(first).bytes >= -1);
    }
    return 0;
}
