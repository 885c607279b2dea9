#pragma once

#include <QByteArray>
#include <QList>
#include <QtGlobal>

#include <utility>

// The head of one HTTP response, read line by line as the transport hands it over: the status
// line, then header fields until the empty line. It never holds more than a fixed number of bytes,
// so a server that sends endless headers is caught early instead of eating memory and time.
// Pure functions and plain data, usable from any thread.
class HttpHeaders {
public:
    static constexpr qint64 MaxSize = 64 * 1024;

    enum class Feed { More, Complete, Malformed, TooLarge };

    // The first byte and total size of a "bytes a-b/total" Content-Range; total is -1 for "*".
    struct ContentRange {
        qint64 first = -1;
        qint64 last = -1;
        qint64 total = -1;
    };

    // Takes one line with or without its line end. A status line starts a new head, so the
    // heads of interim (1xx) and redirect answers are replaced by the next one.
    Feed addLine(const QByteArray& line);

    bool isComplete() const { return m_complete; }
    int status() const { return m_status; }
    QByteArray version() const { return m_version; } // "1.1", "2"
    QByteArray reason() const { return m_reason; }
    const QList<std::pair<QByteArray, QByteArray>>& fields() const { return m_fields; }
    // The value of the first field of that name (case-insensitive), or a null array.
    QByteArray value(const QByteArray& name) const;
    // Content-Length, or -1 when absent or not a number.
    qint64 contentLength() const;

    static bool parseStatusLine(const QByteArray& line, QByteArray* version, int* status,
                                QByteArray* reason);
    static bool parseField(const QByteArray& line, QByteArray* name, QByteArray* value);
    static bool parseContentRange(const QByteArray& value, ContentRange* range);
    // A decimal count of bytes without sign, spaces or overflow; -1 otherwise.
    static qint64 parseLength(const QByteArray& value);

private:
    QByteArray m_version;
    QByteArray m_reason;
    QList<std::pair<QByteArray, QByteArray>> m_fields;
    qint64 m_size = 0;
    int m_status = 0;
    bool m_complete = false;
    bool m_started = false;
};
