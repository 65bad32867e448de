// The JSON writer and the fast JSON reader against protobuf's own JSON
// utilities, over every row of the dictionary with random values.

#include "JsonReader.h"
#include "Dictionary.h"
#include "JsonCodec.h"
#include "WireRange.h"

#include "ZelkoMsgDefs.pb.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <regex>

namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using Limits = std::numeric_limits<float>;

class RandomValues
{
public:
    std::uint32_t below(std::uint32_t n) { return std::uint32_t(random_() % n); }
    std::uint32_t u32()
    {
        const std::uint32_t edge[] = {0, 1, 127, 128, 0xFFFFFFFFu};
        return below(2) ? edge[below(5)] : std::uint32_t(random_());
    }
    std::int32_t i32()
    {
        const std::int32_t edge[] = {0, -1, std::numeric_limits<std::int32_t>::min(),
                                     std::numeric_limits<std::int32_t>::max()};
        return below(2) ? edge[below(4)] : std::int32_t(random_());
    }
    float f32()
    {
        const float edge[] = {Limits::quiet_NaN(), Limits::infinity(), -Limits::infinity(), 0.0f, -0.0f,
                              Limits::max(), -Limits::min(), Limits::denorm_min(), 0.1f, 100000.0f};
        switch (below(4)) {
        case 0: return edge[below(10)];
        case 1: return std::ldexp(below(2) ? 1.0f : -1.0f, int(below(250)) - 140);   // powers of two
        case 2: return float(std::int32_t(below(2000001)) - 1000000) / 100.0f;
        default: {
            const std::uint32_t bits = std::uint32_t(random_());
            float f;
            std::memcpy(&f, &bits, sizeof f);
            return std::isnan(f) ? Limits::quiet_NaN() : f;   // protobuf writes every NaN as "NaN"
        }
        }
    }

    // A schema message with random values, one member or none of each oneof;
    // its header one a bus log can carry and its values ones their wire
    // fields hold when `loggable`, else any that protobuf can write, or none.
    void fill(Message &m, bool loggable, const vorlink::RowInfo &row)
    {
        const auto *d = m.GetDescriptor();
        const auto *r = m.GetReflection();
        for (int i = 0; i < d->field_count(); ++i) {
            const FieldDescriptor *f = d->field(i);
            if (const auto *oneof = f->containing_oneof()) {
                if (oneof->field(0) != f)
                    continue;   // one draw for the whole oneof
                const int pick = int(below(std::uint32_t(oneof->field_count() + 1)));
                if (pick == oneof->field_count())
                    continue;   // none set
                f = oneof->field(pick);
            }
            // The wire range of the field, or all of the schema type's.
            vorlink::WireRange range{std::numeric_limits<qint64>::min(), std::numeric_limits<qint64>::max()};
            for (const vorlink::WireField &w : row.fields)
                if (loggable && w.schemaField == f && !w.wireType.empty())
                    range = vorlink::wireRange(w.type);
            const auto into = [&](qint64 v) {
                if (v >= range.min && v <= range.max)
                    return v;
                const qint64 n = range.max - range.min + 1;
                return below(2) ? (below(2) ? range.min : range.max) : range.min + (v % n + n) % n;
            };
            switch (f->cpp_type()) {
            case FieldDescriptor::CPPTYPE_UINT32: r->SetUInt32(&m, f, std::uint32_t(into(u32()))); break;
            case FieldDescriptor::CPPTYPE_INT32: r->SetInt32(&m, f, std::int32_t(into(i32()))); break;
            case FieldDescriptor::CPPTYPE_BOOL: r->SetBool(&m, f, below(2) != 0); break;
            case FieldDescriptor::CPPTYPE_FLOAT: r->SetFloat(&m, f, f32()); break;
            case FieldDescriptor::CPPTYPE_MESSAGE:
                fillHeader(dynamic_cast<zelko::messages::Header &>(*r->MutableMessage(&m, f)), loggable);
                break;
            default: FAIL() << f->full_name() << " has a type the test does not fill";
            }
        }
        if (!loggable && below(8) == 0)
            r->ClearField(&m, d->field(0));
    }

private:
    void fillHeader(zelko::messages::Header &header, bool loggable)
    {
        const qint64 first = loggable ? 0 : -62135596800LL, last = 253402300799LL;
        qint64 seconds = below(2) ? qint64(below(4)) - 2 + 1700000000 * qint64(below(2))
                                  : first + qint64(random_() % std::uint64_t(last - first + 1));
        const std::int32_t unit[] = {1, 1000, 1000000, 1000000000};
        const std::int32_t nanos = std::int32_t(below(1000000000));
        header.mutable_timestamp()->set_seconds(loggable ? std::max<qint64>(seconds, 0) : seconds);
        header.mutable_timestamp()->set_nanos(nanos - nanos % unit[below(4)]);
        header.set_sequence(loggable ? std::int32_t(below(65536 + 32768)) - 32768 : i32());
        header.set_msgid(u32());
        if (!loggable && below(8) == 0)
            header.clear_timestamp();
    }

