// Properties that hold for every row of the dictionary, checked over all rows
// of the built library against the message list it was generated from.

#include "LogCapture.h"
#include "MessageList.h"
#include "RecordOps.h"

#include "ZelkoMsgProtoUtils.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/message.h>

#include <gtest/gtest.h>

#include <QRegularExpression>

#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>

using namespace testing_support;
using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

namespace {

const char kCanary = char(0xA5);

const Descriptor *schemaOf(uint16_t id)
{
    return google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(zelko::msgIdToProtoName(id));
}

std::unique_ptr<google::protobuf::Message> parseAs(const Descriptor *d, const QByteArray &bytes)
{
    std::unique_ptr<google::protobuf::Message> m(
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(d)->New());
    EXPECT_TRUE(m->ParseFromArray(bytes.constData(), bytes.size()));
    return m;
}

QByteArray randomBytes(std::mt19937 &rng, int size)
{
    QByteArray b(size, 0);
    for (char &c : b)
        c = char(rng());
    return b;
}

uint32_t littleEndian(const QByteArray &b, int position, int width)
{
    uint32_t v = 0;
    for (int k = width - 1; k >= 0; --k)
        v = (v << 8) | uint8_t(b[position + k]);
    return v;
}

Bytra::Can::Message canMessage(uint16_t id, const QByteArray &payload)
{
    Bytra::Can::Message m;
    m.msgId = id;
    m.sequence = 0x8001;
    m.payload = payload;
    return m;
}

struct ProbedField
{
    std::string name;
    std::string type;
    int position;
};

// Learns a record's fields from the library alone: grows the payload until the
// decode passes, reading each field's name, type and position off the
// warning of the read that did not fit.
std::vector<ProbedField> probeFields(uint16_t id)
{
    static const QRegularExpression warning(
        QStringLiteral("^Not enough data from position (\\d+) to the length of (\\d+) to get data of type "
                       "'N5Bytra5Types3(\\w+)E' in buffer [0-9a-f.]* for value (\\w+)$"));
    std::vector<ProbedField> fields;
    int size = 0;
    for (;;) {
        LogCapture log;
        QByteArray out;
        if (zelko::canMessageToProtobufByteArray(QDateTime::fromMSecsSinceEpoch(0), canMessage(id, QByteArray(size, 0)),
                                                 out))
            return fields;
        if (log.lines().size() != 1) {
            ADD_FAILURE() << "id " << id << ": expected one warning at size " << size;
            return fields;
        }
        const auto m = warning.match(QString::fromStdString(log.lines()[0].text));
        if (!m.hasMatch() || log.lines()[0].category != "bytra.types" || m.captured(1).toInt() != size) {
            ADD_FAILURE() << "id " << id << ": " << log.lines()[0].text;
            return fields;
        }
        fields.push_back({m.captured(4).toStdString(), m.captured(3).toStdString(), size});
        size += m.captured(2).toInt();
    }
}

} // namespace

TEST(Dictionary, AllTablesAndTheDispatchHaveTheSameKeys)
{
    std::set<int> named, protoNamed, sized, converted;
    LogCapture log; // thousands of "not handled" lines
    const QByteArray plenty(4096, 0);
    for (int id = 0; id <= 0xFFFF; ++id) {
        if (!zelko::msgIdString(zelko::MsgId(id)).startsWith(QLatin1String("0x")))
            named.insert(id);
        if (!zelko::msgIdToProtoName(uint16_t(id)).empty())
            protoNamed.insert(id);
        if (zelko::payloadSize.contains(zelko::MsgId(id)))
            sized.insert(id);
        QByteArray out;
        if (zelko::canMessageToProtobufByteArray(QDateTime::fromMSecsSinceEpoch(0), canMessage(uint16_t(id), plenty), out))
            converted.insert(id);
    }
    EXPECT_EQ(named.size(), 474u);
    EXPECT_EQ(protoNamed, named);
    EXPECT_EQ(sized, named);
    EXPECT_EQ(converted, named);
    EXPECT_EQ(zelko::payloadSize.size(), 474);

    std::map<int, int> classes;
    for (int id : named)
        ++classes[id & 0xFF];
    EXPECT_EQ(classes, (std::map<int, int>{{0x00, 192}, {0x80, 87}, {0xA0, 114}, {0xB0, 77}, {0xFF, 4}}));

    std::set<int> listed;
    for (const ListedRow &row : messageList())
        listed.insert(row.id);
    EXPECT_EQ(listed, named);
}

