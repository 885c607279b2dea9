#pragma once

#include <terncl/core/abstracterror.h>

#include <QString>

// The application's converter from an error to the text shown to the user.
class TERNCL_EXPORT QtAbstractErrorToString {
public:
    virtual ~QtAbstractErrorToString();
    // shortText asks for the one-line form, otherwise the detailed form.
    virtual QString toString(const AbstractError& error, bool shortText) const = 0;
};
