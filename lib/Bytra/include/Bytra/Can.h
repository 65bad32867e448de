#pragma once

#include <QByteArray>
#include <QtGlobal>

namespace Bytra {
namespace Can {

// One received bus message, already reassembled: the id, the sender's sequence
// number and the whole payload.
struct Message
{
    quint16 sequence = 0;
    quint16 msgId = 0;
    QByteArray payload;
};

} // namespace Can
} // namespace Bytra
