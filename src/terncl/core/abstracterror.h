#pragma once

#include <terncl/ternclshared_export.h>

#include <QCoreApplication>
#include <QMetaType>

#include <string>

class QFileDevice;
class QTextStream;
class QDebug;

// The one value in which every failure of the library travels. Code 0 means no error; the
// meaning of any other code depends on the category ("GenericError", "QtFileError",
// "QtNetworkError", "HttpError", "AbstractDownloadError"). The texts are UTF-8.
class TERNCL_EXPORT AbstractError {
    Q_DECLARE_TR_FUNCTIONS(AbstractError)

public:
    static constexpr const char* GenericError = "GenericError";
    static constexpr const char* QtFileError = "QtFileError";
    static constexpr const char* QtNetworkError = "QtNetworkError";
    static constexpr const char* HttpError = "HttpError";
    static constexpr const char* DownloadError = "AbstractDownloadError";

    int code = 0;
    std::string category;
    std::string source;
    std::string description;

    AbstractError() = default;
    AbstractError(int code, std::string category, std::string source, std::string description = {});
    // The error of a failed file operation: QFileDevice::error() as the code, "QtFileError",
    // the caller's place and the device's error string.
    AbstractError(const QFileDevice& file, std::string source);

    bool isSet() const { return code != 0; }
    explicit operator bool() const { return isSet(); }

    bool operator==(const AbstractError& other) const;
    bool operator!=(const AbstractError& other) const { return !(*this == other); }

    // The one-line text form: "{ERROR: |CODE|: 0, |CATEGORY|: , |SOURCE|: , |DESCRIPTION|: }".
    QString toText() const;
};

TERNCL_EXPORT QTextStream& operator<<(QTextStream& stream, const AbstractError& error);
TERNCL_EXPORT QDebug operator<<(QDebug debug, const AbstractError& error);

Q_DECLARE_METATYPE(AbstractError)
