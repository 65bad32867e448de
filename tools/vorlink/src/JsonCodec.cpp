// JSON and CSV of the schema messages, written from their serialized bytes.

#include "JsonCodec.h"

#include "Dictionary.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/timestamp.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/time_util.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

namespace vorlink {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::util::TimeUtil;

// ----------------------------------------------------------------- numbers

const char *nonFiniteName(float value)
{
    return std::isnan(value) ? "NaN" : value > 0 ? "Infinity" : "-Infinity";
}

// protobuf's spelling of a finite float: "%.6g" when it reads back, else
// "%.9g"; but -0 is "-0.0", since protobuf's reader takes "-0" for the whole
// number 0 and the sign would be lost.
std::size_t formatFloatJson(float value, char *text)
{
    constexpr std::size_t room = 32;
    if (value == 0 && std::signbit(value)) {
        std::memcpy(text, "-0.0", 4);
        return 4;
    }
    // protobuf's check reads back with strtof, which calls every subnormal
    // result out of range: those always get nine digits.
    auto r = std::to_chars(text, text + room, value, std::chars_format::general, 6);
    float back = 0;
    const auto parsed = std::from_chars(text, r.ptr, back);
    if (parsed.ec != std::errc() || back != value || std::fpclassify(value) == FP_SUBNORMAL)
        r = std::to_chars(text, text + room, value, std::chars_format::general, 9);
    return std::size_t(r.ptr - text);
}

// ------------------------------------------------------------------ times
// The date and time of day of a second are protobuf's own spelling; a log's
// messages mostly share their second with the one before, so it is kept.

struct SecondCache
{
    qint64 seconds = std::numeric_limits<qint64>::min();
    char text[20] = {};   // YYYY-MM-DDTHH:MM:SS
};

bool timestampInRange(qint64 seconds, qint32 nanos)
{
    return seconds >= TimeUtil::kTimestampMinSeconds && seconds <= TimeUtil::kTimestampMaxSeconds && nanos >= 0 &&
           nanos <= 999999999;
}

// Writes the RFC 3339 time with 0, 3, 6 or 9 digits of fraction; returns its length.
std::size_t formatTimestamp(qint64 seconds, qint32 nanos, char *text)
{
    thread_local SecondCache cache;
    if (cache.seconds != seconds) {
        google::protobuf::Timestamp t;
        t.set_seconds(seconds);
        const std::string s = TimeUtil::ToString(t);
        if (s.size() != 20)
            return 0;
        std::memcpy(cache.text, s.data(), 19);
        cache.seconds = seconds;
    }
    std::memcpy(text, cache.text, 19);
    std::size_t n = 19;
    if (nanos != 0) {
        int digits = 9;
        while (digits > 3 && nanos % 1000 == 0) {
            nanos /= 1000;
            digits -= 3;
        }
        text[n++] = '.';
        for (int k = digits - 1; k >= 0; --k, nanos /= 10)
            text[n + std::size_t(k)] = char('0' + nanos % 10);
        n += std::size_t(digits);
    }
    text[n++] = 'Z';
    return n;
}

// ------------------------------------------------------------------ writer

// RapidJSON's writer, which keeps the commas, colons and nesting, handed
// pieces that are ready (keys RapidJSON quoted when the layout was made,
// numbers) to copy in one go rather than a byte at a time.
class Writer : public rapidjson::Writer<rapidjson::StringBuffer>
{
public:
    using rapidjson::Writer<rapidjson::StringBuffer>::Writer;

