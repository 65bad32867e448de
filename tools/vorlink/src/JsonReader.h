#pragma once

// JSON of the schema messages, read back into bus-log entries: the one place
// that decides what a JSON value is. A line in the shapes `decode --format
// json` writes goes through a RapidJSON SAX reader driven by the schema's
// descriptors; anything else is first checked member by member in the tool's
// words (field, value, wire type, range) and then read by protobuf's JSON
// parser. JsonValues finds where each value starts and ends in a stream of
// lines: one a line, spread over lines, or the elements of an array.

#include "BusLog.h"

#include <string>
#include <string_view>

namespace vorlink {

// Parses one JSON object as `decode --format json` writes it (protobuf JSON
// of a schema message with its `header`) into the message's bus-log entry:
// time, sequence and id from the header, the payload as the record's wire
// bytes. Blank text is Skip. Rejects an unknown id or field, a value its wire
// field cannot hold or that is not whole for an integer field, a oneof member
// the record does not carry, JSON that is not well-formed (a trailing comma, a
// member given twice), and anything that is not such an object. `text` may
// span several lines.
LineResult parseJsonLine(std::string_view text, BusLogEntry &entry);

// The fast half of parseJsonLine: true with `entry` filled when the line is a
// message of the dictionary in the shapes protobuf writes (either field-name
// form, numbers as JSON numbers, NaN and the infinities as strings, a UTC
// time), false when it leaves the line to the rest of parseJsonLine. Never
// rejects.
bool readJsonLineFast(std::string_view line, BusLogEntry &entry);

// Splits JSON text, fed a line at a time, into its values. A value starts
// with '{' and ends where its braces close; a '[' before the first value
// makes the values the elements of that array. A value still open when a
// line starts with '{' at or left of the column where it opened is broken:
// it is reported, and reading picks up at that line. A value longer than
// maxValueBytes is reported and skipped the same way, so memory stays bounded.
class JsonValues
{
public:
    static constexpr std::size_t maxValueBytes = 1 << 20;

    // `on(text, line, broken)`: a value that starts at `line`, or (with
    // `broken` set) the reason the value starting there cannot be read.
    // Returns false to stop reading.
    template <class On>
    bool feed(std::string_view line, long long number, On &&on);
    template <class On>
    bool finish(On &&on);

    // Between two values outside an array: the next line may be tried whole.
    bool between() const { return depth_ == 0 && !inArray_ && !skipping_; }

private:
    int depth_ = 0;
    bool inArray_ = false, arrayAllowed_ = true, skipping_ = false;
    std::string value_;
    long long valueLine_ = 0, arrayLine_ = 0;
    std::size_t valueColumn_ = 0;
};

template <class On>
bool JsonValues::feed(std::string_view line, long long number, On &&on)
{
    const std::size_t first = line.find_first_not_of(" \t\r");
    const bool opensAtLeft = first != std::string_view::npos && line[first] == '{' && first <= valueColumn_;
    if ((depth_ > 0 || skipping_) && opensAtLeft) {   // the open value never closed: pick up here
        const bool wasSkipping = skipping_;
        depth_ = 0;
        skipping_ = false;
        value_.clear();
        if (!wasSkipping && !on(std::string_view(), valueLine_,
                                ("not JSON: the value is not closed before line " + std::to_string(number) +
                                 ", where the next one opens").c_str()))
            return false;
    }
    if (skipping_)
        return true;
    bool inString = false, escaped = false;   // JSON strings never span lines
    std::size_t from = 0;
    for (std::size_t i = first == std::string_view::npos ? line.size() : first; i < line.size(); ++i) {
        const char c = line[i];
        if (depth_ == 0) {
            if (c == ' ' || c == '\t' || c == '\r' || (inArray_ && c == ','))
                continue;
            if (c == '[' && arrayAllowed_ && !inArray_) {
                inArray_ = true;
                arrayLine_ = number;
            } else if (c == ']' && inArray_) {
                inArray_ = false;
            } else if (c == '{') {
                depth_ = 1;
                from = i;
                valueLine_ = number;
                valueColumn_ = i;
            } else {   // not the start of a value: the rest of the line is reported as one
                arrayAllowed_ = false;
                return on(line.substr(i), number, nullptr);
            }
            arrayAllowed_ = false;
            continue;
        }
        if (inString) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            ++depth_;
        } else if ((c == '}' || c == ']') && --depth_ == 0) {
            // What follows on the line must be another value, or the array's
            // comma or end: else the line is one broken value, never a value
            // cut short with the rest reported apart.
            const std::size_t next = line.find_first_not_of(" \t\r", i + 1);
            const bool clean = next == std::string_view::npos || line[next] == '{' ||
                               (inArray_ && (line[next] == ',' || line[next] == ']'));
            const std::size_t end = clean ? i + 1 : line.size();
            bool going;
            if (value_.empty()) {
                going = on(line.substr(from, end - from), valueLine_, nullptr);
            } else {
                value_.append(line.data(), end);
                going = on(std::string_view(value_), valueLine_, nullptr);
                value_.clear();
            }
            if (!going || !clean)
                return going;
        }
    }
    if (depth_ > 0) {
        value_.append(line.data() + from, line.size() - from).push_back('\n');
        if (value_.size() > maxValueBytes) {
            depth_ = 0;
            skipping_ = true;
            value_.clear();
            return on(std::string_view(), valueLine_,
                      ("not JSON: the value is longer than " + std::to_string(maxValueBytes) +
                       " bytes, more than any message; skipped to the next value that opens at the start of a line")
                          .c_str());
        }
    }
    return true;
}

template <class On>
bool JsonValues::finish(On &&on)
{
    if (depth_ > 0 && !on(std::string_view(value_), valueLine_, nullptr))
        return false;
    if (inArray_)
        return on(std::string_view(), arrayLine_, "not JSON: the array is not closed at the end of the input");
    return true;
}

} // namespace vorlink
