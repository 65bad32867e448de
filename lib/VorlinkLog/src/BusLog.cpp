#include "BusLog.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace vorlink {
namespace {

constexpr std::array<qint8, 256> makeHexTable()
{
    std::array<qint8, 256> t{};
    for (auto &v : t)
        v = -1;
    for (int c = '0'; c <= '9'; ++c)
        t[std::size_t(c)] = qint8(c - '0');
    for (int c = 'a'; c <= 'f'; ++c)
        t[std::size_t(c)] = qint8(c - 'a' + 10);
    for (int c = 'A'; c <= 'F'; ++c)
        t[std::size_t(c)] = qint8(c - 'A' + 10);
    return t;
}
constexpr std::array<qint8, 256> hexValue = makeHexTable();

inline int hexDigit(char c) { return hexValue[quint8(c)]; }
inline bool isBlank(char c) { return c == ' ' || c == '\t'; }
inline bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Cuts the next blank-separated field off the front of `rest`.
std::string_view nextField(std::string_view &rest)
{
    std::size_t i = 0;
    while (i < rest.size() && isBlank(rest[i]))
        ++i;
    std::size_t j = i;
    while (j < rest.size() && !isBlank(rest[j]))
        ++j;
    const std::string_view field = rest.substr(i, j - i);
    rest.remove_prefix(j);
    return field;
}

// A field as it may be quoted back in a message: short and printable.
std::string quoted(std::string_view field)
{
    constexpr std::size_t maxShown = 40;
    std::string text = "'";
    for (std::size_t i = 0; i < field.size() && i < maxShown; ++i) {
        const char c = field[i];
        text += (c >= 0x20 && c < 0x7f) ? c : '?';
    }
    if (field.size() > maxShown)
        text += "...";
    text += "'";
    return text;
}

// A control byte where a digit should be, named as such: "a NUL byte",
// "a form feed (0x0C)". Empty for any other character.
std::string controlByte(char c)
{
    const auto byte = quint8(c);
    if (byte >= 0x20 && byte != 0x7F)
        return {};
    char code[8];
    std::snprintf(code, sizeof code, "0x%02X", unsigned(byte));
    switch (byte) {
    case 0x00: return "a NUL byte";
    case 0x0B: return std::string("a vertical tab (") + code + ")";
    case 0x0C: return std::string("a form feed (") + code + ")";
    case 0x0D: return std::string("a carriage return (") + code + ")";
    default: return std::string("a control byte ") + code;
    }
}

// The first control byte of a payload, named with its place.
std::string controlInPayload(std::string_view payload)
{
    for (std::size_t k = 0; k < payload.size(); ++k) {
        const std::string name = controlByte(payload[k]);
        if (!name.empty())
            return "payload has " + name + " at digit " + std::to_string(k + 1);
    }
    return {};
}

} // namespace

std::string hexId(unsigned id)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%04X", id);
    return text;
}

bool parseBusLogTime(std::string_view text, qint64 &msecs, qint32 &nanos)
{
    std::size_t i = 0;
    qint64 seconds = 0;
    while (i < text.size() && isDigit(text[i])) {
        if (i >= 12)   // more digits than any time up to the year 9999
            return false;
        seconds = seconds * 10 + (text[i] - '0');
        ++i;
    }
    if (i == 0)
        return false;
    qint32 fraction = 0;   // nanoseconds
    if (i < text.size()) {
        if (text[i] != '.')
            return false;
        ++i;
        const std::size_t decimals = text.size() - i;
        if (decimals < 1 || decimals > 9)
            return false;
        for (qint32 scale = 100000000; i < text.size(); ++i, scale /= 10) {
            if (!isDigit(text[i]))
                return false;
            fraction += (text[i] - '0') * scale;
        }
    }
    msecs = seconds * 1000 + fraction / 1000000;
    nanos = fraction % 1000000;
    return msecs <= maxBusLogMsecs;
}

bool parseBusLogTime(std::string_view text, qint64 &msecs)
{
    qint32 nanos = 0;
    return parseBusLogTime(text, msecs, nanos);
}

namespace {

bool parseSequence(std::string_view text, quint16 &sequence)
{
    unsigned value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, 10);
    if (ec != std::errc() || end != text.data() + text.size() || value > 0xFFFF)
        return false;
    sequence = quint16(value);
    return true;
}

bool parseId(std::string_view text, quint16 &id)
{
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text.remove_prefix(2);
    if (text.empty() || text.size() > 4)
        return false;
    unsigned value = 0;
    for (const char c : text) {
        const int d = hexDigit(c);
        if (d < 0)
            return false;
        value = value * 16 + unsigned(d);
    }
    id = quint16(value);
    return true;
}

} // namespace

