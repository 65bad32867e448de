// vorlink make: one message from the user's words, as the bus carries it.

#include "Command.h"
#include "Dictionary.h"
#include "JsonCodec.h"
#include "SchemaMessage.h"
#include "Selection.h"
#include "WireRange.h"

#include "ZelkoMsgProtoUtils.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>

#include <QDateTime>

#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <map>
#include <memory>

namespace vorlink {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

enum class Output { Log, Json, Text, Binary };

struct MakeOptions
{
    std::string key;
    std::vector<std::string> assignments;
    std::string time, sequence = "0", formatName = "log", fill;
};

const char *const makeFooter = R"(Every field of the message's record is given as name=value, or --fill
gives the value of those left out. unread=HEX gives the payload's bytes behind
the record (any message may carry them; the five union messages always do:
TdEvent, DdEvent and FpEvent 8, TdSetTreatmentParameter and
DdSafetyShutdownOverrideRequest 4). Without them a union message is refused,
naming how many bytes are missing, unless --fill 0 gives them as zeros. Values: decimal or 0x hexadecimal, with a
minus sign for the signed fields (S16, S32), a decimal float for F32, true or
false (or 1, 0) for a U32 held as a bool. A value that its wire field cannot
hold is refused with the field's range; nothing is cut down.

Output formats (--format):
  log     one bus-log line (default)
  json    the JSON line decode writes of it
  text    the protobuf text block decode writes of it
  binary  the length-delimited record decode writes of it
The last three show the message as the machine reads it off the bus.

Examples:
  vorlink list Td3WayValveSetStateRequest
  vorlink make 0x1780 valve=1 state=2
  vorlink make DdTemperatureData --fill 0 d1Temp=37.5 --time 2023-11-14T22:13:20Z
  vorlink make TdSetTreatmentParameter paramID=5 unread=00006040
  vorlink make Td3WayValveSetStateRequest valve=1 state=2 | vorlink decode)";

