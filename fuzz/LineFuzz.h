#pragma once

// Shared by the fuzz targets of the tool's line readers: how a line reaches a
// reader, the contract every reader's result keeps, and the message an
// accepted line becomes.

#include "FuzzCommon.h"

#include "BusLog.h"

#include "Bytra/Can.h"

#include <string_view>

namespace fuzz {

// The input's first line, without its newline, as the tool hands lines on,
// read into an entry still holding an earlier line's bytes. A rejected line
// says why, any other says nothing. True when the line is a message.
template <class Reader>
bool readFirstLine(const std::uint8_t *data, std::size_t size, Reader read, std::string_view &line,
                   vorlink::BusLogEntry &entry)
{
    line = std::string_view(reinterpret_cast<const char *>(data), size);
    line = line.substr(0, line.find('\n'));
    entry.payload = QByteArray("bytes of an earlier line");
    const vorlink::LineResult result = read(line, entry);
    FUZZ_EXPECT(result.kind == vorlink::LineResult::Error ? !result.reason.empty() : result.reason.empty(), 0);
    return result.isMessage();
}

inline Bytra::Can::Message canMessageOf(const vorlink::BusLogEntry &entry)
{
    Bytra::Can::Message message;
    message.msgId = entry.msgId;
    message.sequence = entry.sequence;
    message.payload = entry.payload;
    return message;
}

} // namespace fuzz
