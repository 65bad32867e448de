#include "SchemaMessage.h"

#include "Dictionary.h"
#include "WireRange.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/message.h>
#include <google/protobuf/wire_format_lite.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace vorlink {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::io::CodedInputStream;
using google::protobuf::internal::WireFormatLite;

namespace {

// A name as a JSON string, written by RapidJSON once.
std::string quoted(const std::string &name)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.String(name.data(), rapidjson::SizeType(name.size()));
    return std::string(buffer.GetString(), buffer.GetSize());
}


bool sameNames(const FieldDescriptor *f) { return f->name() == f->json_name(); }

HeaderShape checkHeader(const Descriptor *header)
{
    HeaderShape shape;
    if (header == nullptr || header->full_name() != "zelko.messages.Header" || header->field_count() != 3)
        return shape;
    const FieldDescriptor *t = header->FindFieldByNumber(1), *s = header->FindFieldByNumber(2),
                          *m = header->FindFieldByNumber(3);
    if (t == nullptr || s == nullptr || m == nullptr || t->message_type() == nullptr ||
        t->message_type()->full_name() != "google.protobuf.Timestamp" || s->type() != FieldDescriptor::TYPE_INT32 ||
        m->type() != FieldDescriptor::TYPE_UINT32 || t->is_repeated() || s->is_repeated() || m->is_repeated() ||
        !sameNames(t) || !sameNames(s) || !sameNames(m))
        return shape;
    shape.ok = true;
    shape.timestamp = t->name();
    shape.sequence = s->name();
    shape.msgId = m->name();
    shape.timestampKey = quoted(t->name());
    shape.sequenceKey = quoted(s->name());
    shape.msgIdKey = quoted(m->name());
    return shape;
}

Layout makeLayout(const RowInfo &row, const HeaderShape &header)
{
    Layout layout;
    const Descriptor *d = row.descriptor;
    if (d == nullptr || !header.ok)
        return layout;
    for (int i = 0; i < d->field_count(); ++i) {
        const FieldDescriptor *f = d->field(i);
        if (f->is_repeated() || f->number() > 4095)
            return layout;
        if (f->type() == FieldDescriptor::TYPE_MESSAGE) {
            // The header, first, once.
            if (i != 0 || f->message_type()->full_name() != "zelko.messages.Header" || f->containing_oneof() != nullptr)
                return layout;
            layout.headerNumber = f->number();
            layout.headerKey = layout.add(quoted(f->name()));
            continue;
        }
        Kind kind;
        switch (f->type()) {
        case FieldDescriptor::TYPE_UINT32: kind = Kind::UInt32; break;
        case FieldDescriptor::TYPE_INT32: kind = Kind::Int32; break;
        case FieldDescriptor::TYPE_BOOL: kind = Kind::Bool; break;
        case FieldDescriptor::TYPE_FLOAT: kind = Kind::Float; break;
        default: return layout;
        }
        const auto *oneof = f->real_containing_oneof();
        layout.slots.push_back({f, kind, oneof != nullptr ? oneof->index() : -1, layout.add(quoted(f->name())),
                                layout.add(f->name()), layout.add(f->json_name())});
    }
    if (layout.headerNumber == 0)
        return layout;
    int largest = layout.headerNumber;
    for (const Slot &s : layout.slots)
        largest = std::max(largest, s.field->number());
    layout.byNumber.assign(std::size_t(largest) + 1, -1);
    for (std::size_t k = 0; k < layout.slots.size(); ++k)
        layout.byNumber[std::size_t(layout.slots[k].field->number())] = int(k);
    layout.fast = true;
    return layout;
}

struct Layouts
{
    HeaderShape header;
    std::vector<Layout> rows;   // by index into Dictionary::rows()
};

const Layouts &layouts()
{
    static const Layouts all = [] {
        Layouts l;
        const Dictionary &dictionary = Dictionary::instance();
        l.header = checkHeader(google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(
            "zelko.messages.Header"));
        for (const RowInfo &row : dictionary.rows())
            l.rows.push_back(makeLayout(row, l.header));
        return l;
    }();
    return all;
}

// ---------------------------------------------------------- reading bytes


// protobuf's wire format over the bytes of one message, read as protobuf's
// parser reads it: a 32-bit field takes the low bits of its varint.
class WireReader
{
public:
    WireReader(const std::uint8_t *begin, const std::uint8_t *end) : p_(begin), end_(end) {}

