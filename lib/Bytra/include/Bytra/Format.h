#pragma once

#include <QByteArray>
#include <QString>

namespace Bytra {
namespace Format {

// Lower-case hexadecimal text of every byte of `bytes`, the bytes separated by
// `separator` ("02.00.3c").
QString toHexString(const QByteArray &bytes, char separator);

} // namespace Format
} // namespace Bytra
