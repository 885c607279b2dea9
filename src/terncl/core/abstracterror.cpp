#include "abstracterror.h"

#include <QDebug>
#include <QFileDevice>
#include <QTextStream>

AbstractError::AbstractError(int errorCode, std::string errorCategory, std::string errorSource,
                             std::string errorDescription)
    : code(errorCode)
    , category(std::move(errorCategory))
    , source(std::move(errorSource))
    , description(std::move(errorDescription)) {}

AbstractError::AbstractError(const QFileDevice& file, std::string errorSource)
    : code(static_cast<int>(file.error()))
    , category(QtFileError)
    , source(std::move(errorSource))
    , description(file.errorString().toStdString()) {}

bool AbstractError::operator==(const AbstractError& other) const {
    return code == other.code && category == other.category && source == other.source &&
           description == other.description;
}

QString AbstractError::toText() const {
    QString text;
    QTextStream stream(&text);
    stream << *this;
    return text;
}

QTextStream& operator<<(QTextStream& stream, const AbstractError& error) {
    stream << "{ERROR: |CODE|: " << error.code
           << ", |CATEGORY|: " << QString::fromStdString(error.category)
           << ", |SOURCE|: " << QString::fromStdString(error.source)
           << ", |DESCRIPTION|: " << QString::fromStdString(error.description) << "}";
    return stream;
}

QDebug operator<<(QDebug debug, const AbstractError& error) {
    QDebugStateSaver saver(debug);
    debug.noquote().nospace() << error.toText();
    return debug;
}
