#include "WireRange.h"
#include "Dictionary.h"

#include <google/protobuf/descriptor.h>

#include <cstdint>
#include <limits>
#include <vector>

namespace vorlink {

const char *wireTypeName(WireType type)
{
    static const char *const names[] = {"U08", "U16", "U32", "S16", "S32", "F32"};
    return names[int(type)];
}

WireRange wireRange(WireType type)
{
    switch (type) {
    case WireType::U08: return {0, 0xFF};
    case WireType::U16: return {0, 0xFFFF};
    case WireType::U32: return {0, 0xFFFFFFFFLL};
    case WireType::S16: return {-0x8000, 0x7FFF};
    case WireType::S32: return {-0x80000000LL, 0x7FFFFFFF};
    case WireType::F32: break;
    }
    return {std::numeric_limits<qint64>::min(), std::numeric_limits<qint64>::max()};
}

bool fitsWire(WireType type, qint64 value)
{
    const WireRange range = wireRange(type);
    return value >= range.min && value <= range.max;
}

std::string doesNotFit(const std::string &field, WireType type, const std::string &value)
{
    const WireRange range = wireRange(type);
    std::string text = field + ": " + value + " does not fit " + wireTypeName(type);
    if (type == WireType::F32)
        return text + " (a finite float up to 3.4028235e38 either way, or NaN or an infinity)";
    return text + " (" + std::to_string(range.min) + " to " + std::to_string(range.max) + ")";
}

std::string notWhole(const std::string &field, WireType type, const std::string &value)
{
    const WireRange range = wireRange(type);
    return field + ": " + value + " is not a whole number, which " + wireTypeName(type) + " needs (" +
           std::to_string(range.min) + " to " + std::to_string(range.max) + ")";
}

namespace {

bool readVarint(const std::uint8_t *&p, const std::uint8_t *end, std::uint64_t &value)
{
    value = 0;
    for (int shift = 0; shift < 64 && p < end; shift += 7) {
        const std::uint8_t byte = *p++;
        value |= std::uint64_t(byte & 0x7F) << shift;
        if (byte < 0x80)
            return true;
    }
    return false;
}

bool skipField(const std::uint8_t *&p, const std::uint8_t *end, unsigned wireType)
{
    std::uint64_t length = 0;
    switch (wireType) {
    case 0: return readVarint(p, end, length);
    case 1: length = 8; break;
    case 5: length = 4; break;
    case 2:
        if (!readVarint(p, end, length))
            return false;
        break;
    default: return false;
    }
    if (length > std::uint64_t(end - p))
        return false;
    p += length;
    return true;
}

} // namespace

bool checkWireRanges(const RowInfo &row, const char *proto, std::size_t size, std::string &error)
{
    // The varint of each field with an integer wire type, by schema number.
    struct Seen
    {
        const WireField *field = nullptr;
        std::uint64_t raw = 0;
        bool present = false;
    };
    thread_local std::vector<Seen> seen;
    seen.clear();
    for (const WireField &field : row.fields) {
        if (field.wireType.empty() || field.type == WireType::F32 || field.schemaField == nullptr ||
            field.schemaField->cpp_type() == google::protobuf::FieldDescriptor::CPPTYPE_BOOL)
            continue;
        const std::size_t number = std::size_t(field.schemaField->number());
        if (seen.size() <= number)
            seen.resize(number + 1);
        seen[number].field = &field;
    }
    const auto *p = reinterpret_cast<const std::uint8_t *>(proto);
    const auto *end = p + size;
    while (p < end) {
        std::uint64_t tag;
        if (!readVarint(p, end, tag))
            return true;
        const std::uint64_t number = tag >> 3;
        const unsigned type = unsigned(tag & 7);
        if (type == 0 && number < seen.size() && seen[number].field != nullptr) {
            if (!readVarint(p, end, seen[number].raw))
                return true;
            seen[number].present = true;
        } else if (!skipField(p, end, type)) {
            return true;
        }
    }
    for (const Seen &s : seen) {
        if (!s.present)
            continue;
        const WireField &field = *s.field;
        const bool isSigned = field.schemaField->cpp_type() == google::protobuf::FieldDescriptor::CPPTYPE_INT32;
        // An int32 is written as its 64-bit two's complement, a uint32 as
        // itself; read as a qint64, a uint32 past 63 bits is negative and
        // fits no wire type either.
        if (!fitsWire(field.type, qint64(s.raw))) {
            error = doesNotFit(field.name, field.type, isSigned ? std::to_string(qint64(s.raw)) : std::to_string(s.raw));
            return false;
        }
    }
    return true;
}

} // namespace vorlink