    void raw(std::string_view text, rapidjson::Type type)
    {
        Prefix(type);
        std::memcpy(os_->Push(text.size()), text.data(), text.size());
    }
    // `format(at)` writes at most 32 characters at `at` and returns their end.
    template <class Format>
    void number(Format format)
    {
        Prefix(rapidjson::kNumberType);
        char *at = os_->Push(32);
        os_->Pop(std::size_t(32 - (format(at) - at)));
    }
};

struct JsonWriter
{
    rapidjson::StringBuffer buffer;
    Writer writer{buffer};
    MessageValues values;
};

bool writeFast(const RowInfo &row, const char *proto, std::size_t size, std::string &out)
{
    const Layout &layout = layoutOf(row);
    thread_local JsonWriter json;
    MessageValues &v = json.values;
    if (!readMessageValues(row, proto, size, v))
        return false;
    char time[48];
    std::size_t timeSize = 0;
    if (v.hasTimestamp) {   // quoted; digits and "-T:.Z" need no escape
        if (!timestampInRange(v.seconds, v.nanos) || (timeSize = formatTimestamp(v.seconds, v.nanos, time + 1)) == 0)
            return false;   // protobuf's writer names the fault
        time[0] = '"';
        time[++timeSize] = '"';
        ++timeSize;
    }

    using rapidjson::kNumberType;
    using rapidjson::kStringType;
    Writer &w = json.writer;
    json.buffer.Clear();
    w.Reset(json.buffer);
    w.StartObject();
    // protobuf writes the fields that always show in declaration order, then
    // the oneof members that are set; in the header the time comes last.
    if (v.hasHeader) {
        const HeaderShape &header = headerShape();
        w.raw(layout[layout.headerKey], kStringType);
        w.StartObject();
        w.raw(header.sequenceKey, kStringType);
        w.number([&](char *at) { return rapidjson::internal::i32toa(v.sequence, at); });
        w.raw(header.msgIdKey, kStringType);
        w.number([&](char *at) { return rapidjson::internal::u32toa(v.msgId, at); });
        if (v.hasTimestamp) {
            w.raw(header.timestampKey, kStringType);
            w.raw(std::string_view(time, timeSize), kStringType);
        }
        w.EndObject();
    }
    for (int pass = 0; pass < 2; ++pass) {
        for (std::size_t k = 0; k < layout.slots.size(); ++k) {
            const Slot &slot = layout.slots[k];
            const FieldValue &value = v.fields[k];
            if ((slot.oneof >= 0) != (pass == 1) || !value.present)
                continue;
            w.raw(layout[slot.key], kStringType);
            const std::uint32_t bits = value.bits;
            switch (slot.kind) {
            case Kind::UInt32: w.number([&](char *at) { return rapidjson::internal::u32toa(bits, at); }); break;
            case Kind::Int32:
                w.number([&](char *at) { return rapidjson::internal::i32toa(std::int32_t(bits), at); });
                break;
            case Kind::Bool: w.Bool(bits != 0); break;
            case Kind::Float: {
                const float f = floatOf(bits);
                if (std::isfinite(f))
                    w.number([&](char *at) { return at + formatFloatJson(f, at); });
                else
                    w.String(nonFiniteName(f));
                break;
            }
            }
        }
    }
    w.EndObject();
    out.append(json.buffer.GetString(), json.buffer.GetSize());
    return true;
}

} // namespace

bool appendJsonMessage(const RowInfo &row, const char *proto, std::size_t size, std::string &out,
                       std::string &error)
{
    if (writeFast(row, proto, size, out))
        return true;
    if (row.prototype == nullptr) {
        error = "no schema message for " + row.protoName;
        return false;
    }
    std::unique_ptr<Message> message(row.prototype->New());
    if (size > std::size_t(std::numeric_limits<int>::max()) || !message->ParseFromArray(proto, int(size))) {
        error = "the converted bytes do not parse as " + row.protoName;
        return false;
    }
    google::protobuf::util::JsonPrintOptions options;
    options.preserve_proto_field_names = true;
    options.always_print_primitive_fields = true;
    std::string text;
    const auto status = google::protobuf::util::MessageToJsonString(*message, &text, options);
    if (!status.ok()) {
        error = "no JSON for " + row.protoName + ": " + status.ToString();
        return false;
    }
    out += text;
    return true;
}

void appendFloatJson(std::string &out, float value)
{
    if (!std::isfinite(value)) {
        out += nonFiniteName(value);
        return;
    }
    char text[32];
    out.append(text, formatFloatJson(value, text));
}

void appendFloatShortest(std::string &out, float value)
{
    if (!std::isfinite(value)) {
        out += std::isnan(value) ? "nan" : value > 0 ? "inf" : "-inf";
        return;
    }
    char text[32];
    const auto r = std::to_chars(text, text + sizeof text, value);
    out.append(text, std::size_t(r.ptr - text));
}

void appendFieldValue(std::string &out, const FieldValue &value)
{
    if (!value.present || value.field == nullptr)
        return;
    char text[16];
    switch (value.field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_BOOL: out += value.bits != 0 ? "true" : "false"; return;
    case FieldDescriptor::CPPTYPE_FLOAT: appendFloatShortest(out, floatOf(value.bits)); return;
    case FieldDescriptor::CPPTYPE_INT32: {
        const auto r = std::to_chars(text, text + sizeof text, std::int32_t(value.bits));
        out.append(text, std::size_t(r.ptr - text));
        return;
    }
    default: {
        const auto r = std::to_chars(text, text + sizeof text, value.bits);
        out.append(text, std::size_t(r.ptr - text));
        return;
    }
    }
}

} // namespace vorlink
