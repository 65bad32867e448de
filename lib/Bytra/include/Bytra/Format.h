#pragma once

#include <QByteArray>
#include <QString>

/// \file
/// Hexadecimal text of bytes, for log lines.

namespace Bytra {
/// Text forms of bus data.
namespace Format {

/// Lower-case hexadecimal text of every byte of \p bytes, the bytes separated by
/// \p separator ("02.00.3c" for '.').
QString toHexString(const QByteArray &bytes, char separator);

} // namespace Format
} // namespace Bytra