    bool atEnd() const { return p_ == end_; }
    bool varint(std::uint64_t &value)
    {
        value = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            if (p_ == end_)
                return false;
            const std::uint8_t byte = *p_++;
            value |= std::uint64_t(byte & 0x7F) << shift;
            if (byte < 0x80)
                return true;
        }
        return false;
    }
    bool varint32(std::uint32_t &value)
    {
        std::uint64_t v;
        return varint(v) && (value = std::uint32_t(v), true);
    }
    bool fixed32(std::uint32_t &value)
    {
        if (end_ - p_ < 4)
            return false;
        p_ = CodedInputStream::ReadLittleEndian32FromArray(p_, &value);
        return true;
    }
    // The next field's number and wire type; number 0 when the tag is bad.
    int tag(WireFormatLite::WireType &type)
    {
        std::uint64_t tag;
        if (!varint(tag) || tag > 0xFFFFFFFFu)
            return 0;
        type = WireFormatLite::GetTagWireType(std::uint32_t(tag));
        return int(WireFormatLite::GetTagFieldNumber(std::uint32_t(tag)));
    }
    // A length-delimited field's bytes, for a reader of their own.
    bool nested(WireReader &inner)
    {
        std::uint64_t length;
        if (!varint(length) || length > std::uint64_t(end_ - p_))
            return false;
        inner = WireReader(p_, p_ + length);
        p_ += length;
        return true;
    }

    // Steps over a field of the given wire type; false when it does not fit.
    bool skip(WireFormatLite::WireType type)
    {
        std::uint64_t value;
        std::uint32_t word;
        WireReader inner(nullptr, nullptr);
        switch (type) {
        case WireFormatLite::WIRETYPE_VARINT: return varint(value);
        case WireFormatLite::WIRETYPE_FIXED32: return fixed32(word);
        case WireFormatLite::WIRETYPE_FIXED64: return fixed32(word) && fixed32(word);
        case WireFormatLite::WIRETYPE_LENGTH_DELIMITED: return nested(inner);
        default: return false;
        }
    }

    // Reads a submessage's fields with `field(reader, number, wireType)`,
    // which returns false on anything unexpected. Field numbers must rise.
    template <class Field>
    bool message(Field field)
    {
        WireReader inner(nullptr, nullptr);
        if (!nested(inner))
            return false;
        int last = 0;
        while (!inner.atEnd()) {
            WireFormatLite::WireType type;
            const int number = inner.tag(type);
            if (number <= last || !field(inner, number, type))
                return false;
            last = number;
        }
        return true;
    }

private:
    const std::uint8_t *p_, *end_;
};

bool readHeader(WireReader &in, MessageValues &v)
{
    v.hasHeader = true;
    return in.message([&](WireReader &header, int number, WireFormatLite::WireType type) {
        std::uint32_t u32;
        if (number == 1 && type == WireFormatLite::WIRETYPE_LENGTH_DELIMITED) {
            v.hasTimestamp = true;
            return header.message([&](WireReader &time, int n, WireFormatLite::WireType t) {
                std::uint64_t u64;
                if (t != WireFormatLite::WIRETYPE_VARINT || !time.varint(u64))
                    return false;
                if (n == 1)
                    v.seconds = qint64(u64);
                else if (n == 2)
                    v.nanos = qint32(std::uint32_t(u64));
                return n == 1 || n == 2;
            });
        }
        if (type != WireFormatLite::WIRETYPE_VARINT || (number != 2 && number != 3) || !header.varint32(u32))
            return false;
        (number == 2 ? reinterpret_cast<std::uint32_t &>(v.sequence) : v.msgId) = u32;
        return true;
    });
}

bool readValues(const Layout &layout, const char *data, std::size_t size, MessageValues &v)
{
    v.hasHeader = v.hasTimestamp = false;
    v.seconds = 0;
    v.nanos = v.sequence = 0;
    v.msgId = 0;
    v.fields.resize(layout.slots.size());
    for (std::size_t k = 0; k < layout.slots.size(); ++k)
        v.fields[k] = FieldValue{layout.slots[k].field, 0, layout.slots[k].oneof < 0};

    const auto *bytes = reinterpret_cast<const std::uint8_t *>(data);
    WireReader in(bytes, bytes + size);
    int last = 0;
    int oneofSeen = 0;   // bit per oneof
    while (!in.atEnd()) {
        WireFormatLite::WireType type;
        const int number = in.tag(type);
        if (number <= last || std::size_t(number) >= layout.byNumber.size())
            return false;
        last = number;
        if (number == layout.headerNumber) {
            if (type != WireFormatLite::WIRETYPE_LENGTH_DELIMITED || !readHeader(in, v))
                return false;
            continue;
        }
        const int index = layout.byNumber[std::size_t(number)];
        if (index < 0)
            return false;
        const Slot &slot = layout.slots[std::size_t(index)];
        FieldValue &value = v.fields[std::size_t(index)];
        if (slot.oneof >= 0) {
            if (slot.oneof >= 30 || (oneofSeen & (1 << slot.oneof)) != 0)
                return false;
            oneofSeen |= 1 << slot.oneof;
            value.present = true;
        }
        if (slot.kind == Kind::Float) {
            if (type != WireFormatLite::WIRETYPE_FIXED32 || !in.fixed32(value.bits))
                return false;
        } else if (slot.kind == Kind::Bool) {
            std::uint64_t b;
            if (type != WireFormatLite::WIRETYPE_VARINT || !in.varint(b))
                return false;
            value.bits = b != 0;
        } else if (type != WireFormatLite::WIRETYPE_VARINT || !in.varint32(value.bits)) {
            return false;
        }
    }
    return true;
}

