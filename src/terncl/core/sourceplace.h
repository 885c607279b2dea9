#pragma once

#include <terncl/ternclshared_export.h>

#include <string>

namespace terncl {

// Turns __FILE__ and __LINE__ into "src/terncl/core/abstracterror,42": the path relative to the
// repository root (the build maps the root prefix away), without the extension, a comma and the
// line. Errors carry it as their source and failed assertions print it.
TERNCL_EXPORT std::string sourcePlace(const char* file, int line);

// Logs "ASSERTION FAILED: <expression>, <place>" through the default logger and returns.
TERNCL_EXPORT void reportFailedAssertion(const char* expression, const char* file, int line);

} // namespace terncl

#define TERNCL_SOURCE_PLACE (::terncl::sourcePlace(__FILE__, __LINE__))

// A failed assertion is logged and execution goes on. The expression is always evaluated, so it
// may carry the work it checks (for example a removal whose result is asserted).
#define TERNCL_ASSERT(expression)                                                                  \
    do {                                                                                           \
        if (!(expression))                                                                         \
            ::terncl::reportFailedAssertion(#expression, __FILE__, __LINE__);                      \
    } while (false)
