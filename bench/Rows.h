#pragma once

// The benchmark's view of the dictionary: every row of zelko::AllRows with
// its floor, and the input each benchmark feeds it.

#include "VorlinkFloors.h"
#include "ZelkoMsgRowList.h"

#include "Bytra/Can.h"

#include <QByteArray>
#include <QDateTime>

#include <tuple>

namespace vorbench {

template <class Record>
struct Tag
{
    using type = Record;
};

template <class Rows>
struct RowRange;

template <class... Rows>
struct RowRange<std::tuple<Rows...>>
{
    template <class Fn>
    static void each(Fn &&fn)
    {
        (fn(Tag<typename Rows::Payload>{}), ...);
    }
};

// Calls fn(Tag<Record>{}) for every row, in ascending id.
template <class Fn>
void forEachRow(Fn &&fn)
{
    RowRange<zelko::AllRows>::each(fn);
}

// A payload of `size` bytes with no zero byte in it, so that every field is
// set and shows in the protobuf bytes. It differs from row to row.
inline QByteArray samplePayload(int size, quint16 msgId)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 37 + 11 + msgId % 199) % 251 + 1);
    return bytes;
}

inline QDateTime sampleTime()
{
    return QDateTime::fromMSecsSinceEpoch(1700000000123LL, Qt::UTC);
}

inline Bytra::Can::Message sampleMessage(quint16 msgId, int payloadBytes, quint16 sequence = 7)
{
    Bytra::Can::Message message;
    message.msgId = msgId;
    message.sequence = sequence;
    message.payload = samplePayload(payloadBytes, msgId);
    return message;
}

} // namespace vorbench