LineResult parseBusLogLine(std::string_view line, BusLogEntry &entry)
{
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    std::string_view rest = line;
    const std::string_view time = nextField(rest);
    if (time.empty() || time.front() == '#')
        return {};

    if (!parseBusLogTime(time, entry.msecs, entry.nanos))
        return LineResult::failed("bad time", "time " + quoted(time) + " is not seconds since 1970 (0 to 253402300799.999, up to 9 decimals)");

    const std::string_view sequence = nextField(rest);
    if (sequence.empty())
        return LineResult::failed("fields missing", "line ends after the time; sequence, id and payload are missing");
    if (!parseSequence(sequence, entry.sequence))
        return LineResult::failed("bad sequence", "sequence " + quoted(sequence) + " is not a decimal number from 0 to 65535");

    const std::string_view id = nextField(rest);
    if (id.empty())
        return LineResult::failed("fields missing", "line ends after the sequence; id and payload are missing");
    if (!parseId(id, entry.msgId))
        return LineResult::failed("bad id", "id " + quoted(id) + " is not a hexadecimal number from 0x0000 to 0xFFFF");

    std::string_view payload = nextField(rest);
    if (!payload.empty() && payload.front() == '#') {   // a comment where the payload would be
        rest = std::string_view();
        payload = std::string_view();
    } else if (payload == "-") {
        payload = std::string_view();
    }
    const std::string_view after = nextField(rest);
    if (!after.empty() && after.front() != '#')
        return LineResult::failed("text after the payload", "unexpected " + quoted(after) + " after the payload");

    if (payload.size() % 2 != 0 && !controlInPayload(payload).empty())
        return LineResult::failed("bad payload", controlInPayload(payload));
    if (payload.size() % 2 != 0)
        return LineResult::failed("bad payload", "payload has an odd number of hexadecimal digits (" + std::to_string(payload.size()) + ")");
    const int bytes = int(payload.size() / 2);
    entry.payload.resize(bytes);
    char *out = entry.payload.data();
    for (int k = 0; k < bytes; ++k) {
        const int hi = hexDigit(payload[std::size_t(2 * k)]);
        const int lo = hexDigit(payload[std::size_t(2 * k + 1)]);
        if ((hi | lo) < 0) {
            const std::size_t at = std::size_t(2 * k) + (hi < 0 ? 0 : 1);
            if (!controlByte(payload[at]).empty())
                return LineResult::failed("bad payload", controlInPayload(payload));
            return LineResult::failed("bad payload", "payload has " + quoted(payload.substr(at, 1)) + " at digit " + std::to_string(at + 1) +
                         ", which is not hexadecimal");
        }
        out[k] = char((hi << 4) | lo);
    }

    return LineResult::message();
}

void appendBusLogLine(const BusLogEntry &entry, std::string &out)
{
    static const char digits[] = "0123456789abcdef";
    static const char upper[] = "0123456789ABCDEF";
    char buffer[64];
    qint64 ms = entry.msecs;
    if (ms < 0) {          // outside what a log line may carry; written so that it shows
        out += '-';
        ms = -ms;
    }
    char *p = std::to_chars(buffer, buffer + sizeof buffer, ms / 1000).ptr;
    // Three decimals, or six or nine when the time has more.
    qint32 fraction = qint32(ms % 1000) * 1000000 + entry.nanos;
    const int decimals = entry.nanos == 0 ? 3 : entry.nanos % 1000 == 0 ? 6 : 9;
    *p++ = '.';
    for (int k = 0; k < decimals; ++k, fraction %= 100000000, fraction *= 10)
        *p++ = char('0' + fraction / 100000000);
    *p++ = ' ';
    p = std::to_chars(p, buffer + sizeof buffer, unsigned(entry.sequence)).ptr;
    *p++ = ' ';
    *p++ = '0';
    *p++ = 'x';
    for (int shift = 12; shift >= 0; shift -= 4)
        *p++ = upper[(entry.msgId >> shift) & 0xF];
    *p++ = ' ';
    out.append(buffer, std::size_t(p - buffer));

    const int n = entry.payload.size();
    if (n == 0) {
        out += '-';
        return;
    }
    const std::size_t start = out.size();
    out.resize(start + std::size_t(2 * n));
    char *hex = &out[start];
    const char *data = entry.payload.constData();
    for (int k = 0; k < n; ++k) {
        hex[2 * k] = digits[quint8(data[k]) >> 4];
        hex[2 * k + 1] = digits[quint8(data[k]) & 0xF];
    }
}

} // namespace vorlink
