#pragma once

#include <QMetaType>

// How a bit-set field of a record takes new bits (AbstractDownload::updateInfoFields).
enum class BitFlagsUpdateMode : qint32 {
    Replace = 0, // the field becomes the given bits
    Set = 1,     // the given bits are added
    Clear = 2,   // the given bits are removed
};

namespace terncl {
template <typename T> constexpr T updatedBitFlags(T current, T bits, BitFlagsUpdateMode mode) {
    switch (mode) {
    case BitFlagsUpdateMode::Set:
        return current | bits;
    case BitFlagsUpdateMode::Clear:
        return current & ~bits;
    case BitFlagsUpdateMode::Replace:
        break;
    }
    return bits;
}
} // namespace terncl

Q_DECLARE_METATYPE(BitFlagsUpdateMode)
