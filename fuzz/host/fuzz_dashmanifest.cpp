// Feeds arbitrary text to the DASH manifest reader as if fetched from an http URL, and lists
// what it reads as versions.
#include "dashmanifestreader.h"
#include "mediafuzzchecks.h"

#include <QByteArray>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray text(reinterpret_cast<const char*>(data), qsizetype(size));
    const QUrl base(QStringLiteral("https://host/path/manifest.mpd"));
    AbstractError error;
    const auto manifest = DashManifestReader::parse(text, base, &error);
    if (error.isSet()) {
        checkError(error);
        check(manifest.representations.isEmpty());
        return 0;
    }
    qsizetype segments = 0;
    for (const auto& rep : manifest.representations) {
        checkSources(rep.segments);
        check(!rep.segments.isEmpty() && (!rep.singleFile || rep.segments.size() == 1));
        segments += rep.segments.size();
    }
    check(segments <= DashManifestReader::MaxSegments);
    checkListing(MediaVersions::fromDash(manifest, base));
    return 0;
}