    std::mt19937_64 random_{20261123};
};

std::string protobufJson(const Message &m, bool originalNames)
{
    google::protobuf::util::JsonPrintOptions options;
    options.preserve_proto_field_names = originalNames;
    options.always_print_primitive_fields = true;
    std::string text;
    EXPECT_TRUE(google::protobuf::util::MessageToJsonString(m, &text, options).ok());
    return text;
}

} // namespace

// Over every row: the writer writes what protobuf's printer writes (but -0 as
// -0.0), and protobuf's parser reads it back to the very message; the fast
// reader reads protobuf's output in both name forms to the entry protobuf's
// parser and the record give.
TEST(JsonCodec, AgreesWithProtobufOnEveryRow)
{
    const auto &dictionary = vorlink::Dictionary::instance();
    RandomValues values;
    const std::regex negativeZero(":-0([,}])");
    int fastLines = 0;
    for (const vorlink::RowInfo &row : dictionary.rows()) {
        SCOPED_TRACE(row.protoName);
        for (int n = 0; n < 8; ++n) {
            const bool loggable = n % 2 == 0;
            std::unique_ptr<Message> m(row.prototype->New());
            values.fill(*m, loggable, row);
            if (loggable)
                dynamic_cast<zelko::messages::Header &>(*m->GetReflection()->MutableMessage(m.get(), row.descriptor->field(0)))
                    .set_msgid(row.id);
            const std::string bytes = m->SerializeAsString();

            std::string written = "kept", error;
            ASSERT_TRUE(vorlink::appendJsonMessage(row, bytes.data(), bytes.size(), written, error)) << error;
            ASSERT_EQ(written, "kept" + std::regex_replace(protobufJson(*m, true), negativeZero, ":-0.0$1"));
            std::unique_ptr<Message> back(row.prototype->New());
            ASSERT_TRUE(google::protobuf::util::JsonStringToMessage(written.substr(4), back.get()).ok()) << written;
            ASSERT_EQ(back->SerializeAsString(), bytes) << written;

            if (!loggable)
                continue;
            for (const bool originalNames : {true, false}) {
                const std::string line = protobufJson(*m, originalNames);
                std::unique_ptr<Message> parsed(row.prototype->New());
                ASSERT_TRUE(google::protobuf::util::JsonStringToMessage(line, parsed.get()).ok());
                const std::string parsedBytes = parsed->SerializeAsString();
                vorlink::BusLogEntry want;
                ASSERT_TRUE(row.protoToWire(QByteArray(parsedBytes.data(), int(parsedBytes.size())), want.payload));

                vorlink::BusLogEntry fast, any;
                const bool tookFast = vorlink::readJsonLineFast(line, fast);
                const vorlink::LineResult result = vorlink::parseJsonLine(line, any);
                // A oneof member has no field in the record: refused on either path, never dropped.
                bool member = false;
                for (int k = 0; k < row.descriptor->oneof_decl_count(); ++k)
                    member = member || m->GetReflection()->HasOneof(*m, row.descriptor->oneof_decl(k));
                if (member) {
                    EXPECT_FALSE(tookFast) << line;
                    EXPECT_STREQ(result.cause, "not in the record") << line;
                    continue;
                }
                ASSERT_TRUE(result.isMessage()) << result.reason << "\n" << line;
                // Only the largest floats' nine digits lie above the largest float.
                EXPECT_TRUE(tookFast || line.find("e+38") != std::string::npos) << line;
                fastLines += tookFast;
                zelko::messages::Envelope envelope;
                ASSERT_TRUE(envelope.ParseFromString(parsedBytes));
                const auto &time = envelope.header().timestamp();
                for (const vorlink::BusLogEntry *e : {&any, tookFast ? &fast : &any}) {
                    EXPECT_EQ(e->payload, want.payload) << line;
                    EXPECT_EQ(e->msgId, row.id);
                    EXPECT_EQ(e->sequence, quint16(envelope.header().sequence()));
                    EXPECT_EQ(e->msecs, time.seconds() * 1000 + time.nanos() / 1000000) << line;
                }
            }
        }
    }
    EXPECT_GT(fastLines, 474 * 8 * 3 / 4);
}
