// vorlink encode: what decode writes (JSON Lines, the binary stream, protobuf
// text) back into a bus log.

#include "JsonReader.h"
#include "SchemaMessage.h"
#include "Command.h"
#include "Dictionary.h"
#include "Io.h"
#include "LogScan.h"
#include "Selection.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <memory>

namespace vorlink {
namespace {

using google::protobuf::Message;

enum class Input { Detect, Json, Binary, Text };

struct EncodeOptions
{
    std::vector<std::string> inputs;
    std::string formatName;
    Input format = Input::Detect;
    RunFlags flags;
};

const char *const encodeFooter = R"(Input formats (--format; recognised from the first bytes when not given):
  json    JSON values as 'decode --format json' writes them, one a line or
          spread over lines (jq's default output), or the elements of one
          array (jq -s); a value starts with '{'
  binary  the length-delimited stream of 'decode --format binary'
  text    the protobuf text blocks of 'decode --format text'

Each message gives one bus-log line: time, sequence and id from its header,
the payload as its record's wire bytes. Bytes behind a record's fields are not
kept and a U32 held as a bool comes back as 0 or 1. A value that its wire
field cannot hold (300 for a U08, 1.5 for any integer field) is refused, naming
the field, the wire type and the range, and so is a oneof member that the
record does not carry (data1_float of TdSetTreatmentParameter): nothing is cut
down, widened, zeroed or dropped. A bad value costs that value alone: it is
reported with the line where it starts (its byte offset in a binary stream)
and reading picks up at the next line (JSON Lines), at the next value that
opens at the start of a line (JSON spread over lines), at the next block
(text) or at the next record (binary, as long as its size prefixes hold).

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

// Larger than any schema message of the dictionary by far; a size prefix
// past it is no size of a message.
constexpr std::uint64_t maxRecordBytes = 1 << 16;

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

// The cause a refusal of SchemaMessage's checks is counted under.
const char *causeOf(const std::string &fault)
{
    return fault.find(" carries no such field") != std::string::npos ? "not in the record"
           : fault.find(" has no field ") != std::string::npos     ? "bad record"
                                                                   : "value out of range";
}

// Walks a text block's tokens before protobuf's parser narrows anything (it
// takes 1e39 for a float as infinity, and nanos of 1500000000): the header's
// id, sequence and nanos and every field of the record, in the tool's words.
// Empty when nothing is wrong, or when the block is not text the walk
// follows; protobuf's parser then names the fault.
std::string checkTextBlock(const std::string &block)
{
    using google::protobuf::io::Tokenizer;
    google::protobuf::io::ArrayInputStream stream(block.data(), int(block.size()));
    FirstError quiet;
    Tokenizer tokens(&stream, &quiet);
    tokens.set_allow_f_after_float(true);
    tokens.set_comment_style(Tokenizer::SH_COMMENT_STYLE);
    std::string path;   // "header.timestamp." inside those messages
    std::vector<std::size_t> opened;   // where each name in `path` starts
    std::vector<std::pair<std::string, std::string>> fields;
    std::string msgId, sequence, nanos;
    tokens.Next();
    while (tokens.current().type != Tokenizer::TYPE_END) {
        const std::string token = tokens.current().text;
        if (token == "}" || token == ">" || token == ";" || token == ",") {
            if (token == "}" || token == ">") {
                if (opened.empty())
                    return {};
                path.erase(opened.back());
                opened.pop_back();
            }
            tokens.Next();
            continue;
        }
        if (tokens.current().type != Tokenizer::TYPE_IDENTIFIER)
            return {};
        tokens.Next();
        const bool colon = tokens.current().text == ":";
        if (colon)
            tokens.Next();
        if (tokens.current().text == "{" || tokens.current().text == "<") {
            opened.push_back(path.size());
            path += token + ".";
            tokens.Next();
            continue;
        }
        std::string literal = tokens.current().text == "-" ? "-" : "";
        if (!literal.empty())
            tokens.Next();
        const Tokenizer::TokenType type = tokens.current().type;
        if (!colon || (type != Tokenizer::TYPE_INTEGER && type != Tokenizer::TYPE_FLOAT &&
                       type != Tokenizer::TYPE_IDENTIFIER))
            return {};
        literal += tokens.current().text;
        tokens.Next();
        const std::string where = path + token;
        if (where == "header.msgId")
            msgId = literal;
        else if (where == "header.sequence")
            sequence = literal;
        else if (where == "header.timestamp.nanos")
            nanos = literal;
        else if (path.empty())
            fields.emplace_back(token, literal);
    }
    qint64 value = 0;
    if (!nanos.empty() && (readDecimal(nanos, value) != Decimal::Whole || value < 0 || value > 999999999))
        return "header.timestamp.nanos " + nanos + " is not from 0 to 999999999";
    if (!sequence.empty() && (readDecimal(sequence, value) != Decimal::Whole || value < -32768 || value > 65535))
        return "sequence " + sequence + " does not fit in 16 bits";
    if (msgId.empty() || readDecimal(msgId, value) != Decimal::Whole || value < 0)
        return {};
    if (value > 0xFFFF)
        return "msgId " + msgId + " is larger than 0xFFFF";
    const RowInfo *row = Dictionary::instance().find(quint16(value));
    if (row == nullptr)
        return {};
    for (const auto &[name, literal] : fields) {
        const auto field = std::find_if(row->fields.begin(), row->fields.end(),
                                        [&](const WireField &f) { return f.name == name; });
        if (field == row->fields.end()) {
            std::vector<std::string> names;
            for (const WireField &f : row->fields)
                names.push_back(f.name);
            return row->message + " has no field '" + name + "'" +
                   (names.empty() ? "; it has no fields" : "; nearest: " + nearestNames(name, names));
        }
        if (field->position < 0)
            continue;   // refused on its way to the wire, as in every format
        std::string fault = checkLiteral(*field, literal);
        if (!fault.empty())
            return fault;
    }
    return {};
}

// The bus-log entry of one text block.
LineResult entryFromText(const std::string &block, Message &envelope, BusLogEntry &entry)
{
    const std::string fault = checkTextBlock(block);
    if (!fault.empty())
        return LineResult::failed(fault.compare(0, 6, "header") == 0 || fault.compare(0, 5, "msgId") == 0 ||
                                          fault.compare(0, 8, "sequence") == 0
                                      ? "bad header"
                                      : causeOf(fault),
                                  fault);
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
    if (head.substr(0, 3) == "\xEF\xBB\xBF")   // a byte-order mark, as before a bus log
        head.remove_prefix(3);
    if (startsBinary(head))
        return Input::Binary;
    const std::size_t first = head.find_first_not_of(" \t\r\n");
    if (first != std::string_view::npos && head[first] == '{')
        return Input::Json;
    // An array of them (jq -s): '[' and then a value or its end.
    const std::size_t second = first == std::string_view::npos ? first : head.find_first_not_of(" \t\r\n", first + 1);
    if (second != std::string_view::npos && head[first] == '[' && (head[second] == '{' || head[second] == ']'))
        return Input::Json;
    // Too short to tell: a size and the header's tag, not blank lines.
    const std::size_t tag = sizeBytes(head);
    if (head.size() > tag && head[tag] == '\x0A' && first != std::string_view::npos && first < tag)
        return Input::Binary;
    return Input::Text;
}

void writeEntry(const BusLogEntry &entry, Writer &out)
{
    appendBusLogLine(entry, out.buffer());
    out.buffer().push_back('\n');
    out.commit();
}

// What one input and the run share: where messages go, where refusals go.
struct EncodeRun
{
    Writer &out;
    Rejects &rejects;
    ScanView &view;
    bool strict;
    Message &envelope;
    BusLogEntry entry;
};

// A length-delimited stream of schema messages.
void encodeBinary(LineReader &input, EncodeRun &run)
{
    ReaderStream stream(input);
    std::string bytes;
    while (!run.out.failed() && !input.peek().empty()) {
        const long long offset = input.bytesConsumed();
        std::uint64_t size = 0;
        int prefix = 0;   // bytes of the size prefix read
        bool whole = true, ended = false;
        {   // a coded stream for each message: it gives back what it read ahead when it goes
            google::protobuf::io::CodedInputStream coded(&stream);
            std::uint8_t byte = 0x80;
            for (; prefix < 10 && byte >= 0x80; ++prefix) {
                if (!coded.ReadRaw(&byte, 1)) {
                    ended = true;
                    break;
                }
                size |= std::uint64_t(byte & 0x7F) << (7 * prefix);
            }
            whole = !ended && byte < 0x80 && size <= maxRecordBytes && coded.ReadString(&bytes, int(size));
        }
        if (!whole) {   // without its size, the stream cannot be followed past this point
            run.rejects.reportOffset(offset, "bad record",
                                     ended ? "the stream ends inside the size prefix of a message"
                                     : prefix == 10 && size > maxRecordBytes
                                         ? "the size prefix is not a varint (10 bytes, each with its high bit set); "
                                           "nothing after it can be read"
                                     : size > maxRecordBytes
                                         ? "the size prefix says " + std::to_string(size) +
                                               " bytes, more than any message (" + std::to_string(maxRecordBytes) +
                                               "); nothing after it can be read"
                                         : "the stream ends inside a message of " + std::to_string(size) + " bytes");
            return;
        }
        run.view.tick(input.position(), 0);
        const LineResult result = entryFromBytes(bytes, run.envelope, run.entry);
        if (result.isMessage()) {
            writeEntry(run.entry, run.out);
        } else {
            run.rejects.reportOffset(offset, result.cause, result.reason);
            if (run.strict)
                return;
        }
    }
}

// JSON values or protobuf text blocks, line by line.
void encodeLines(LineReader &input, Input from, EncodeRun &run)
{
    std::string_view line;
    std::string block;   // a text block
    long long blockLine = 0;
    bool blockHeader = false, skipping = false;
    auto report = [&](long long lineNumber, const LineResult &result) {
        if (result.kind == LineResult::Message)
            writeEntry(run.entry, run.out);
        else if (result.kind == LineResult::Error)
            run.rejects.report(lineNumber, result.cause, result.reason);
        return result.kind != LineResult::Error || !run.strict;
    };
    auto endBlock = [&]() {
        blockHeader = skipping = false;
        if (block.empty())
            return true;
        const LineResult result = entryFromText(block, run.envelope, run.entry);
        block.clear();
        return report(blockLine, result);
    };
    JsonValues values;
    auto onValue = [&](std::string_view text, long long lineNumber, const char *broken) {
        if (broken == nullptr)
            return report(lineNumber, parseJsonLine(text, run.entry));
        run.rejects.report(lineNumber, "bad JSON line", broken);
        return !run.strict;
    };
    bool going = true;
    while (going && !run.out.failed() && input.next(line)) {
        run.view.tick(input.position(), input.lineNumber());
        if (from == Input::Text) {
            // A block ends at a blank line, or where a second header starts at the left edge.
            const bool header = line.substr(0, 6) == "header" && (line.size() == 6 || !std::isalnum(quint8(line[6])));
            if (line.find_first_not_of(" \t\r") == std::string_view::npos || (header && blockHeader))
                going = endBlock();
            if (!going || line.find_first_not_of(" \t\r") == std::string_view::npos || skipping)
                continue;
            if (block.empty())
                blockLine = input.lineNumber();
            blockHeader = blockHeader || header;
            block.append(line).push_back('\n');
            if (block.size() > JsonValues::maxValueBytes) {
                run.rejects.report(blockLine, "bad record", "the block is longer than " +
                                                                std::to_string(JsonValues::maxValueBytes) +
                                                                " bytes, more than any message; skipped to the next");
                block.clear();
                skipping = true;
                going = !run.strict;
            }
            continue;
        }
        // One value a line is the common case: try it whole first.
        if (values.between() && readJsonLineFast(line, run.entry)) {
            writeEntry(run.entry, run.out);
            continue;
        }
        going = values.feed(line, input.lineNumber(), onValue);
    }
    // A value or block the input ends inside is its own; the next input starts afresh.
    if (going && from == Input::Json)
        values.finish(onValue);
    else if (going)
        endBlock();
}

int runEncode(const CLI::App &command, EncodeOptions &options)
{
    setVerbose(options.flags.verbose);
    std::string error;
    if (!options.formatName.empty() &&
        !choose<Input>("--format", options.formatName, {{"json", Input::Json}, {"binary", Input::Binary},
                                                        {"text", Input::Text}},
                       options.format, error))
        return misuse(command, error);
    if (!checkInputs(options.inputs, options.flags.follow, error))
        return misuse(command, error);
    // The scan only holds the input being read and what was rejected: each
    // input is read here, in its own format.
    const Selection everything;
    LogScan scan(everything, options.flags.strict);
    Writer out;
    ScanView view(command, scan, options.flags, options.inputs, &out);
    std::unique_ptr<Message> envelope(
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(&envelopeType())->New());
    EncodeRun run{out, scan.rejects(), view, options.flags.strict, *envelope, {}};
    while (!out.failed() && view.nextInput()) {
        LineReader &input = scan.input();
        const Input from = options.format == Input::Detect ? detect(input.peek()) : options.format;
        if (from == Input::Binary)
            encodeBinary(input, run);
        else
            encodeLines(input, from, run);
        if (run.strict && run.rejects.count() > 0)
            break;
    }
    return view.finish(out);
}

} // namespace

Command addEncodeCommand(CLI::App &parent)
{
    auto options = std::make_shared<EncodeOptions>();
    CLI::App *command = parent.add_subcommand("encode", "convert what decode writes (json, binary or text) back "
                                                        "into a bus log");
    command->add_option("FILE", options->inputs, "the inputs, read in turn, each in its own format, plain or "
                                                 "compressed (gzip, xz, zstd); standard input when '-' or missing")
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