// A whole number as the user writes it: decimal or 0x hexadecimal, minus sign
// allowed. False when it is no such number; `tooWide` when it is one but lies
// outside 64 bits.
bool readWhole(const std::string &text, qint64 &value, bool &tooWide)
{
    const char *p = text.data(), *end = p + text.size();
    const bool negative = p != end && *p == '-';
    if (negative)
        ++p;
    int base = 10;
    if (end - p > 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    quint64 magnitude = 0;
    const auto r = std::from_chars(p, end, magnitude, base);
    if (p == end || r.ptr != end)
        return false;
    tooWide = r.ec != std::errc() || magnitude > quint64(std::numeric_limits<qint64>::max());
    value = negative ? -qint64(magnitude) : qint64(magnitude);
    return true;
}

// Sets one wire field of the schema message from the user's text.
bool setField(Message &message, const WireField &field, const std::string &text, std::string &error)
{
    const FieldDescriptor *f = field.schemaField;
    const auto *reflection = message.GetReflection();
    if (f->cpp_type() == FieldDescriptor::CPPTYPE_BOOL) {
        const std::string word = CLI::detail::to_lower(text);
        if (word != "true" && word != "false" && word != "1" && word != "0") {
            error = field.name + ": '" + text + "' is not true or false (a U32 held as a bool)";
            return false;
        }
        reflection->SetBool(&message, f, word == "true" || word == "1");
        return true;
    }
    if (f->cpp_type() == FieldDescriptor::CPPTYPE_FLOAT) {
        double value = 0;
        const auto r = std::from_chars(text.data(), text.data() + text.size(), value);
        if (text.empty() || r.ptr != text.data() + text.size()) {
            error = field.name + ": '" + text + "' is not a number";
            return false;
        }
        // Rounded to the nearest float; refused when that is no longer finite.
        const float single = float(value);
        if (r.ec != std::errc() || (std::isfinite(value) && !std::isfinite(single))) {
            error = doesNotFit(field.name, field.type, text);
            return false;
        }
        reflection->SetFloat(&message, f, single);
        return true;
    }
    qint64 value = 0;
    bool tooWide = false;
    if (!readWhole(text, value, tooWide)) {
        error = field.name + ": '" + text + "' is not a whole number (decimal or 0x hexadecimal)";
        return false;
    }
    if (tooWide || !fitsWire(field.type, value)) {
        error = doesNotFit(field.name, field.type, text);
        return false;
    }
    if (f->cpp_type() == FieldDescriptor::CPPTYPE_INT32)
        reflection->SetInt32(&message, f, qint32(value));
    else
        reflection->SetUInt32(&message, f, quint32(value));
    return true;
}

// unread=HEX: two hexadecimal digits a byte, as a bus-log payload.
bool readUnread(const std::string &text, QByteArray &bytes, std::string &error)
{
    const QByteArray hex = QByteArray::fromStdString(text);
    for (int k = 0; k < hex.size(); ++k)
        if (!std::isxdigit(static_cast<unsigned char>(hex[k]))) {
            error = std::string("unread: '") + text + "' has '" + hex[k] + "' at digit " + std::to_string(k + 1) +
                    ", which is not hexadecimal";
            return false;
        }
    if (hex.size() % 2 != 0) {
        error = "unread: '" + text + "' has an odd number of hexadecimal digits (" + std::to_string(hex.size()) + ")";
        return false;
    }
    bytes = QByteArray::fromHex(hex);
    return true;
}

void appendVarint(std::string &out, std::uint32_t value)
{
    for (; value >= 0x80; value >>= 7)
        out.push_back(char(value | 0x80));
    out.push_back(char(value));
}

int runMake(const CLI::App &command, const MakeOptions &options)
{
    setVerbose(false);
    std::string error;
    Output output = Output::Log;
    if (!choose<Output>("--format", options.formatName,
                        {{"log", Output::Log}, {"json", Output::Json}, {"text", Output::Text}, {"binary", Output::Binary}},
                        output, error))
        return misuse(command, error);
    std::vector<const RowInfo *> rows;
    if (!resolveMessageKey(options.key, rows, error))
        return misuse(command, error);
    if (rows.size() != 1)
        return misuse(command, "'" + options.key + "' names " + std::to_string(rows.size()) +
                                   " messages; make makes one: name it by id or name");
    const RowInfo &row = *rows.front();

    BusLogEntry entry;
    entry.msgId = row.id;
    entry.msecs = QDateTime::currentMSecsSinceEpoch();
    if (!options.time.empty() && !parseTimeArgument(options.time, entry.msecs))
        return misuse(command, "--time: '" + options.time + "' is neither seconds since 1970 nor an ISO 8601 time");
    qint64 sequence = 0;
    bool tooWide = false;
    if (!readWhole(options.sequence, sequence, tooWide) || tooWide || sequence < 0 || sequence > 0xFFFF)
        return misuse(command, "--sequence: '" + options.sequence + "' is not a number from 0 to 65535");
    entry.sequence = quint16(sequence);

    // name=value, each a wire field of the record, each once.
    std::map<std::string, std::string> given;
    QByteArray unread;
    bool unreadGiven = false;
    std::vector<std::string> names;
    for (const WireField &field : row.fields)
        if (field.position >= 0)
            names.push_back(field.name);
    for (const std::string &assignment : options.assignments) {
        const std::size_t equals = assignment.find('=');
        if (equals == std::string::npos || equals == 0)
            return misuse(command, "'" + assignment + "' is not field=value");
        const std::string name = assignment.substr(0, equals);
        if (name == "unread") {
            if (unreadGiven)
                return misuse(command, "unread is given twice");
            unreadGiven = true;
            if (!readUnread(assignment.substr(equals + 1), unread, error))
                return misuse(command, error);
            continue;
        }
        if (std::find(names.begin(), names.end(), name) == names.end())
            return misuse(command, row.message + " has no field '" + name + "'" +
                                       (names.empty() ? "; it has no fields" : "; nearest: " + nearestNames(name, names)));
        if (!given.emplace(name, assignment.substr(equals + 1)).second)
            return misuse(command, name + " is given twice");
    }
    std::unique_ptr<Message> message(row.prototype->New());
    std::string missing;
    for (const WireField &field : row.fields) {
        if (field.position < 0)
            continue;
        const auto value = given.find(field.name);
        if (value == given.end() && options.fill.empty()) {
            missing += (missing.empty() ? "" : ", ") + field.name;
            continue;
        }
        if (!setField(*message, field, value != given.end() ? value->second : options.fill, error))
            return misuse(command, error);
    }
    if (!missing.empty())
        return misuse(command, row.message + " needs every field; missing: " + missing + " (or --fill 0)");

    const LineResult wire = wireFromProto(row, message->SerializeAsString(), entry.payload);
    if (!wire.isMessage())
        return misuse(command, wire.reason);
    // The bytes behind the record: given, zeros by --fill 0, or refused where the bus carries more.
    const int behind = row.payloadSize - entry.payload.size();
    const std::string sizes = row.message + " carries " + std::to_string(row.payloadSize) + " bytes and its record " +
                              std::to_string(entry.payload.size());
    if (unreadGiven && unread.size() < behind)
        return misuse(command, sizes + ": unread gives " + std::to_string(unread.size()) + " of the " +
                                   std::to_string(behind) + " bytes behind the record");
    if (!unreadGiven && behind > 0) {
        qint64 fillValue = -1;
        bool tooWide = false;
        if (options.fill.empty() || !readWhole(options.fill, fillValue, tooWide) || tooWide || fillValue != 0)
            return misuse(command, sizes + ": the " + std::to_string(behind) + " bytes behind the record are " +
                                       "missing; give them as unread=HEX (" + std::to_string(2 * behind) +
                                       " hexadecimal digits), or as zeros with --fill 0");
        unread = QByteArray(behind, '\0');
    }
    entry.payload.append(unread);

    Writer out;
    if (output == Output::Log) {
        appendBusLogLine(entry, out.buffer());
        out.buffer().push_back('\n');
        out.commit();
        return finishOutput(command, out);
    }
    // The other forms show the message as the machine reads it off the bus.
    Bytra::Can::Message can;
    can.sequence = entry.sequence;
    can.msgId = entry.msgId;
    can.payload = entry.payload;
    QByteArray proto;
    if (!zelko::canMessageToProtobufByteArray(QDateTime::fromMSecsSinceEpoch(entry.msecs, Qt::UTC), can, proto)) {
        std::fprintf(stderr, "vorlink make: the library could not convert %s\n", row.protoName.c_str());
        return exitRejected;
    }
    if (output == Output::Binary) {
        appendVarint(out.buffer(), std::uint32_t(proto.size()));
        out.buffer().append(proto.constData(), std::size_t(proto.size()));
    } else if (output == Output::Json) {
        if (!appendJsonMessage(row, proto.constData(), std::size_t(proto.size()), out.buffer(), error)) {
            std::fprintf(stderr, "vorlink make: %s\n", error.c_str());
            return exitRejected;
        }
        out.buffer().push_back('\n');
    } else {
        std::unique_ptr<Message> back(row.prototype->New());
        std::string text;
        back->ParseFromArray(proto.constData(), proto.size());
        google::protobuf::TextFormat::PrintToString(*back, &text);
        out.buffer() += "# " + row.protoName + "\n" + text + "\n";
    }
    out.commit();
    return finishOutput(command, out);
}

} // namespace

Command addMakeCommand(CLI::App &parent)
{
    auto options = std::make_shared<MakeOptions>();
    CLI::App *command = parent.add_subcommand("make", "make one message from field=value words, as a bus-log line "
                                                      "or in decode's formats");
    command->add_option("MESSAGE", options->key, "the message, as --message takes it: an id (0x1780 or 6016) or a "
                                                 "name in any of its forms")
        ->required()
        ->type_name("");
    command->add_option("FIELDS", options->assignments, "name=value for each field of the record")->type_name("");
    command->add_option("--time", options->time, "the message's time: seconds since 1970 or ISO 8601; now when not "
                                                 "given")
        ->type_name("T");
    command->add_option("--sequence", options->sequence, "the sequence number, 0 (default) to 65535")->type_name("N");
    command->add_option("--format", options->formatName, "log (default), json, text or binary")->type_name("FORMAT");
    command->add_option("--fill", options->fill, "the value of every field not given (--fill 0)")->type_name("VALUE");
    command->footer(makeFooter);
    return {command, [command, options] { return runMake(*command, *options); }};
}

} // namespace vorlink
