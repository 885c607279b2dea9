#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/core/qtabstracterrortostring.h>

#include <QObject>
#include <QSharedPointer>

// Exposes one AbstractError to the user interface as properties. Lives in its parent's thread.
// changed() fires only when the kind of error changes (see setError), not on every new text.
class TERNCL_EXPORT QtAbstractError : public QObject {
    Q_OBJECT
    Q_PROPERTY(int code READ code WRITE setCode NOTIFY changed)
    Q_PROPERTY(QString category READ category WRITE setCategory NOTIFY changed)
    Q_PROPERTY(QString description READ description WRITE setDescription NOTIFY changed)
    Q_PROPERTY(QString source READ source WRITE setSource NOTIFY changed)
    Q_PROPERTY(QString displayTextShort READ displayTextShort NOTIFY changed)
    Q_PROPERTY(QString displayTextLong READ displayTextLong NOTIFY changed)

public:
    QtAbstractError(QSharedPointer<QtAbstractErrorToString> converter, const AbstractError& error,
                    QObject* parent = nullptr);

    int code() const { return m_error.code; }
    QString category() const { return QString::fromStdString(m_error.category); }
    QString source() const { return QString::fromStdString(m_error.source); }
    QString description() const { return QString::fromStdString(m_error.description); }
    const AbstractError& error() const { return m_error; }

    // Computed on every read, never cached; empty without a converter.
    QString displayTextShort() const;
    QString displayTextLong() const;

    void setCode(int code);
    void setCategory(const QString& category);
    void setSource(const QString& source);
    void setDescription(const QString& description);
    // Same code, and either code 0 or the same category, counts as no change: the old source
    // and description stay and nothing is emitted. Anything else replaces all four fields.
    void setError(const AbstractError& error);

Q_SIGNALS:
    void changed();

private:
    void setText(std::string& field, const QString& value);

    QSharedPointer<QtAbstractErrorToString> m_converter;
    AbstractError m_error;
};
