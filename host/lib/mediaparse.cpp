#include "mediaparse.h"

namespace MediaParse {

bool isAllowedUrl(const QUrl& url) {
    const QString scheme = url.scheme();
    return url.isValid() && !url.host().isEmpty() &&
           (scheme == QLatin1String("http") || scheme == QLatin1String("https"));
}

QString shortened(const QString& uri) {
    constexpr int maxLength = 200;
    return uri.size() <= maxLength ? uri : uri.left(maxLength) + QStringLiteral("...");
}

std::optional<QUrl> resolveUri(const QUrl& base, const QString& uri, QString* reason,
                               ErrorCode* code) {
    const auto refuse = [&](const QString& why, ErrorCode whyCode = ForbiddenUri) {
        if (reason)
            *reason = QStringLiteral("%1: %2").arg(why, shortened(uri));
        if (code)
            *code = whyCode;
        return std::optional<QUrl>();
    };
    // Control characters, blanks and undecodable bytes mean the text is not a URI.
    for (const QChar c : uri) {
        if (c.unicode() <= 0x20 || c.unicode() == 0x7f || c == QChar::ReplacementCharacter)
            return refuse(QStringLiteral("invalid URI"), Malformed);
    }
    const QUrl relative(uri, QUrl::StrictMode);
    if (uri.isEmpty() || !relative.isValid())
        return refuse(QStringLiteral("invalid URI"), Malformed);
    if (relative.isRelative() && !isAllowedUrl(base))
        return refuse(QStringLiteral("relative URI against a base that is not http or https"));
    const QUrl url = base.resolved(relative);
    if (!isAllowedUrl(url))
        return refuse(QStringLiteral("URI refused (only http and https are allowed)"));
    return url;
}

AbstractError error(ErrorCode code, const QString& text, std::string place) {
    return AbstractError(code, AbstractError::GenericError, std::move(place), text.toStdString());
}

} // namespace MediaParse
