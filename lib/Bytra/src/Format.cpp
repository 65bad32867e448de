#include "Bytra/Format.h"

namespace Bytra {
namespace Format {

QString toHexString(const QByteArray &bytes, char separator)
{
    return QString::fromLatin1(bytes.toHex(separator));
}

} // namespace Format
} // namespace Bytra
