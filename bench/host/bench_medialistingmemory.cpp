// Memory a DASH manifest of many segments costs once it is read, listed as versions, and its
// sources are handed to a download: a manifest of a few hundred bytes may name the reader's
// whole budget of segments.
// Run: bench_medialistingmemory [SEGMENTS=299000]
#include "dashmanifestreader.h"
#include "mediaversions.h"

#include <QByteArray>
#include <QUrl>

#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>

namespace {
long peakResidentMiB() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024;
}
} // namespace

int main(int argc, char** argv) {
    const long segments = argc > 1 ? std::atol(argv[1]) : 299000;
    const QByteArray manifest =
        "<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" type=\"static\">"
        "<Period><AdaptationSet mimeType=\"audio/mp4\"><Representation id=\"a\" bandwidth=\"1\">"
        "<SegmentTemplate media=\"chunk-$Number%05d$.m4s\" initialization=\"init.m4s\">"
        "<SegmentTimeline><S d=\"1\" r=\"" +
        QByteArray::number(qint64(segments - 1)) +
        "\"/></SegmentTimeline></SegmentTemplate></Representation></AdaptationSet></Period></MPD>";
    const QUrl base(QStringLiteral("https://host/path/manifest.mpd"));
    AbstractError error;
    const auto read = DashManifestReader::parse(manifest, base, &error);
    if (error.isSet()) {
        std::fprintf(stderr, "%s\n", error.description.c_str());
        return 1;
    }
    const long afterRead = peakResidentMiB();
    const auto listing = MediaVersions::fromDash(read, base);
    const long afterListing = peakResidentMiB();
    const auto sources = MediaVersions::sources(listing.versions.constFirst());
    std::printf("manifest %lld bytes, %lld sources: peak RSS %ld MiB after reading, %ld MiB "
                "after listing, %ld MiB with the sources taken out\n",
                qint64(manifest.size()), qint64(sources.size()), afterRead, afterListing,
                peakResidentMiB());
    return 0;
}
