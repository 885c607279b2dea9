#pragma once

#include <terncl/ternclshared_export.h>

#include <QString>
#include <QtGlobal>

// The host's logger. Every class of the library logs through the instance that
// QtAppDefaultLogger hands out; a host installs its own to route lines elsewhere.
// log() may be called from any thread, so implementations must be thread-safe.
class TERNCL_EXPORT QtAppLogger {
public:
    enum Level : int { Critical = 0, Warning = 1, Info = 2, Debug = 3 };

    // Bits of the categories mask; a line belongs to the categories whose bits it carries.
    enum Category : quint64 {
        General = 0x1,
        Download = 0x2,
        Network = 0x4,
        Files = 0x8,
        Process = 0x10,
        AllCategories = ~quint64(0)
    };

    virtual ~QtAppLogger();

    // Lines above this level are dropped by callers that check before formatting.
    virtual int verbosityLevel() const = 0;
    virtual quint64 categories() const = 0;
    virtual void log(int level, quint64 categories, const QString& text) = 0;

    // Whether a line of that level and category would be written at all.
    bool isEnabled(int level, quint64 categories) const;
};
