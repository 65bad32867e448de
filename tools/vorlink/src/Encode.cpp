// vorlink encode: what decode writes (JSON Lines, the binary stream, protobuf
// text) back into a bus log.

#include "JsonLine.h"
#include "JsonCodec.h"
#include "Command.h"
#include "Dictionary.h"
#include "Io.h"
#include "LogScan.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>

#include <climits>
#include <memory>

namespace vorlink {
namespace {

using google::protobuf::Message;

enum class Input { Detect, Json, Binary, Text };

struct EncodeOptions
{
    std::string input = "-";
    std::string formatName;
    Input format = Input::Detect;
    RunFlags flags;
};

const char *const encodeFooter = R"(Input formats (--format; recognised from the first bytes when not given):
  json    JSON values as 'decode --format json' writes them, one a line or
          spread over lines (jq's default output); a value starts with '{'
  binary  the length-delimited stream of 'decode --format binary'
  text    the protobuf text blocks of 'decode --format text'

Each message gives one bus-log line: time, sequence and id from its header,
the payload as its record's wire bytes. Bytes behind a record's fields are not
kept and a U32 held as a bool comes back as 0 or 1. A value that its wire
field cannot hold (300 for a U08) is refused, naming the field and the range.
A bad line, block or record is reported with the line where it starts (its
byte offset in a binary stream) and the rest is still encoded.

Examples:
  vorlink decode --format json bus.log | vorlink encode
  vorlink decode --format binary bus.log > bus.bin && vorlink encode bus.bin)";

// ZeroCopyInputStream over the tool's line reader, so that a stream can be
// recognised from its first bytes and then read with protobuf's own
// CodedInputStream.
class ReaderStream : public google::protobuf::io::ZeroCopyInputStream
{
public:
    explicit ReaderStream(LineReader &reader) : reader_(reader) {}
    bool Next(const void **data, int *size) override
    {
        std::string_view chunk;
        if (!reader_.nextChunk(chunk))
            return false;
        *data = chunk.data();
        *size = int(chunk.size());
        return true;
    }
    void BackUp(int count) override { reader_.backUp(std::size_t(count)); }
    bool Skip(int count) override
    {
        const void *data;
        int size;
        while (count > 0 && Next(&data, &size)) {
            if (size > count) {
                BackUp(size - count);
                return true;
            }
            count -= size;
        }
        return count == 0;
    }
    google::protobuf::int64 ByteCount() const override { return reader_.bytesConsumed(); }

private:
    LineReader &reader_;
};

LineResult rejected(std::string reason) { return LineResult::failed("bad record", std::move(reason)); }

const google::protobuf::Descriptor &envelopeType()
{
    static const auto *type =
        google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName("zelko.messages.Envelope");
    return *type;
}

// The bus-log entry of one schema message's serialized bytes.
LineResult entryFromBytes(const std::string &bytes, Message &envelope, BusLogEntry &entry)
{
    envelope.Clear();
    if (!envelope.ParseFromString(bytes))
        return rejected("not a protobuf message");
    const RowInfo *row = nullptr;
    LineResult result = readSchemaHeader(envelope, entry, row);
    if (!result.isMessage())
        return result;
    result = wireFromProto(*row, bytes, entry.payload);
    if (!result.isMessage() && std::string(result.cause) == "bad record")
        return rejected("does not parse as " + row->protoName);
    return result;
}

// Keeps the text parser's first error for the report, and its warnings (a
// field the Envelope does not know) out of the log.
class FirstError : public google::protobuf::io::ErrorCollector
{
public:
    void AddError(int line, int column, const std::string &message) override
    {
        if (text.empty())
            text = "line " + std::to_string(line + 1) + " of the block, column " + std::to_string(column + 1) +
                   ": " + message;
    }
    void AddWarning(int, int, const std::string &) override {}
    std::string text;
};

// The bus-log entry of one text block.
LineResult entryFromText(const std::string &block, Message &envelope, BusLogEntry &entry)
{
    FirstError errors;
    google::protobuf::TextFormat::Parser parser;
    parser.RecordErrorsTo(&errors);
    parser.AllowUnknownField(true);   // the header alone, to learn the type
    envelope.Clear();
    if (!parser.ParseFromString(block, &envelope))
        return rejected("not protobuf text of a schema message: " + errors.text);
    const RowInfo *row = nullptr;
    LineResult result = readSchemaHeader(envelope, entry, row);
    if (!result.isMessage())
        return result;
    std::unique_ptr<Message> message(row->prototype->New());
    parser.AllowUnknownField(false);
    if (!parser.ParseFromString(block, message.get()))
        return rejected("does not fit " + row->protoName + ": " + errors.text);
    std::string bytes;
    message->SerializeToString(&bytes);
    return wireFromProto(*row, bytes, entry.payload);
}

// A binary stream starts with a varint size, the header's tag 0x0A and its
// size (under 32 bytes, and within the message), then the tag of the header's
// first field: the sequence (0x10), the id (0x18) or the timestamp (0x0A, its
// size within the header's, then 0x08 or 0x10 unless it is empty). A size of
// 9, 10, 13 or 32 is a blank, and one of 123 is '{', so JSON and text may
// start with the first bytes of that; never with a timestamp's.
// The bytes of the first size: one, or two from 128 bytes on.
std::size_t sizeBytes(std::string_view head)
{
    return !head.empty() && quint8(head[0]) >= 0x80 ? 2 : 1;
}

bool startsBinary(std::string_view head)
{
    const auto at = [&](std::size_t k) { return k < head.size() ? int(quint8(head[k])) : -1; };
    const std::size_t tag = sizeBytes(head);
    const int size = tag == 2 ? (at(0) & 0x7F) | (at(1) << 7) : at(0);
    const int header = at(tag + 1);
    if (at(tag) != 0x0A || header < 0 || header >= 0x20 || header + 2 > size)
        return false;
    const int field = at(tag + 2), time = at(tag + 3);
    if (field == 0x10 || field == 0x18)
        return true;
    return field == 0x0A && time >= 0 && time + 2 <= header && (time == 0 || at(tag + 4) == 0x08 || at(tag + 4) == 0x10);
}

Input detect(std::string_view head)
{
    if (startsBinary(head))
        return Input::Binary;
    const std::size_t first = head.find_first_not_of(" \t\r\n");
    if (first != std::string_view::npos && head[first] == '{')
        return Input::Json;
    // Too short to tell: a size and the header's tag, not blank lines.
    const std::size_t tag = sizeBytes(head);
    if (head.size() > tag && head[tag] == '\x0A' && first != std::string_view::npos && first < tag)
        return Input::Binary;
    return Input::Text;
}

// Follows the nesting of JSON text line by line, to find where a value
// spread over lines ends.
class JsonNesting
{
public:
    // True when the text fed so far closes every object and array it opens.
    bool feed(std::string_view line)
    {
        for (const char c : line) {
            if (inString_) {
                if (escaped_)
                    escaped_ = false;
                else if (c == '\\')
                    escaped_ = true;
                else if (c == '"')
                    inString_ = false;
            } else if (c == '"') {
                inString_ = true;
            } else if (c == '{' || c == '[') {
                ++depth_;
            } else if (c == '}' || c == ']') {
                --depth_;
            }
        }
        return depth_ <= 0;
    }
    void reset() { *this = JsonNesting(); }

private:
    int depth_ = 0;
    bool inString_ = false, escaped_ = false;
};

void writeEntry(const BusLogEntry &entry, Writer &out)
{
    appendBusLogLine(entry, out.buffer());
    out.buffer().push_back('\n');
    out.commit();
}

int runEncode(const CLI::App &command, EncodeOptions &options)
{
    setVerbose(options.flags.verbose);
    LineReader input;
    std::string error;
    if (!options.formatName.empty() &&
        !choose<Input>("--format", options.formatName, {{"json", Input::Json}, {"binary", Input::Binary},
                                                        {"text", Input::Text}},
                       options.format, error))
        return misuse(command, error);
    if (!openInput(input, options.input, options.flags.follow, error))
        return misuse(command, error);
    Writer out;
    Progress progress(!options.flags.noProgress, input.totalBytes());
    Rejects rejects;
    watchInput(input, rejects, &out, progress);
    const bool strict = options.flags.strict;
    std::unique_ptr<Message> envelope(
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(&envelopeType())->New());
    BusLogEntry entry;

    const Input from = options.format == Input::Detect ? detect(input.peek()) : options.format;
    if (from == Input::Binary) {
        ReaderStream stream(input);
        std::string bytes;
        while (!out.failed() && !input.peek().empty()) {
            const long long offset = input.bytesConsumed();
            std::uint32_t size = 0;
            bool whole;
            {   // a coded stream for each message: it gives back what it read ahead when it goes
                google::protobuf::io::CodedInputStream coded(&stream);
                whole = coded.ReadVarint32(&size) && size <= INT_MAX && coded.ReadString(&bytes, int(size));
            }
            if (!whole) {
                rejects.reportOffset(offset, "bad record", "the stream ends inside a message");
                break;
            }
            progress.tick(input.bytesConsumed(), 0);
            const LineResult result = entryFromBytes(bytes, *envelope, entry);
            if (result.isMessage()) {
                writeEntry(entry, out);
            } else {
                rejects.reportOffset(offset, result.cause, result.reason);
                if (strict)
                    break;
            }
        }
        return finishRun(command, input, rejects, progress, out, strict);
    }

    std::string_view line;
    std::string block;   // a text block, or a JSON value spread over lines
    long long blockLine = 0;
    JsonNesting nesting;
    auto report = [&](long long lineNumber, const LineResult &result) {
        if (result.kind == LineResult::Message)
            writeEntry(entry, out);
        else if (result.kind == LineResult::Error)
            rejects.report(lineNumber, result.cause, result.reason);
        return result.kind != LineResult::Error || !strict;
    };
    auto endBlock = [&]() {
        if (block.empty())
            return true;
        const LineResult result = entryFromText(block, *envelope, entry);
        block.clear();
        if (result.isMessage()) {
            writeEntry(entry, out);
            return true;
        }
        rejects.report(blockLine, result.cause, result.reason);
        return !strict;
    };
    bool going = true;
    while (going && !out.failed() && input.next(line)) {
        progress.tick(input.bytesConsumed(), input.lineNumber());
        if (from == Input::Text) {
            if (line.find_first_not_of(" \t\r") == std::string_view::npos) {
                going = endBlock();
            } else {
                if (block.empty())
                    blockLine = input.lineNumber();
                block.append(line).push_back('\n');
            }
            continue;
        }
        if (!block.empty()) {   // inside a value that started on an earlier line
            block.append(line).push_back('\n');
            if (nesting.feed(line)) {
                going = report(blockLine, parseJsonLine(block, entry));
                block.clear();
            }
            continue;
        }
        // One value a line is the common case: try it whole first.
        if (readJsonLineFast(line, entry)) {
            writeEntry(entry, out);
            continue;
        }
        nesting.reset();
        if (!nesting.feed(line)) {
            blockLine = input.lineNumber();
            block.assign(line.data(), line.size()).push_back('\n');
            continue;
        }
        going = report(input.lineNumber(), parseJsonLine(line, entry));
    }
    if (going && from == Input::Json && !block.empty())
        report(blockLine, parseJsonLine(block, entry));
    else if (going)
        endBlock();
    return finishRun(command, input, rejects, progress, out, strict);
}

} // namespace

Command addEncodeCommand(CLI::App &parent)
{
    auto options = std::make_shared<EncodeOptions>();
    CLI::App *command = parent.add_subcommand("encode", "convert what decode writes (json, binary or text) back "
                                                        "into a bus log");
    command->add_option("FILE", options->input, "the input; standard input when '-' or missing")
        ->type_name("");
    command->add_option("--format", options->formatName, "the input: json, binary or text; recognised from the "
                                                         "first bytes when not given")
        ->type_name("FORMAT");
    addRunFlags(*command, options->flags);
    addFollowFlag(*command, options->flags.follow);
    command->footer(encodeFooter);
    return {command, [command, options] { return runEncode(*command, *options); }};
}

} // namespace vorlink
