#pragma once

// One line of a bus log, parsed on its own. No I/O and no global state: a
// caller hands in one line (without its newline) and gets back what it holds.
//
// Bus-log line:   <time> <sequence> <id> <payload>   [# comment]
//   time      seconds since 1970-01-01 UTC, up to nine decimals, kept to the nanosecond
//   sequence  decimal, 0 to 65535
//   id        hexadecimal, 1 to 4 digits, "0x" optional
//   payload   hexadecimal, two digits per byte; "-" (or nothing) for no bytes
// Fields are separated by blanks or tabs. Blank lines and lines whose first
// non-blank character is '#' hold no message.

#include <QByteArray>
#include <QtGlobal>

#include <string>
#include <string_view>

namespace vorlink {

// One message of a bus log.
struct BusLogEntry
{
    qint64 msecs = 0;        // milliseconds since 1970-01-01 UTC
    quint16 sequence = 0;
    quint16 msgId = 0;
    QByteArray payload;      // the wire bytes; reused from line to line
    qint32 nanos = 0;        // nanoseconds past msecs, 0 to 999999
};

struct LineResult
{
    enum Kind { Message, Skip, Error };
    Kind kind = Skip;
    std::string reason;      // set for Error only: what is wrong, in a few words
    const char *cause = "";  // set for Error only: the kind of fault, for counting ("bad time")

    bool isMessage() const { return kind == Message; }
    static LineResult failed(const char *cause, std::string reason) { return {Error, std::move(reason), cause}; }
    static LineResult message() { return {Message, {}, ""}; }
};

// Largest time a line may carry: 9999-12-31T23:59:59.999Z, the end of what a
// protobuf Timestamp holds.
constexpr qint64 maxBusLogMsecs = 253402300799999LL;

// A time to the nanosecond, as a log line carries it: milliseconds since 1970
// and the nanoseconds past them. Two numbers, since nanoseconds since 1970 run
// past 64 bits before the year 9999 that a line may name.
struct LogTime
{
    qint64 msecs = 0;
    qint32 nanos = 0;   // 0 to 999999

    friend bool operator<(const LogTime &a, const LogTime &b)
    {
        return a.msecs != b.msecs ? a.msecs < b.msecs : a.nanos < b.nanos;
    }
    friend bool operator<=(const LogTime &a, const LogTime &b) { return !(b < a); }
};

// Reads a bus-log time: seconds since 1970 with at most nine decimals, all
// of them kept.
bool parseBusLogTime(std::string_view text, qint64 &msecs, qint32 &nanos);
// The same, with the digits past the millisecond dropped.
bool parseBusLogTime(std::string_view text, qint64 &msecs);

// An id as the tool shows it: 0x0100.
std::string hexId(unsigned id);

// Appends a time as ISO 8601 UTC with milliseconds, or with as many more
// digits as the nanoseconds past them need (6 or 9):
// 2023-11-14T22:13:20.123Z, 2023-11-14T22:13:20.123456Z.
void appendIsoTime(qint64 msecs, std::string &out);
void appendIsoTime(qint64 msecs, qint32 nanos, std::string &out);

// Reads a time as a bus log writes it, or as ISO 8601 (UTC unless the text
// gives an offset), to the nanosecond; the second form drops what lies past
// the millisecond.
bool parseTimeArgument(const std::string &text, LogTime &time);
bool parseTimeArgument(const std::string &text, qint64 &msecs);

// Parses one bus-log line. On Message, `entry` holds its fields; on Skip and
// Error, `entry` is unspecified. Does not check the id against the dictionary.
LineResult parseBusLogLine(std::string_view line, BusLogEntry &entry);

// Appends `entry` as one bus-log line, without a newline, to `out`.
void appendBusLogLine(const BusLogEntry &entry, std::string &out);

} // namespace vorlink
