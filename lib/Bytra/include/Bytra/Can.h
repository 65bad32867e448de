#pragma once

#include <QByteArray>
#include <QtGlobal>

/// \file
/// The received bus message, as the communications library hands it over.

/// The bus communications library, as far as Vorlink uses it. Vorlink builds
/// with a small stand-in of it (libBytra.a); a build on the machine links the
/// machine's own.
namespace Bytra {
/// Messages of the CAN bus.
namespace Can {

/// One received bus message, already reassembled: the id, the sender's sequence
/// number and the whole payload. Vorlink reads these three members and never
/// writes them.
struct Message
{
    quint16 sequence = 0;   ///< The sender's sequence number; becomes Header.sequence through a \c short.
    quint16 msgId = 0;      ///< The message's id: selects its record, becomes Header.msgId.
    QByteArray payload;     ///< The message's whole wire form, every field behind the one before.
};

} // namespace Can
} // namespace Bytra