TEST(Dictionary, RecordsProbedThroughTheLibraryMatchTheListAndItsCounts)
{
    std::map<std::string, int> byType;
    int withoutFields = 0;
    std::set<std::string> differingSize;
    for (const ListedRow &row : messageList()) {
        const std::vector<ProbedField> probed = probeFields(row.id);
        ASSERT_EQ(probed.size(), row.fields.size()) << row.message;
        int position = 0;
        for (size_t k = 0; k < probed.size(); ++k) {
            EXPECT_EQ(probed[k].name, row.fields[k].name) << row.message;
            EXPECT_EQ(probed[k].type, row.fields[k].wire) << row.message << "." << probed[k].name;
            EXPECT_EQ(probed[k].position, position) << row.message << "." << probed[k].name;
            position += row.fields[k].width();
            ++byType[probed[k].type];
        }
        withoutFields += probed.empty();
        if (zelko::payloadSize.value(zelko::MsgId(row.id)) != position)
            differingSize.insert(row.message);
    }
    EXPECT_EQ(withoutFields, 124);
    EXPECT_EQ(byType, (std::map<std::string, int>{
                          {"U08", 93}, {"U16", 8}, {"U32", 781}, {"S16", 8}, {"S32", 8}, {"F32", 360}}));
    EXPECT_EQ(differingSize, (std::set<std::string>{"TdEvent", "DdEvent", "FpEvent", "TdSetTreatmentParameter",
                                                    "DdSafetyShutdownOverrideRequest"}));
}

TEST(Dictionary, NamesFollowFromTheEnumerator)
{
    for (const ListedRow &row : messageList()) {
        const QString enumerator = zelko::msgIdString(zelko::MsgId(row.id));
        ASSERT_TRUE(enumerator.startsWith(QLatin1String("MSG_ID_")));
        QString message;
        for (const QString &word : enumerator.mid(7).split(QLatin1Char('_')))
            message += word.left(1).toUpper() + word.mid(1).toLower();
        EXPECT_EQ(enumerator.toStdString(), row.enumerator);
        EXPECT_EQ(zelko::msgIdToProtoName(row.id), "zelko.messages." + message.toStdString());
    }
}

TEST(Dictionary, SchemaHoldsHeaderEnvelopeThenEveryRowInIdOrder)
{
    const Descriptor *header = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(
        "zelko.messages.Header");
    ASSERT_NE(header, nullptr);
    const auto *file = header->file();
    ASSERT_EQ(file->message_type_count(), 476);
    EXPECT_EQ(file->message_type(0), header);
    EXPECT_EQ(file->message_type(1)->full_name(), "zelko.messages.Envelope");
    EXPECT_EQ(file->enum_type_count(), 0);
    EXPECT_EQ(file->syntax(), google::protobuf::FileDescriptor::SYNTAX_PROTO3);

    int bools = 0;
    int previousId = -1;
    for (int i = 2; i < file->message_type_count(); ++i) {
        const Descriptor *d = file->message_type(i);
        const std::string name = d->full_name();
        int id = -1;
        for (const ListedRow &row : messageList())
            if (zelko::msgIdToProtoName(row.id) == name)
                id = row.id;
        ASSERT_GT(id, previousId) << name;
        previousId = id;
        const ListedRow &row = *findListedRow(uint16_t(id));

        ASSERT_EQ(d->field(0)->name(), "header");
        EXPECT_EQ(d->field(0)->number(), 1);
        EXPECT_EQ(d->field(0)->message_type(), header);
        int number = 2;
        for (const ListedField &f : row.fields) {
            const FieldDescriptor *fd = d->FindFieldByName(f.name);
            ASSERT_NE(fd, nullptr) << name << "." << f.name;
            EXPECT_EQ(fd->number(), number) << name << "." << f.name;
            const auto expected = f.asBool ? FieldDescriptor::TYPE_BOOL
                                  : f.wire == "F32"                      ? FieldDescriptor::TYPE_FLOAT
                                  : f.wire[0] == 'S'                     ? FieldDescriptor::TYPE_INT32
                                                                         : FieldDescriptor::TYPE_UINT32;
            EXPECT_EQ(fd->type(), expected) << name << "." << f.name;
            EXPECT_EQ(fd->label(), FieldDescriptor::LABEL_OPTIONAL);
            bools += f.asBool;
            number += f.oneofBehind ? 5 : 1;
        }
        EXPECT_EQ(d->field_count(), number - 1) << name;
        EXPECT_EQ(d->real_oneof_decl_count() > 0, row.isUnion()) << name;
        EXPECT_EQ(d->nested_type_count(), 0);
    }
    EXPECT_EQ(bools, 55);
}

TEST(Dictionary, EveryRecordRoundTripsWireBytesAndFailsOnTheRightFieldWhenShort)
{
    std::mt19937 rng(20261122);
    ASSERT_EQ(allRecords().size(), messageList().size());
    for (const RecordOps &row : allRecords()) {
        const ListedRow &listed = *findListedRow(row.id);
        const QByteArray wire = randomBytes(rng, listed.wireSize());

        QByteArray back(1, kCanary);
        ASSERT_TRUE(row.decodeEncode(wire + kCanary, back)) << listed.message;
        EXPECT_EQ(back, kCanary + wire) << listed.message;

        // Each shorter payload stops at the field that does not fit, keeping the earlier ones.
        int position = 0;
        for (const ListedField &f : listed.fields) {
            for (int size = position; size < position + f.width(); ++size) {
                LogCapture log;
                QByteArray prefix;
                EXPECT_FALSE(row.decodeEncode(wire.left(size), prefix)) << listed.message;
                ASSERT_EQ(log.lines().size(), 1u) << listed.message;
                const std::string &text = log.lines()[0].text;
                const std::string head = "Not enough data from position " + std::to_string(position) +
                                         " to the length of " + std::to_string(f.width()) + " to get data of type 'N5Bytra5Types3" + f.wire + "E'";
                EXPECT_EQ(text.substr(0, head.size()), head) << listed.message;
                EXPECT_TRUE(QString::fromStdString(text).endsWith(QString::fromStdString(" for value " + f.name)))
                    << text;
                EXPECT_EQ(prefix.left(position), wire.left(position)) << listed.message;
                EXPECT_EQ(prefix.mid(position), QByteArray(listed.wireSize() - position, 0)) << listed.message;
            }
            position += f.width();
        }
    }
}

