#include "JsonCodec.h"

#include "BusLog.h"
#include "Dictionary.h"
#include "WireRange.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/message.h>
#include <google/protobuf/timestamp.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/time_util.h>
#include <google/protobuf/wire_format_lite.h>

// RapidJSON's reader scans blanks and strings 16 bytes at a time with SSE2;
// it reads up to 15 bytes past the end, which the copy of the line it parses
// keeps for it.
#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

namespace vorlink {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::io::CodedInputStream;
using google::protobuf::internal::WireFormatLite;
using google::protobuf::util::TimeUtil;

// ------------------------------------------------------------------ layout
// How the fast paths see a row's schema message: the header at number 1 and
// scalar fields, each found by its number.

enum class Kind : std::uint8_t { UInt32, Int32, Bool, Float };

// A piece of a row's text, kept together with the others for the cache.
struct Span
{
    std::uint32_t at = 0, size = 0;
};

struct Slot
{
    const FieldDescriptor *field;
    Kind kind;
    int oneof;                 // index of its oneof in the message, or -1
    Span key;                  // the name as a JSON string, quoted and escaped
    Span name, jsonName;
};

struct Layout
{
    bool fast = false;         // only a header and scalar fields the fast paths know
    std::vector<Slot> slots;   // scalar fields in declaration order
    std::vector<int> byNumber; // field number -> slot; -1 none
    int headerNumber = 0;
    Span headerKey;
    std::string text;          // what the spans point into

    Span add(std::string_view piece)
    {
        const Span span{std::uint32_t(text.size()), std::uint32_t(piece.size())};
        text.append(piece.data(), piece.size());
        return span;
    }
    std::string_view operator[](Span span) const { return std::string_view(text.data() + span.at, span.size); }
    bool names(const Slot &slot, std::string_view name) const
    {
        const auto is = [&](Span span) {
            return span.size == name.size() && std::memcmp(text.data() + span.at, name.data(), name.size()) == 0;
        };
        return is(slot.name) || is(slot.jsonName);
    }
};

// A name as a JSON string, written by RapidJSON once.
std::string quoted(const std::string &name)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.String(name.data(), rapidjson::SizeType(name.size()));
    return std::string(buffer.GetString(), buffer.GetSize());
}

// The header's fields, checked once against the schema.
struct HeaderShape
{
    bool ok = false;
    std::string timestamp, sequence, msgId;   // their names (both forms are the same)
    std::string timestampKey, sequenceKey, msgIdKey;
};

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

