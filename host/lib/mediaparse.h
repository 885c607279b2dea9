#pragma once

#include <terncl/core/abstracterror.h>

#include <QString>
#include <QUrl>

#include <optional>

// What the host's media parsers (HLS playlists, DASH manifests, web pages) share: the codes of
// their errors and the one rule for every URI they take from what they read. A parser only
// ever hands out http and https addresses, so that nothing a server writes into a playlist,
// manifest or page can make the host read a local file or speak another protocol.
namespace MediaParse {

// Codes of the "GenericError" values the parsers return.
enum ErrorCode : int {
    Malformed = 3,    // the text breaks the format; the description names the line
    Unsupported = 8,  // a valid stream the host cannot fetch (encrypted, live manifest)
    ForbiddenUri = 9, // a URI that does not resolve to http or https
    NoMedia = 10,     // a web page without any media link
};

// Resolves uri (as written in the text) against base. Succeeds only for an absolute http or
// https URL with a host; otherwise returns nothing and sets reason to a text that names the
// URI (shortened) and says why it was refused, and code to Malformed (not a URI) or
// ForbiddenUri. Only the URI is ever named, never anything it might point to.
std::optional<QUrl> resolveUri(const QUrl& base, const QString& uri, QString* reason,
                               ErrorCode* code = nullptr);

// Whether url is an http or https URL with a host.
bool isAllowedUrl(const QUrl& url);

// uri cut to a length that fits an error line.
QString shortened(const QString& uri);

// The "GenericError" of the given code carrying text; place is TERNCL_SOURCE_PLACE of the
// caller.
AbstractError error(ErrorCode code, const QString& text, std::string place);

} // namespace MediaParse