TEST(Dictionary, EveryConversionCarriesEachFieldAndComesBackThroughTheBridge)
{
    std::mt19937 rng(7);
    LogCapture log;
    for (const RecordOps &row : allRecords()) {
        const ListedRow &listed = *findListedRow(row.id);
        const QByteArray wire = randomBytes(rng, listed.wireSize());
        QByteArray out;
        ASSERT_TRUE(zelko::canMessageToProtobufByteArray(QDateTime::fromMSecsSinceEpoch(-1), canMessage(row.id, wire),
                                                         out))
            << listed.message;

        const Descriptor *envelope =
            google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName("zelko.messages.Envelope");
        const auto env = parseAs(envelope, out);
        const auto &header = env->GetReflection()->GetMessage(*env, envelope->field(0));
        EXPECT_EQ(header.GetReflection()->GetUInt32(header, header.GetDescriptor()->FindFieldByName("msgId")), row.id);
        EXPECT_EQ(header.GetReflection()->GetInt32(header, header.GetDescriptor()->FindFieldByName("sequence")),
                  int16_t(0x8001));

        const Descriptor *schema = schemaOf(row.id);
        ASSERT_NE(schema, nullptr);
        const auto msg = parseAs(schema, out);
        const auto *refl = msg->GetReflection();
        QByteArray normalised;
        int position = 0;
        for (const ListedField &f : listed.fields) {
            const FieldDescriptor *fd = schema->FindFieldByName(f.name);
            const uint32_t raw = littleEndian(wire, position, f.width());
            position += f.width();
            uint32_t wireBack = raw;
            if (f.asBool) {
                EXPECT_EQ(refl->GetBool(*msg, fd), raw != 0) << listed.message << "." << f.name;
                wireBack = raw != 0;
            } else if (f.wire == "F32") {
                const float v = refl->GetFloat(*msg, fd);
                uint32_t bits;
                std::memcpy(&bits, &v, 4);
                EXPECT_EQ(bits, raw) << listed.message << "." << f.name;
            } else if (f.wire == "S16") {
                EXPECT_EQ(refl->GetInt32(*msg, fd), int16_t(raw)) << listed.message << "." << f.name;
            } else if (f.wire == "S32") {
                EXPECT_EQ(refl->GetInt32(*msg, fd), int32_t(raw)) << listed.message << "." << f.name;
            } else {
                EXPECT_EQ(refl->GetUInt32(*msg, fd), raw) << listed.message << "." << f.name;
            }
            for (int k = 0; k < f.width(); ++k)
                normalised.append(char(wireBack >> (8 * k)));
        }
        for (int k = 0; k < schema->real_oneof_decl_count(); ++k)
            EXPECT_FALSE(refl->HasOneof(*msg, schema->oneof_decl(k))) << listed.message;

        QByteArray back;
        ASSERT_TRUE(row.fromProto(out, back));
        EXPECT_EQ(back, normalised) << listed.message;
    }
}

TEST(Dictionary, EveryDumpLineNamesTheClassAndEachFieldInWireOrder)
{
    std::mt19937 rng(99);
    for (const RecordOps &row : allRecords()) {
        const ListedRow &listed = *findListedRow(row.id);
        LogCapture log;
        row.decodeDump(randomBytes(rng, listed.wireSize()));
        ASSERT_EQ(log.lines().size(), 1u);
        EXPECT_EQ(log.lines()[0].category, "default");
        const QString line = QString::fromStdString(log.lines()[0].text);
        const QString head = QString::fromStdString(listed.message + "Payload: ");
        ASSERT_TRUE(line.startsWith(head)) << log.lines()[0].text;
        const QStringList parts = line.mid(head.size()).split(QStringLiteral(", "));
        if (listed.fields.empty()) {
            EXPECT_EQ(parts, QStringList{QStringLiteral("<none>")});
            continue;
        }
        ASSERT_EQ(size_t(parts.size()), listed.fields.size()) << log.lines()[0].text;
        for (size_t k = 0; k < listed.fields.size(); ++k)
            EXPECT_TRUE(parts[int(k)].startsWith(QString::fromStdString(listed.fields[k].name + "=")))
                << listed.message << ": " << parts[int(k)].toStdString();
    }
}
