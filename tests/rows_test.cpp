// Properties of every row, learnt through the library's own interface and held
// against the schema (which a test keeps equal to the committed file): the
// tables agree, each record's fields match its schema message, and every
// operation keeps its contract on random bytes.

#include "Support.h"

#include <gtest/gtest.h>

#include <QRegularExpression>

#include <cstring>
#include <map>
#include <random>
#include <set>

using google::protobuf::FieldDescriptor;

namespace {

struct Field { std::string name, type; int position, width; }; // type: U08 ... F32

// A record's fields, read off the warning of each payload one byte too short.
std::vector<Field> probe(quint16 id)
{
    static const QRegularExpression pattern(QStringLiteral(
        "^Not enough data from position (\\d+) to the length of (\\d+) to get data of type 'N5Bytra5Types3(\\w+)E' "
        "in buffer [0-9a-f.]* for value (\\w+)$"));
    std::vector<Field> fields;
    for (int size = 0;;) {
        LogCapture log;
        QByteArray out;
        if (zelko::canMessageToProtobufByteArray(QDateTime(), {0, id, QByteArray(size, 0)}, out))
            return fields;
        const auto m = pattern.match(QString::fromStdString(log.lines.empty() ? "" : std::get<2>(log.lines[0])));
        if (log.lines.size() != 1 || !m.hasMatch() || log.lines[0] != typesWarning(std::get<2>(log.lines[0])) ||
            m.captured(1).toInt() != size) {
            ADD_FAILURE() << "id " << id << " at size " << size << ": " << ::testing::PrintToString(log.lines);
            return fields;
        }
        fields.push_back({m.captured(4).toStdString(), m.captured(3).toStdString(), size, m.captured(2).toInt()});
        size += fields.back().width;
    }
}

const std::vector<Field> &fieldsOf(quint16 id)
{
    static std::map<quint16, std::vector<Field>> known;
    const auto it = known.find(id);
    return it != known.end() ? it->second : known[id] = probe(id);
}

} // namespace

TEST(Dictionary, AllTablesAndTheDispatchHaveTheSameKeys)
{
    std::set<int> named;
    std::map<int, int> classes;
    LogCapture log; // thousands of "not handled" lines
    for (int id = 0; id <= 0xFFFF; ++id) {
        const bool known = !zelko::msgIdString(zelko::MsgId(id)).startsWith(QLatin1String("0x"));
        if (known && named.insert(id).second)
            ++classes[id & 0xFF];
        EXPECT_EQ(zelko::payloadSize.contains(zelko::MsgId(id)), known) << id;
        EXPECT_EQ(rows::find(quint16(id)) != nullptr, known) << id;
        const Bytra::Can::Message message{0, quint16(id), QByteArray(4096, 0)};
        QByteArray out = "stale";
        const bool ok = zelko::canMessageToProtobufByteArray(QDateTime::fromMSecsSinceEpoch(0), message, out);
        EXPECT_EQ(ok, known) << id;
        EXPECT_EQ(rows::checkConversion(message, QDateTime::fromMSecsSinceEpoch(0), ok, out), "") << id;
    }
    EXPECT_EQ(named.size(), rows::all().size());
    EXPECT_EQ(zelko::payloadSize.size(), 474);
    EXPECT_EQ(classes, (std::map<int, int>{{0x00, 192}, {0x80, 87}, {0xA0, 114}, {0xB0, 77}, {0xFF, 4}}));
}

