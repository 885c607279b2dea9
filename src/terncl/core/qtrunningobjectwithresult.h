#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/core/qtrunningobject.h>

// A running object that keeps the error of its last run (code 0 after success).
class TERNCL_EXPORT QtRunningObjectWithResult : public QtRunningObject {
    Q_OBJECT

public:
    explicit QtRunningObjectWithResult(QObject* parent = nullptr);

    virtual AbstractError error() const;

protected:
    // Replaces the stored error; emits nothing.
    virtual void setError(const AbstractError& error);

private:
    AbstractError m_error;
};
