#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <typeinfo>

namespace Bytra {
namespace Types {

// The six wire value types. Each holds exactly its width: the value overlaid
// with its bytes in memory order, which on this little-endian machine is the
// order they travel on the bus.
struct U08 { union { quint8 value = 0; quint8 bytes[1]; }; };
struct U16 { union { quint16 value = 0; quint8 bytes[2]; }; };
struct U32 { union { quint32 value = 0; quint8 bytes[4]; }; };
struct S16 { union { qint16 value = 0; quint8 bytes[2]; }; };
struct S32 { union { qint32 value = 0; quint8 bytes[4]; }; };
struct F32 { union { float value = 0; quint8 bytes[4]; }; };

static_assert(sizeof(U08) == 1 && sizeof(U16) == 2 && sizeof(U32) == 4, "wire values hold their width only");
static_assert(sizeof(S16) == 2 && sizeof(S32) == 4 && sizeof(F32) == 4, "wire values hold their width only");

namespace detail {
// Kept out of line: the text is built only on this path, and only when the
// category lets the warning through.
void warnNotEnoughData(int position, int width, const char *typeName, const QByteArray &buffer,
                       const QString &valueName);
} // namespace detail

// Reads one value at `position` and moves `position` past it. A value that
// would run past the end of `buffer` is not read: `position` and `out` stay,
// a warning names the field, and the result is false.
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
