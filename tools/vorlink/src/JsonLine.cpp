#include "JsonLine.h"
#include "Dictionary.h"
#include "JsonCodec.h"
#include "WireRange.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <cstdio>
#include <memory>

namespace vorlink {
namespace {

using google::protobuf::Message;
using google::protobuf::util::JsonParseOptions;
using google::protobuf::util::JsonStringToMessage;

LineResult error(std::string reason) { return LineResult::failed("bad JSON line", std::move(reason)); }

// The status text of the JSON parser, on one line.
std::string oneLine(std::string text)
{
    for (char &c : text)
        if (c == '\n' || c == '\r')
            c = ' ';
    return text;
}

// The first member name that an object holds twice, anywhere in `value`.
const char *duplicateMember(const rapidjson::Value &value)
{
    if (value.IsArray()) {
        for (const auto &item : value.GetArray())
            if (const char *name = duplicateMember(item))
                return name;
        return nullptr;
    }
    if (!value.IsObject())
        return nullptr;
    for (auto m = value.MemberBegin(); m != value.MemberEnd(); ++m) {
        for (auto before = value.MemberBegin(); before != m; ++before)
            if (before->name == m->name)
                return m->name.GetString();
        if (const char *name = duplicateMember(m->value))
            return name;
    }
    return nullptr;
}

// JSON as the standard has it, which protobuf's parser is looser about (it
// takes a trailing comma, and the last of two members of one name); then the
// header's members, which protobuf's mapping would leave at their defaults
// and so make up a time or an id. Empty when the line may go to protobuf.
std::string syntaxOrHeaderFault(std::string_view line)
{
    rapidjson::Document document;
    document.Parse(line.data(), line.size());
    if (document.HasParseError())
        return std::string("not JSON: ") + rapidjson::GetParseError_En(document.GetParseError()) + " (at byte " +
               std::to_string(document.GetErrorOffset() + 1) + ")";
    if (const char *name = duplicateMember(document))
        return std::string("not JSON: the member \"") + name + "\" is given twice in one object";
    if (!document.IsObject())
        return {};   // protobuf's parser names what is wrong
    const auto header = document.FindMember("header");
    if (header == document.MemberEnd())
        return "the object has no \"header\"";
    if (!header->value.IsObject())
        return {};
    if (!header->value.HasMember("timestamp"))
        return "the object has no \"header.timestamp\"";
    if (!header->value.HasMember("msgId"))
        return "the object has no \"header.msgId\"";
    return {};
}

LineResult headerError(std::string reason) { return LineResult::failed("bad header", std::move(reason)); }

} // namespace

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
    if (msgId > 0xFFFF)
        return headerError("msgId " + std::to_string(msgId) + " is larger than 0xFFFF");
    row = Dictionary::instance().find(quint16(msgId));
    if (row == nullptr || row->prototype == nullptr)
        return headerError("unknown message id " + hexId(msgId));
    if (sequence < -32768 || sequence > 65535)
        return headerError("sequence " + std::to_string(sequence) + " does not fit in 16 bits");
    const qint64 msecs = seconds * 1000 + nanos / 1000000;
    if (msecs < 0 || msecs > maxBusLogMsecs)
        return headerError(msecs < 0 ? "timestamp before 1970 cannot be written to a bus log"
                                     : "timestamp after 9999 cannot be written to a bus log");
    entry.msecs = msecs;
    entry.sequence = quint16(sequence);
    entry.msgId = quint16(msgId);
    return LineResult::message();
}

LineResult parseJsonLine(std::string_view line, BusLogEntry &entry)
{
    std::size_t first = 0;
    while (first < line.size() && (line[first] == ' ' || line[first] == '\t' || line[first] == '\r'))
        ++first;
    if (first == line.size())
        return {};
    if (readJsonLineFast(line, entry))
        return LineResult::message();

    // Anything else goes through protobuf's parser, which knows every form of
    // its JSON mapping and names what is wrong. Every schema message has its
    // Header at number 1, so the header is read first on its own, through
    // Envelope, to learn the message type.
    const std::string fault = syntaxOrHeaderFault(line);
    if (!fault.empty())
        return error(fault);
    const auto *envelopeType =
        google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName("zelko.messages.Envelope");
    if (envelopeType == nullptr)
        return error("the library has no zelko.messages.Envelope");
    std::unique_ptr<Message> envelope(
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(envelopeType)->New());
    JsonParseOptions lenient;
    lenient.ignore_unknown_fields = true;
    const google::protobuf::StringPiece text(line.data(), line.size());
    const auto status = JsonStringToMessage(text, envelope.get(), lenient);
    if (!status.ok())
        return error("not a JSON object of a bus message: " + oneLine(status.ToString()));

    const RowInfo *row = nullptr;
    const LineResult header = readSchemaHeader(*envelope, entry, row);
    if (!header.isMessage())
        return header;

    std::unique_ptr<Message> message(row->prototype->New());
    const auto parsed = JsonStringToMessage(text, message.get(), JsonParseOptions());
    if (!parsed.ok())
        return error("does not fit " + row->protoName + ": " + oneLine(parsed.ToString()));
    const std::string bytes = message->SerializeAsString();
    return wireFromProto(*row, bytes, entry.payload);
}

LineResult wireFromProto(const RowInfo &row, const std::string &proto, QByteArray &wire)
{
    std::string fault;
    if (!checkWireRanges(row, proto.data(), proto.size(), fault))
        return LineResult::failed("value out of range", fault);
    if (!row.protoToWire(QByteArray::fromRawData(proto.data(), int(proto.size())), wire))
        return LineResult::failed("bad record", "the library could not read " + row.protoName + " back");
    return LineResult::message();
}

} // namespace vorlink
