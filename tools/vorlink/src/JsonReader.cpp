// The fast path of the JSON reader: a line of the common shape, read with
// RapidJSON's SAX reader against the row's layout; any other line goes to the
// slow path (JsonSlowReader.cpp).

#include "JsonReader.h"

#include "Dictionary.h"
#include "SchemaMessage.h"
#include "WireRange.h"

#include <google/protobuf/timestamp.pb.h>
#include <google/protobuf/util/time_util.h>
#include <google/protobuf/wire_format_lite.h>

// RapidJSON's reader scans blanks and strings 16 bytes at a time with SSE2;
// it reads up to 15 bytes past the end, which the copy of the line it parses
// keeps for it.
#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/reader.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace vorlink {
namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::util::TimeUtil;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// A whole JSON number that fits in 64 bits; anything else is left to the
// slow path, which names it.
bool wholeNumber(const char *text, const char *end, long long &value)
{
    const auto r = std::from_chars(text, end, value);
    return r.ec == std::errc() && r.ptr == end;
}

// ------------------------------------------------------------------ times
// The date and time of day of a second; a log's messages mostly share their
// second with the one before, so it is kept.

struct SecondCache
{
    qint64 seconds = std::numeric_limits<qint64>::min();
    char text[20] = {};   // YYYY-MM-DDTHH:MM:SS
};

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

// ------------------------------------------------------------- fast reader


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
            const HeaderShape &h = headerShape();
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
        // A value its wire field cannot hold, or a oneof member, goes to the
        // slow path, which names it.
        std::string tooWide;
        if (!checkRecordFields(*row_, reinterpret_cast<const char *>(bytes_.data()), std::size_t(p - bytes_.data()), tooWide))
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

} // namespace vorlink
