// Feeds arbitrary bytes to the response head reader line by line, as a server would send them,
// and each line to the Content-Range and length parsers. Whatever comes in, a head never grows
// past its cap, a parsed range is ordered and inside its total, and a length is never negative.
#include "httpheaders.h"

#include <QByteArray>
#include <QList>

#include <cstdlib>

namespace {
void check(bool condition) {
    if (!condition)
        std::abort();
}

void checkRange(const QByteArray& value) {
    HttpHeaders::ContentRange range;
    if (!HttpHeaders::parseContentRange(value, &range))
        return;
    check(range.first >= 0 && range.last >= range.first);
    check(range.total == -1 || range.last < range.total);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray input(reinterpret_cast<const char*>(data), qsizetype(size));
    HttpHeaders head;
    for (const QByteArray& line : input.split('\n')) {
        const HttpHeaders::Feed feed = head.addLine(line + '\n');
        check(feed != HttpHeaders::Feed::TooLarge || input.size() + 1 > HttpHeaders::MaxSize);
        if (feed == HttpHeaders::Feed::Complete)
            check(head.isComplete() && head.status() >= 100 && head.status() <= 999);
        checkRange(line);
        check(HttpHeaders::parseLength(line) >= -1);
    }
    checkRange(head.value("Content-Range"));
    check(head.contentLength() >= -1);
    return 0;
}