LineResult headerError(std::string reason) { return LineResult::failed("bad header", std::move(reason)); }

} // namespace

const HeaderShape &headerShape() { return layouts().header; }

const Layout &layoutOf(const RowInfo &row)
{
    return layouts().rows[std::size_t(&row - Dictionary::instance().rows().data())];
}

bool readMessageValues(const RowInfo &row, const char *proto, std::size_t size, MessageValues &values)
{
    const Layout &layout = layoutOf(row);
    return layout.fast && readValues(layout, proto, size, values);
}

std::string notInRecord(const RowInfo &row, const std::string &member)
{
    return member + ": " + row.message + " carries no such field in its record (a oneof member of the schema, " +
           "which the bus does not carry as such); nothing is written without it";
}

bool checkRecordFields(const RowInfo &row, const char *proto, std::size_t size, std::string &error)
{
    if (!checkWireRanges(row, proto, size, error))
        return false;
    if (std::none_of(row.fields.begin(), row.fields.end(), [](const WireField &f) { return f.position < 0; }))
        return true;   // no schema-only field to look for
    // A schema-only field set anywhere in the bytes would be dropped by the record.
    const auto *p = reinterpret_cast<const std::uint8_t *>(proto);
    WireReader in(p, p + size);
    while (!in.atEnd()) {
        WireFormatLite::WireType type;
        const int number = in.tag(type);
        if (number == 0)
            return true;   // protobuf's parser names what is wrong
        for (const WireField &field : row.fields)
            if (field.position < 0 && field.schemaField != nullptr && field.schemaField->number() == number) {
                error = notInRecord(row, field.name);
                return false;
            }
        if (!in.skip(type))
            return true;
    }
    return true;
}

Decimal readDecimal(std::string_view text, qint64 &value)
{
    std::size_t i = 0;
    const bool negative = !text.empty() && text[0] == '-';
    i += negative || (!text.empty() && text[0] == '+');
    if (text.size() > i + 2 && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
        quint64 magnitude = 0;
        const auto r = std::from_chars(text.data() + i + 2, text.data() + text.size(), magnitude, 16);
        if (r.ptr != text.data() + text.size())
            return Decimal::NotNumber;
        if (r.ec != std::errc() || magnitude > quint64(std::numeric_limits<qint64>::max()))
            return Decimal::TooWide;
        value = negative ? -qint64(magnitude) : qint64(magnitude);
        return Decimal::Whole;
    }
    // The digits without their point, and the power of ten they are scaled by.
    std::string digits;
    qint64 exponent = 0;
    bool point = false, any = false;
    for (; i < text.size() && ((text[i] >= '0' && text[i] <= '9') || (text[i] == '.' && !point)); ++i) {
        if (text[i] == '.') {
            point = true;
            continue;
        }
        any = true;
        if (point)
            --exponent;
        if (!digits.empty() || text[i] != '0')
            digits.push_back(text[i]);
    }
    if (!any)
        return Decimal::NotNumber;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        const bool down = i < text.size() && text[i] == '-';
        i += down || (i < text.size() && text[i] == '+');
        qint64 power = 0;
        const std::size_t start = i;
        for (; i < text.size() && (text[i] >= '0' && text[i] <= '9'); ++i)
            power = std::min<qint64>(power * 10 + (text[i] - '0'), qint64(1) << 40);
        if (i == start)
            return Decimal::NotNumber;
        exponent += down ? -power : power;
    }
    if (i != text.size())
        return Decimal::NotNumber;
    while (!digits.empty() && digits.back() == '0') {
        digits.pop_back();
        ++exponent;
    }
    if (digits.empty()) {
        value = 0;
        return Decimal::Whole;
    }
    if (exponent < 0)
        return Decimal::NotWhole;
    if (qint64(digits.size()) + exponent > 19)
        return Decimal::TooWide;
    digits.append(std::size_t(exponent), '0');
    quint64 magnitude = 0;
    if (std::from_chars(digits.data(), digits.data() + digits.size(), magnitude).ec != std::errc() ||
        magnitude > quint64(std::numeric_limits<qint64>::max()) + (negative ? 1 : 0))
        return Decimal::TooWide;
    value = negative ? qint64(0 - magnitude) : qint64(magnitude);
    return Decimal::Whole;
}