TEST(Dictionary, EveryRecordMatchesItsSchemaMessage)
{
    const auto *file = zelko::messages::Header::descriptor()->file();
    ASSERT_EQ(file->message_type_count(), 476);
    EXPECT_EQ(file->message_type(1)->full_name(), "zelko.messages.Envelope");
    std::map<std::string, int> byType;
    std::set<std::string> unions;
    int withoutFields = 0, bools = 0, index = 2;
    for (const rows::Row &row : rows::all()) {
        const QString enumerator = zelko::msgIdString(zelko::MsgId(row.id));
        std::string message;
        for (const QString &word : enumerator.mid(7).split(QLatin1Char('_')))
            message += (word.left(1).toUpper() + word.mid(1).toLower()).toStdString();
        SCOPED_TRACE(message);
        ASSERT_EQ(zelko::msgIdToProtoName(row.id), "zelko.messages." + message);
        const auto *schema = file->message_type(index++); // in id order, behind Header and Envelope
        ASSERT_EQ(schema->full_name(), zelko::msgIdToProtoName(row.id));
        ASSERT_EQ(schema->field(0)->name(), "header");

        const std::vector<Field> &fields = fieldsOf(row.id);
        size_t next = 0;
        for (int k = 1; k < schema->field_count(); ++k) {
            const FieldDescriptor *fd = schema->field(k);
            EXPECT_EQ(fd->number(), k + 1);
            if (fd->containing_oneof() != nullptr)
                continue;
            ASSERT_LT(next, fields.size());
            const Field &f = fields[next++];
            EXPECT_EQ(fd->name(), f.name);
            const char *want = f.type == "F32" ? "float" : f.type[0] == 'S' ? "int32" : "uint32";
            bools += fd->type() == FieldDescriptor::TYPE_BOOL && f.type == "U32";
            EXPECT_TRUE(fd->type_name() == std::string(want) || (fd->type() == FieldDescriptor::TYPE_BOOL && f.type == "U32"))
                << f.name;
            ++byType[f.type];
        }
        EXPECT_EQ(next, fields.size());
        withoutFields += fields.empty();
        if (schema->real_oneof_decl_count() > 0)
            unions.insert(message);
        EXPECT_EQ(zelko::payloadSize.value(zelko::MsgId(row.id)) == row.wireSize, schema->real_oneof_decl_count() == 0);
        EXPECT_EQ(row.wireSize, fields.empty() ? 0 : fields.back().position + fields.back().width);
    }
    EXPECT_EQ(withoutFields, 124);
    EXPECT_EQ(bools, 55);
    EXPECT_EQ(byType, (std::map<std::string, int>{{"U08", 93}, {"U16", 8}, {"U32", 781}, {"S16", 8}, {"S32", 8}, {"F32", 360}}));
    EXPECT_EQ(unions, (std::set<std::string>{"TdEvent", "DdEvent", "FpEvent", "TdSetTreatmentParameter",
                                             "DdSafetyShutdownOverrideRequest"}));
}

TEST(Dictionary, EveryRowKeepsItsContractOnRandomBytes)
{
    std::mt19937 rng(20261123);
    const QDateTime justBefore1970 = QDateTime::fromMSecsSinceEpoch(-1);
    LogCapture log;
    for (const rows::Row &row : rows::all()) {
        const std::string name = zelko::msgIdToProtoName(row.id);
        SCOPED_TRACE(name);
        QByteArray wire(row.wireSize + 1, 0);
        for (char &c : wire)
            c = char(rng());
        // Every length from empty to one byte more than the record.
        for (int size = 0; size <= wire.size(); ++size)
            EXPECT_EQ(rows::checkDecode(row, wire.left(size)), "") << size;
        wire.chop(1);

        const Bytra::Can::Message message{0x8001, row.id, wire};
        QByteArray out;
        const bool ok = zelko::canMessageToProtobufByteArray(justBefore1970, message, out);
        ASSERT_EQ(rows::checkConversion(message, justBefore1970, ok, out), "");
        // Each field as the schema holds it, and back as the record holds it.
        const auto schema = rows::parseAs(name, out);
        const auto *reflection = schema->GetReflection();
        QByteArray normalised;
        for (const Field &f : fieldsOf(row.id)) {
            const FieldDescriptor *fd = schema->GetDescriptor()->FindFieldByName(f.name);
            quint32 raw = 0;
            std::memcpy(&raw, wire.constData() + f.position, size_t(f.width));
            if (fd->type() == FieldDescriptor::TYPE_BOOL)
                EXPECT_EQ(reflection->GetBool(*schema, fd), raw != 0) << f.name;
            else if (f.type == "F32") {
                const float value = reflection->GetFloat(*schema, fd);
                EXPECT_EQ(std::memcmp(&value, &raw, 4), 0) << f.name;
            }
            else if (f.type[0] == 'S')
                EXPECT_EQ(reflection->GetInt32(*schema, fd), f.width == 2 ? qint16(raw) : qint32(raw)) << f.name;
            else
                EXPECT_EQ(reflection->GetUInt32(*schema, fd), raw) << f.name;
            raw = fd->type() == FieldDescriptor::TYPE_BOOL ? raw != 0 : raw;
            normalised.append(reinterpret_cast<const char *>(&raw), f.width);
        }
        for (int k = 0; k < schema->GetDescriptor()->real_oneof_decl_count(); ++k)
            EXPECT_FALSE(reflection->HasOneof(*schema, schema->GetDescriptor()->oneof_decl(k)));
        QByteArray back = "held", kept, after; // toQByteArray appends
        ASSERT_TRUE(row.fromProto(rows::before(), out, back, false));
        EXPECT_EQ(back, "held" + normalised);
        // A parse that fails leaves the record as it was.
        row.decode(rows::before(), rows::before(), kept, false);
        EXPECT_FALSE(row.fromProto(rows::before(), hex("0A FF"), after, false));
        EXPECT_EQ(after, kept);
    }
}
