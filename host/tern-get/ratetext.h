#pragma once

#include <QString>

// Rates and sizes as people type and read them: "2M" is 2 MiB/s, "500k" 500 KiB/s.
namespace RateText {
// Bytes per second, or -1 when the text is not a rate.
qint64 parse(const QString& text);
QString bytes(qint64 bytes);
QString duration(qint64 seconds);
} // namespace RateText