std::string checkLiteral(const WireField &field, std::string_view text)
{
    if (field.schemaField == nullptr || field.schemaField->cpp_type() == FieldDescriptor::CPPTYPE_BOOL)
        return {};
    const std::string shown(text);
    const std::size_t sign = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
    if (text.size() > sign && std::isalpha(static_cast<unsigned char>(text[sign])) &&
        !(text.size() > sign + 1 && text[sign] == '0'))
        return {};   // a word: the parser knows which it takes
    if (field.type == WireType::F32) {
        std::string_view number = text.substr(text.size() > 1 && text[0] == '+' ? 1 : 0);
        if (!number.empty() && (number.back() == 'f' || number.back() == 'F'))
            number.remove_suffix(1);   // protobuf text's float suffix
        double value = 0;
        const auto r = std::from_chars(number.data(), number.data() + number.size(), value);
        if (number.empty() || r.ptr != number.data() + number.size())
            return field.name + ": '" + shown + "' is not a number";
        // Rounded to the nearest float, as make does; refused when that is no longer finite.
        if (r.ec != std::errc() || !std::isfinite(float(value)))
            return doesNotFit(field.name, field.type, shown);
        return {};
    }
    qint64 value = 0;
    switch (readDecimal(text, value)) {
    case Decimal::NotNumber: return field.name + ": '" + shown + "' is not a number";
    case Decimal::NotWhole: return notWhole(field.name, field.type, shown);
    case Decimal::TooWide: return doesNotFit(field.name, field.type, shown);
    case Decimal::Whole: break;
    }
    return fitsWire(field.type, value) ? std::string() : doesNotFit(field.name, field.type, shown);
}

LineResult wireFromProto(const RowInfo &row, const std::string &proto, QByteArray &wire)
{
    std::string fault;
    if (!checkRecordFields(row, proto.data(), proto.size(), fault))
        return LineResult::failed(fault.find(" carries no such field") != std::string::npos ? "not in the record"
                                                                                           : "value out of range",
                                  fault);
    if (!row.protoToWire(QByteArray::fromRawData(proto.data(), int(proto.size())), wire))
        return LineResult::failed("bad record", "the library could not read " + row.protoName + " back");
    return LineResult::message();
}

LineResult checkHeaderValues(qint64 seconds, qint64 nanos, qint64 sequence, qint64 msgId, BusLogEntry &entry,
                             const RowInfo *&row)
{
    if (msgId < 0 || msgId > 0xFFFF)
        return headerError("msgId " + std::to_string(msgId) + " is larger than 0xFFFF");
    row = Dictionary::instance().find(quint16(msgId));
    if (row == nullptr || row->prototype == nullptr)
        return headerError("unknown message id " + hexId(unsigned(msgId)));
    if (sequence < -32768 || sequence > 65535)
        return headerError("sequence " + std::to_string(sequence) + " does not fit in 16 bits");
    if (nanos < 0 || nanos > 999999999)
        return headerError("header.timestamp.nanos " + std::to_string(nanos) + " is not from 0 to 999999999");
    if (seconds < 0 || seconds > maxBusLogMsecs / 1000)
        return headerError(seconds < 0 ? "timestamp before 1970 cannot be written to a bus log"
                                       : "timestamp after 9999 cannot be written to a bus log");
    entry.msecs = seconds * 1000 + nanos / 1000000;
    entry.sequence = quint16(sequence);
    entry.msgId = quint16(msgId);
    return LineResult::message();
}

LineResult readSchemaHeader(const Message &envelope, BusLogEntry &entry, const RowInfo *&row)
{
    const auto *reflection = envelope.GetReflection();
    const auto *headerField = envelope.GetDescriptor()->FindFieldByName("header");
    if (!reflection->HasField(envelope, headerField))
        return headerError("the message has no \"header\"");
    const Message &header = reflection->GetMessage(envelope, headerField);
    const auto *headerType = header.GetDescriptor();
    const auto *headerReflection = header.GetReflection();
    const quint32 msgId = headerReflection->GetUInt32(header, headerType->FindFieldByName("msgId"));
    const qint32 sequence = headerReflection->GetInt32(header, headerType->FindFieldByName("sequence"));
    const auto *timestampField = headerType->FindFieldByName("timestamp");
    if (!headerReflection->HasField(header, timestampField))
        return headerError("the header has no \"timestamp\"");
    const Message &timestamp = headerReflection->GetMessage(header, timestampField);
    const auto *timeType = timestamp.GetDescriptor();
    const qint64 seconds = timestamp.GetReflection()->GetInt64(timestamp, timeType->FindFieldByName("seconds"));
    const qint32 nanos = timestamp.GetReflection()->GetInt32(timestamp, timeType->FindFieldByName("nanos"));
    return checkHeaderValues(seconds, nanos, sequence, msgId, entry, row);
}

} // namespace vorlink
