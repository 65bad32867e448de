#include "ProtoText.h"

#include "BusLog.h"
#include "Dictionary.h"
#include "DumpLine.h"
#include "JsonCodec.h"

#include <google/protobuf/descriptor.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace vorlink {
namespace {

using google::protobuf::FieldDescriptor;

// The printer's float: "%.6g" when it reads back to the same float, else
// "%.9g" (the JSON writer's digits); "nan" for every NaN, "inf", "-inf", "-0".
void appendFloat(float value, std::string &out)
{
    if (std::isnan(value))
        out += "nan";
    else if (std::isinf(value))
        out += value < 0 ? "-inf" : "inf";
    else if (value == 0)
        out += std::signbit(value) ? "-0" : "0";
    else
        appendFloatJson(out, value);
}

} // namespace

void appendProtoText(const RowInfo &row, const BusLogEntry &entry, std::string &out)
{
    // The header as the library stamps it: the time split at the millisecond
    // with C++'s division (both parts negative before 1970), the sequence
    // through a short.
    const qint64 seconds = entry.msecs / 1000;
    const std::int32_t nanos = std::int32_t(entry.msecs % 1000) * 1000000;
    const std::int32_t sequence = std::int16_t(entry.sequence);
    out += "header {\n  timestamp {\n";
    if (seconds != 0) {
        out += "    seconds: ";
        appendDecimal(seconds, out);
        out += '\n';
    }
    if (nanos != 0) {
        out += "    nanos: ";
        appendDecimal(nanos, out);
        out += '\n';
    }
    out += "  }\n";
    if (sequence != 0) {
        out += "  sequence: ";
        appendDecimal(sequence, out);
        out += '\n';
    }
    if (entry.msgId != 0) {
        out += "  msgId: ";
        appendDecimal(unsigned(entry.msgId), out);
        out += '\n';
    }
    out += "}\n";

    // A field is printed when it is not zero: a float by its bits, so -0 is.
    const char *payload = entry.payload.constData();
    for (const WireField &field : row.fields) {
        if (field.position < 0)
            break;   // the oneof members come last, and are never set
        std::uint32_t bits = 0;
        std::memcpy(&bits, payload + field.position, std::size_t(field.width));   // little-endian, as the wire
        if (bits == 0)
            continue;
        out += field.name;
        out += ": ";
        switch (field.schemaField->cpp_type()) {
        case FieldDescriptor::CPPTYPE_BOOL: out += "true"; break;
        case FieldDescriptor::CPPTYPE_INT32:
            appendDecimal(field.type == WireType::S16 ? std::int32_t(std::int16_t(bits)) : std::int32_t(bits), out);
            break;
        case FieldDescriptor::CPPTYPE_FLOAT: {
            float f;
            std::memcpy(&f, &bits, sizeof f);
            appendFloat(f, out);
            break;
        }
        default: appendDecimal(bits, out); break;
        }
        out += '\n';
    }
}

} // namespace vorlink