const Layout &layoutOf(const RowInfo &row)
{
    return layouts().rows[std::size_t(&row - Dictionary::instance().rows().data())];
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

// ----------------------------------------------------------------- numbers

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// A whole JSON number that fits in 64 bits; one that does not is left to
// protobuf's parser, which refuses it.
bool wholeNumber(const char *text, const char *end, long long &value)
{
    const auto r = std::from_chars(text, end, value);
    return r.ec == std::errc() && r.ptr == end;
}

float floatOf(std::uint32_t bits)
{
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

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

// "YYYY-MM-DDTHH:MM:SS[.f{1,9}]Z" as protobuf reads it; false for any other
// spelling (offsets, lower-case letters), which protobuf then reads.
bool parseTimestamp(std::string_view text, qint64 &seconds, qint32 &nanos)
{
    static constexpr char pattern[] = "dddd-dd-ddTdd:dd:dd";
    if (text.size() < 20 || text.back() != 'Z')
        return false;
    for (std::size_t k = 0; k < 19; ++k)
        if (pattern[k] == 'd' ? !isDigit(text[k]) : text[k] != pattern[k])
            return false;
    const std::string_view fraction = text.substr(19, text.size() - 20);
    nanos = 0;
    if (!fraction.empty()) {
        if (fraction.size() < 2 || fraction.size() > 10 || fraction[0] != '.')
            return false;
        for (std::size_t k = 1; k < 10; ++k) {
            const char c = k < fraction.size() ? fraction[k] : '0';
            if (!isDigit(c))
                return false;
            nanos = nanos * 10 + (c - '0');
        }
    }
    thread_local SecondCache cache;
    if (cache.seconds == std::numeric_limits<qint64>::min() || std::memcmp(cache.text, text.data(), 19) != 0) {
        google::protobuf::Timestamp t;
        if (!TimeUtil::FromString(std::string(text.substr(0, 19)) + "Z", &t))
            return false;
        std::memcpy(cache.text, text.data(), 19);
        cache.seconds = t.seconds();
    }
    seconds = cache.seconds;
    return true;
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
    if (!layout.fast)
        return false;
    thread_local JsonWriter json;
    MessageValues &v = json.values;
    if (!readValues(layout, proto, size, v))
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
        const HeaderShape &header = layouts().header;
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

// ------------------------------------------------------------------ reader

// RapidJSON's SAX events of one line, checked against the row's layout as
// they come. Any event it does not expect stops the parse: the line then goes
// to protobuf.
class LineHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, LineHandler>
{
public:
    struct Value
    {
        std::uint32_t bits;
        bool seen;
    };

    void reset()
    {
        depth_ = 0;
        pending_ = None;
        layout_ = nullptr;
        row_ = nullptr;
        headerSeen_ = false;
        seenHeaderFields_ = 0;
        seconds_ = 0;
        nanos_ = 0;
        sequence_ = 0;
        msgId_ = 0;
        next_ = 0;
    }

    bool Default() { return false; }

    bool StartObject()
    {
        if (depth_ == 0 || (depth_ == 1 && pending_ == Header)) {
            pending_ = None;
            ++depth_;
            return true;
        }
        return false;
    }

    bool EndObject(rapidjson::SizeType)
    {
        if (pending_ != None)
            return false;
        if (--depth_ == 1) {   // the header is read: now the row is known
            headerSeen_ = true;
            if (msgId_ > 0xFFFF || (seenHeaderFields_ & 5) != 5)   // a time and an id, or protobuf's path says which is missing
                return false;
            row_ = Dictionary::instance().find(quint16(msgId_));
            if (row_ == nullptr)
                return false;
            layout_ = &layoutOf(*row_);
            if (!layout_->fast)
                return false;
            values_.assign(layout_->slots.size(), Value{0, false});
        }
        return true;
    }

    bool Key(const char *text, rapidjson::SizeType length, bool)
    {
        const std::string_view name(text, length);
        if (depth_ == 2) {
            const HeaderShape &h = layouts().header;
            const int bit = name == h.timestamp ? 1 : name == h.sequence ? 2 : name == h.msgId ? 4 : 0;
            if (bit == 0 || (seenHeaderFields_ & bit) != 0)
                return false;
            seenHeaderFields_ |= bit;
            pending_ = bit == 1 ? Timestamp : bit == 2 ? Sequence : MsgId;
            return true;
        }
        if (layout_ == nullptr)   // the header comes first, as protobuf writes it
            return !headerSeen_ && name == "header" && (pending_ = Header, true);
        // Fields mostly come in the order of the slots.
        const Layout &l = *layout_;
        const auto named = [&](const Slot &slot) { return l.names(slot, name); };
        const auto &slots = l.slots;
        std::size_t k = next_;
        if (k >= slots.size() || !named(slots[k])) {
            for (k = 0; k < slots.size(); ++k)
                if (named(slots[k]))
                    break;
            if (k == slots.size())
                return false;
        }
        if (values_[k].seen)
            return false;
        slot_ = k;
        next_ = k + 1;
        pending_ = Field;
        return true;
    }

    bool RawNumber(const char *text, rapidjson::SizeType length, bool)
    {
        const char *end = text + length;
        const bool integral = std::find_if(text, end, [](char c) { return c == '.' || c == 'e' || c == 'E'; }) == end;
        const PendingKind pending = pending_;
        pending_ = None;
        if (pending == Sequence || pending == MsgId) {
            long long v = 0;
            if (!integral || !wholeNumber(text, end, v))
                return false;
            if (pending == Sequence && v >= std::numeric_limits<qint32>::min() && v <= std::numeric_limits<qint32>::max())
                return sequence_ = qint32(v), true;
            if (pending == MsgId && v >= 0 && v <= std::numeric_limits<quint32>::max())
                return msgId_ = quint32(v), true;
            return false;
        }
        if (pending != Field)
            return false;
        const Slot &slot = layout_->slots[slot_];
        Value &value = values_[slot_];
        value.seen = true;
        if (slot.kind == Kind::Float) {
            float f;
            if (integral) {   // protobuf reads it as a whole number, then converts
                long long v = 0;
                if (!wholeNumber(text, end, v) || v < -(1LL << 53) || v > (1LL << 53))
                    return false;
                f = float(v);
            } else {
                double d;
                const auto r = std::from_chars(text, end, d);
                if (r.ptr != end || r.ec != std::errc() || !(std::fabs(d) <= double(std::numeric_limits<float>::max())))
                    return false;
                f = float(d);
            }
            std::memcpy(&value.bits, &f, sizeof f);
            return true;
        }
        long long v = 0;
        if (slot.kind == Kind::Bool || !integral || !wholeNumber(text, end, v))
            return false;
        if (slot.kind == Kind::UInt32 ? (v < 0 || v > std::numeric_limits<quint32>::max())
                                      : (v < std::numeric_limits<qint32>::min() || v > std::numeric_limits<qint32>::max()))
            return false;
        value.bits = std::uint32_t(v);
        return true;
    }

    bool Bool(bool b)
    {
        if (pending_ != Field || layout_->slots[slot_].kind != Kind::Bool)
            return false;
        pending_ = None;
        values_[slot_] = Value{b ? 1u : 0u, true};
        return true;
    }

    bool String(const char *text, rapidjson::SizeType length, bool)
    {
        const std::string_view s(text, length);
        const PendingKind pending = pending_;
        pending_ = None;
        if (pending == Timestamp)
            return parseTimestamp(s, seconds_, nanos_);
        if (pending != Field || layout_->slots[slot_].kind != Kind::Float)
            return false;
        float f;
        if (s == "NaN")
            f = std::numeric_limits<float>::quiet_NaN();
        else if (s == "Infinity")
            f = std::numeric_limits<float>::infinity();
        else if (s == "-Infinity")
            f = -std::numeric_limits<float>::infinity();
        else
            return false;
        values_[slot_].seen = true;
        std::memcpy(&values_[slot_].bits, &f, sizeof f);
        return true;
    }

    // The line's message, when it is one the fast path may give.
    bool finish(BusLogEntry &entry)
    {
        if (row_ == nullptr || depth_ != 0)
            return false;
        const qint64 msecs = seconds_ * 1000 + nanos_ / 1000000;
        if (sequence_ < -32768 || sequence_ > 65535 || msecs < 0 || msecs > maxBusLogMsecs)
            return false;   // protobuf's path names the fault
        // The fields as protobuf bytes, for the record to read.
        const auto &slots = layout_->slots;
        bytes_.resize(slots.size() * 16);
        std::uint8_t *p = bytes_.data();
        int oneofSeen = 0;
        for (std::size_t k = 0; k < slots.size(); ++k) {
            if (!values_[k].seen)
                continue;
            const Slot &slot = slots[k];
            if (slot.oneof >= 0) {
                if (slot.oneof >= 30 || (oneofSeen & (1 << slot.oneof)) != 0)
                    return false;
                oneofSeen |= 1 << slot.oneof;
            }
            const int number = slot.field->number();
            const std::uint32_t bits = values_[k].bits;
            switch (slot.kind) {
            case Kind::UInt32: p = WireFormatLite::WriteUInt32ToArray(number, bits, p); break;
            case Kind::Int32: p = WireFormatLite::WriteInt32ToArray(number, std::int32_t(bits), p); break;
            case Kind::Bool: p = WireFormatLite::WriteBoolToArray(number, bits != 0, p); break;
            case Kind::Float: p = WireFormatLite::WriteFloatToArray(number, floatOf(bits), p); break;
            }
        }
        // A value its wire field cannot hold goes to protobuf's path, which
        // names it.
        std::string tooWide;
        if (!checkWireRanges(*row_, reinterpret_cast<const char *>(bytes_.data()), std::size_t(p - bytes_.data()), tooWide))
            return false;
        const QByteArray proto =
            QByteArray::fromRawData(reinterpret_cast<const char *>(bytes_.data()), int(p - bytes_.data()));
        if (!row_->protoToWire(proto, entry.payload))
            return false;
        entry.msecs = msecs;
        entry.sequence = quint16(sequence_);
        entry.msgId = quint16(msgId_);
        return true;
    }

private:
    enum PendingKind { None, Header, Timestamp, Sequence, MsgId, Field };
    int depth_ = 0;
    PendingKind pending_ = None;
    const Layout *layout_ = nullptr;
    const RowInfo *row_ = nullptr;
    bool headerSeen_ = false;
    int seenHeaderFields_ = 0;
    qint64 seconds_ = 0;
    qint32 nanos_ = 0;
    qint32 sequence_ = 0;
    quint32 msgId_ = 0;
    std::size_t slot_ = 0, next_ = 0;
    std::vector<Value> values_;
    std::vector<std::uint8_t> bytes_;
};

} // namespace

bool readMessageValues(const RowInfo &row, const char *proto, std::size_t size, MessageValues &values)
{
    const Layout &layout = layoutOf(row);
    return layout.fast && readValues(layout, proto, size, values);
}

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

bool readJsonLineFast(std::string_view line, BusLogEntry &entry)
{
    struct Parser
    {
        rapidjson::Reader reader;
        LineHandler handler;
        std::string copy;
    };
    thread_local Parser parser;
    parser.handler.reset();
    // Parsed in place, in a copy: RapidJSON's strings then need no copy of their own.
    std::string &copy = parser.copy;
    copy.assign(line.data(), line.size());
    copy.append(16, '\0');
    rapidjson::InsituStringStream stream(&copy[0]);
    constexpr unsigned flags =
        rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseStopWhenDoneFlag;
    if (parser.reader.Parse<flags>(stream, parser.handler).IsError())
        return false;
    // Only blanks may follow the object (a NUL byte would end RapidJSON's stream).
    for (std::size_t k = stream.Tell(); k < line.size(); ++k)
        if (line[k] != ' ' && line[k] != '\t' && line[k] != '\r' && line[k] != '\n')
            return false;
    return parser.handler.finish(entry);
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
