#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <typeinfo>

/// \file
/// The six wire value types and the reader of one value.

namespace Bytra {
/// The wire value types: the fields of every payload record.
///
/// Each holds exactly its width: \c value overlaid with \c bytes in memory
/// order, which on this little-endian machine is the order they travel on the
/// bus, least significant byte first (an F32 is its IEEE 754 bit pattern in
/// that order). Nothing lies between two fields on the wire. A
/// default-constructed value is 0. Read and write \c value; the library moves
/// \c bytes.
///
/// | Type | Bytes | Value | Schema type |
/// |------|------:|-------|-------------|
/// | U08 | 1 | unsigned 8-bit integer | uint32 |
/// | U16 | 2 | unsigned 16-bit integer | uint32 |
/// | U32 | 4 | unsigned 32-bit integer | uint32, or bool where the message says so |
/// | S16 | 2 | signed 16-bit integer | int32 |
/// | S32 | 4 | signed 32-bit integer | int32 |
/// | F32 | 4 | IEEE 754 single-precision float | float |
namespace Types {

/// Unsigned 8-bit wire value, 1 byte.
struct U08 { union { quint8 value = 0; /**< The value. */ quint8 bytes[1]; /**< Its byte. */ }; };
/// Unsigned 16-bit wire value, 2 bytes, least significant first.
struct U16 { union { quint16 value = 0; /**< The value. */ quint8 bytes[2]; /**< Its bytes in wire order. */ }; };
/// Unsigned 32-bit wire value, 4 bytes, least significant first.
struct U32 { union { quint32 value = 0; /**< The value. */ quint8 bytes[4]; /**< Its bytes in wire order. */ }; };
/// Signed 16-bit wire value (two's complement), 2 bytes, least significant first.
struct S16 { union { qint16 value = 0; /**< The value. */ quint8 bytes[2]; /**< Its bytes in wire order. */ }; };
/// Signed 32-bit wire value (two's complement), 4 bytes, least significant first.
struct S32 { union { qint32 value = 0; /**< The value. */ quint8 bytes[4]; /**< Its bytes in wire order. */ }; };
/// IEEE 754 single-precision wire value, 4 bytes, its bit pattern least significant byte first.
struct F32 { union { float value = 0; /**< The value. */ quint8 bytes[4]; /**< Its bytes in wire order. */ }; };

static_assert(sizeof(U08) == 1 && sizeof(U16) == 2 && sizeof(U32) == 4, "wire values hold their width only");
static_assert(sizeof(S16) == 2 && sizeof(S32) == 4 && sizeof(F32) == 4, "wire values hold their width only");

namespace detail {
// Kept out of line: the text is built only on this path, and only when the
// category lets the warning through.
void warnNotEnoughData(int position, int width, const char *typeName, const QByteArray &buffer,
                       const QString &valueName);
} // namespace detail

/// \brief Reads one value at \p position of \p buffer and moves \p position past it.
///
/// A value that would run past the end of \p buffer is not read: \p position
/// and \p out stay as they were, and the result is false. A value may end
/// exactly at the end. If the category "bytra.types" (logTypes()) lets warnings
/// through, the failure writes one warning there:
/// "Not enough data from position P to the length of N to get data of type 'T'
/// in buffer HEX for value NAME", N the width wanted, T the type's run-time
/// name (typeid), HEX the whole buffer as toHexString(buffer, '.'); the last
/// part only when \p valueName is not empty.
/// \tparam T one of the six wire value types.
/// \return true if the value was read.
template <typename T>
Q_ALWAYS_INLINE bool getValue(const QByteArray &buffer, int &position, T &out, QString valueName)
{
    constexpr int width = int(sizeof(out.bytes));
    if (position > buffer.size() - width) {
        detail::warnNotEnoughData(position, width, typeid(T).name(), buffer, valueName);
        return false;
    }
    const char *data = buffer.constData() + position;
    for (int k = 0; k < width; ++k)
        out.bytes[k] = quint8(data[k]);
    position += width;
    return true;
}

} // namespace Types
} // namespace Bytra
