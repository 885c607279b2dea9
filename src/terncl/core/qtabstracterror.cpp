#include "qtabstracterror.h"

QtAbstractErrorToString::~QtAbstractErrorToString() = default;

QtAbstractError::QtAbstractError(QSharedPointer<QtAbstractErrorToString> converter,
                                 const AbstractError& error, QObject* parent)
    : QObject(parent)
    , m_converter(std::move(converter))
    , m_error(error) {}

QString QtAbstractError::displayTextShort() const {
    return m_converter ? m_converter->toString(m_error, true) : QString();
}

QString QtAbstractError::displayTextLong() const {
    return m_converter ? m_converter->toString(m_error, false) : QString();
}

void QtAbstractError::setCode(int code) {
    if (code == m_error.code)
        return;
    m_error.code = code;
    Q_EMIT changed();
}

void QtAbstractError::setText(std::string& field, const QString& value) {
    std::string utf8 = value.toStdString();
    if (utf8 == field)
        return;
    field = std::move(utf8);
    Q_EMIT changed();
}

void QtAbstractError::setCategory(const QString& category) {
    setText(m_error.category, category);
}

void QtAbstractError::setSource(const QString& source) {
    setText(m_error.source, source);
}

void QtAbstractError::setDescription(const QString& description) {
    setText(m_error.description, description);
}

void QtAbstractError::setError(const AbstractError& error) {
    const bool sameKind =
        error.code == m_error.code && (error.code == 0 || error.category == m_error.category);
    if (sameKind)
        return;
    m_error = error;
    Q_EMIT changed();
}
