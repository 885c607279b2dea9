#include "httpheaders.h"

namespace {
QByteArray withoutLineEnd(QByteArray line) {
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    return line;
}

bool isTokenChar(char c) {
    return c > 32 && c < 127 && c != ':';
}
} // namespace

HttpHeaders::Feed HttpHeaders::addLine(const QByteArray& rawLine) {
    const QByteArray line = withoutLineEnd(rawLine);
    if (line.startsWith("HTTP/")) {
        QByteArray version, reason;
        int status = 0;
        if (!parseStatusLine(line, &version, &status, &reason))
            return Feed::Malformed;
        *this = HttpHeaders();
        m_version = version;
        m_status = status;
        m_reason = reason;
        m_started = true;
        m_size = rawLine.size();
        return Feed::More;
    }
    if (!m_started || m_complete)
        return Feed::Malformed;
    m_size += rawLine.size();
    if (m_size > MaxSize)
        return Feed::TooLarge;
    if (line.isEmpty()) {
        m_complete = true;
        return Feed::Complete;
    }
    QByteArray name, value;
    if (line.front() == ' ' || line.front() == '\t') {
        // An obsolete folded continuation of the previous field.
        if (m_fields.isEmpty())
            return Feed::Malformed;
        m_fields.last().second += ' ' + line.trimmed();
        return Feed::More;
    }
    if (!parseField(line, &name, &value))
        return Feed::Malformed;
    m_fields.append({name, value});
    return Feed::More;
}

QByteArray HttpHeaders::value(const QByteArray& name) const {
    for (const auto& [fieldName, fieldValue] : m_fields) {
        if (fieldName.compare(name, Qt::CaseInsensitive) == 0)
            return fieldValue;
    }
    return {};
}

qint64 HttpHeaders::contentLength() const {
    return parseLength(value("Content-Length"));
}

// "HTTP/1.1 200 OK", "HTTP/2 206" (the reason is optional).
bool HttpHeaders::parseStatusLine(const QByteArray& line, QByteArray* version, int* status,
                                  QByteArray* reason) {
    if (!line.startsWith("HTTP/"))
        return false;
    const qsizetype space = line.indexOf(' ');
    if (space < 6)
        return false;
    const QByteArray code = line.mid(space + 1, 3);
    if (code.size() != 3 || (line.size() > space + 4 && line.at(space + 4) != ' '))
        return false;
    for (const char c : code) {
        if (c < '0' || c > '9')
            return false;
    }
    *version = line.mid(5, space - 5);
    *status = code.toInt();
    *reason = line.mid(space + 5).trimmed();
    return *status >= 100;
}

bool HttpHeaders::parseField(const QByteArray& line, QByteArray* name, QByteArray* value) {
    const qsizetype colon = line.indexOf(':');
    if (colon <= 0)
        return false;
    for (qsizetype i = 0; i < colon; ++i) {
        if (!isTokenChar(line.at(i)))
            return false;
    }
    *name = line.left(colon);
    *value = line.mid(colon + 1).trimmed();
    return true;
}

bool HttpHeaders::parseContentRange(const QByteArray& value, ContentRange* range) {
    const QByteArray text = value.trimmed();
    if (!text.startsWith("bytes "))
        return false;
    const qsizetype dash = text.indexOf('-', 6);
    const qsizetype slash = text.indexOf('/', 6);
    if (dash < 0 || slash < dash)
        return false;
    ContentRange parsed;
    parsed.first = parseLength(text.mid(6, dash - 6));
    parsed.last = parseLength(text.mid(dash + 1, slash - dash - 1));
    const QByteArray total = text.mid(slash + 1);
    parsed.total = total == "*" ? -1 : parseLength(total);
    if (parsed.first < 0 || parsed.last < parsed.first || (total != "*" && parsed.total < 0) ||
        (parsed.total >= 0 && parsed.last >= parsed.total))
        return false;
    *range = parsed;
    return true;
}

qint64 HttpHeaders::parseLength(const QByteArray& value) {
    if (value.isEmpty() || value.size() > 18)
        return -1;
    qint64 result = 0;
    for (const char c : value) {
        if (c < '0' || c > '9')
            return -1;
        result = result * 10 + (c - '0');
    }
    return result;
}
