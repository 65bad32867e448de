// The slow path of the JSON reader: a line the fast reader did not take,
// read with protobuf's JSON parser, and every fault named in the tool's words
// (a member held twice, a number its field cannot hold, a oneof member the
// record does not carry).

#include "JsonReader.h"

#include "Dictionary.h"
#include "SchemaMessage.h"
#include "Selection.h"
#include "WireRange.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/timestamp.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/time_util.h>

// As in JsonReader.cpp: RapidJSON's templates must be the same in both.
#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace vorlink {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::util::TimeUtil;

LineResult error(std::string reason) { return LineResult::failed("bad JSON line", std::move(reason)); }

// protobuf's status text, on one line and without its code.
std::string oneLine(std::string text)
{
    for (char &c : text)
        if (c == '\n' || c == '\r')
            c = ' ';
    for (const char *code : {"INVALID_ARGUMENT:", "OUT_OF_RANGE:"})
        if (text.compare(0, std::strlen(code), code) == 0)
            text.erase(0, std::strlen(code));
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

// The text as a document whose numbers are the indexes of their own text in
// `numbers`, so that "1e-5000" is still itself when its field is checked.
struct NumberText : rapidjson::BaseReaderHandler<rapidjson::UTF8<>, NumberText>
{
    rapidjson::Document &document;
    std::vector<std::string> &numbers;
    NumberText(rapidjson::Document &d, std::vector<std::string> &n) : document(d), numbers(n) {}
    bool Null() { return document.Null(); }
    bool Bool(bool b) { return document.Bool(b); }
    bool RawNumber(const char *text, rapidjson::SizeType length, bool)
    {
        numbers.emplace_back(text, length);
        return document.Uint(unsigned(numbers.size() - 1));
    }
    bool String(const char *text, rapidjson::SizeType length, bool) { return document.String(text, length, true); }
    bool StartObject() { return document.StartObject(); }
    bool Key(const char *text, rapidjson::SizeType length, bool) { return document.Key(text, length, true); }
    bool EndObject(rapidjson::SizeType count) { return document.EndObject(count); }
    bool StartArray() { return document.StartArray(); }
    bool EndArray(rapidjson::SizeType count) { return document.EndArray(count); }
};

class SlowReader
{
public:
    LineResult read(std::string_view text, BusLogEntry &entry);

private:
    // A value as it was written: a number's text, or a string's.
    std::string written(const rapidjson::Value &v) const
    {
        return v.IsNumber() ? numbers_[v.GetUint()] : v.IsString() ? std::string(v.GetString(), v.GetStringLength())
               : v.IsBool() ? (v.GetBool() ? "true" : "false") : v.IsNull() ? "null" : v.IsObject() ? "{...}" : "[...]";
    }
    bool wholeIn(const rapidjson::Value &v, const char *name, qint64 &value, std::string &fault) const;
    std::string checkField(const RowInfo &row, const std::string &name, const rapidjson::Value &v) const;

    std::vector<std::string> numbers_;
};

bool SlowReader::wholeIn(const rapidjson::Value &v, const char *name, qint64 &value, std::string &fault) const
{
    const Decimal d = v.IsNumber() || v.IsString() ? readDecimal(written(v), value) : Decimal::NotNumber;
    if (d != Decimal::Whole)
        fault = std::string(name) + ": " + written(v) + (d == Decimal::NotWhole ? " is not a whole number"
                                                         : d == Decimal::TooWide ? " is wider than 64 bits"
                                                                                 : " is not a number");
    return d == Decimal::Whole;
}

std::string SlowReader::checkField(const RowInfo &row, const std::string &name, const rapidjson::Value &v) const
{
    const WireField *field = nullptr;
    std::vector<std::string> names;
    for (const WireField &f : row.fields) {
        if (f.schemaField != nullptr && (f.schemaField->name() == name || f.schemaField->json_name() == name))
            field = &f;
        names.push_back(f.name);
    }
    if (field == nullptr)
        return row.message + " has no field \"" + name + "\"" +
               (names.empty() ? "; it has no fields" : "; nearest: " + nearestNames(name, names));
    if (v.IsNull())
        return {};   // the field left at 0, as protobuf's mapping has it
    if (field->position < 0)
        return notInRecord(row, field->name);
    if (field->schemaField->cpp_type() == FieldDescriptor::CPPTYPE_BOOL)
        return v.IsBool() ? std::string()
                          : field->name + ": " + written(v) + " is not true or false (a U32 held as a bool)";
    if (!v.IsNumber() && !v.IsString())
        return field->name + ": " + written(v) + " is not a number";
    if (v.IsString() && field->type == WireType::F32) {
        const std::string s = written(v);
        if (s == "NaN" || s == "Infinity" || s == "-Infinity")
            return {};
    }
    std::string fault = checkLiteral(*field, written(v));
    if (fault.empty() && v.IsString() && std::isalpha(static_cast<unsigned char>(written(v).front())))
        fault = field->name + ": '" + written(v) + "' is not a number";
    return fault;
}

LineResult SlowReader::read(std::string_view text, BusLogEntry &entry)
{
    numbers_.clear();
    rapidjson::Document document;   // its own memory, given back after each value
    rapidjson::Reader reader;
    rapidjson::MemoryStream stream(text.data(), text.size());
    rapidjson::ParseResult parsed;
    auto generate = [&](rapidjson::Document &d) {
        NumberText handler(d, numbers_);
        parsed = reader.Parse<rapidjson::kParseNumbersAsStringsFlag>(stream, handler);
        return !parsed.IsError();
    };
    document.Populate(generate);
    if (parsed.IsError())
        return error(std::string("not JSON: ") + rapidjson::GetParseError_En(parsed.Code()) + " (at byte " +
                     std::to_string(parsed.Offset() + 1) + ")");
    if (const char *name = duplicateMember(document))
        return error(std::string("not JSON: the member \"") + name + "\" is given twice in one object");
    if (!document.IsObject())
        return error("not a JSON object of a bus message (it is " + written(document) + ")");
    const auto header = document.FindMember("header");
    if (header == document.MemberEnd())
        return error("the object has no \"header\"");
    if (!header->value.IsObject())
        return error("\"header\" is " + written(header->value) + ", not an object");

    // The header, read as protobuf's mapping reads it, held to what a bus log can carry.
    const rapidjson::Value &h = header->value;
    for (const char *needed : {"timestamp", "msgId"})
        if (!h.HasMember(needed))
            return error(std::string("the object has no \"header.") + needed + "\"");
    qint64 sequence = 0, msgId = 0;
    std::string fault;
    google::protobuf::Timestamp time;
    for (auto m = h.MemberBegin(); m != h.MemberEnd(); ++m) {
        const std::string name = m->name.GetString();
        if (name == "timestamp") {
            if (!m->value.IsString() || !TimeUtil::FromString(written(m->value), &time))
                return error("header.timestamp: " + written(m->value) +
                             " is not an RFC 3339 time (2023-11-14T22:13:20.123Z)");
        } else if (name == "sequence" || name == "msgId") {
            if (!wholeIn(m->value, ("header." + name).c_str(), name == "msgId" ? msgId : sequence, fault))
                return error(fault);
        } else {
            return error("the header has no member \"" + name + "\" (timestamp, sequence, msgId)");
        }
    }
    const RowInfo *row = nullptr;
    const LineResult checked = checkHeaderValues(time.seconds(), time.nanos(), sequence, msgId, entry, row);
    if (!checked.isMessage())
        return checked;

    for (auto m = document.MemberBegin(); m != document.MemberEnd(); ++m) {
        const std::string name = m->name.GetString();
        if (name == "header")
            continue;
        fault = checkField(*row, name, m->value);
        if (!fault.empty())
            return LineResult::failed(fault.find(" carries no such field") != std::string::npos ? "not in the record"
                                      : fault.find(" has no field ") != std::string::npos    ? "bad JSON line"
                                                                                             : "value out of range",
                                      fault);
    }

    // Every value is known to fit: protobuf's parser reads the forms of its mapping.
    std::unique_ptr<Message> message(row->prototype->New());
    const auto status = google::protobuf::util::JsonStringToMessage(
        google::protobuf::StringPiece(text.data(), text.size()), message.get(),
        google::protobuf::util::JsonParseOptions());
    if (!status.ok())
        return error("does not fit " + row->protoName + ": " + oneLine(status.ToString()));
    return wireFromProto(*row, message->SerializeAsString(), entry.payload);
}

} // namespace

LineResult parseJsonLine(std::string_view text, BusLogEntry &entry)
{
    if (text.find_first_not_of(" \t\r\n") == std::string_view::npos)
        return {};
    if (readJsonLineFast(text, entry))
        return LineResult::message();
    thread_local SlowReader slow;
    return slow.read(text, entry);
}

} // namespace vorlink
