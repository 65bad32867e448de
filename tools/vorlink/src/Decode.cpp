// vorlink decode: a bus log into dump lines, JSON Lines, protobuf text, a
// length-delimited protobuf stream, or CSV of one message type.

#include "Command.h"
#include "Dictionary.h"
#include "DumpLine.h"
#include "JsonCodec.h"
#include "LogScan.h"
#include "Pieces.h"
#include "ProtoText.h"
#include "Selection.h"

#include <google/protobuf/descriptor.h>

#include <charconv>
#include <cstdint>
#include <memory>
#include <vector>

namespace vorlink {
namespace {

using google::protobuf::FieldDescriptor;

enum class Format { Dump, Json, Text, Binary, Csv };

struct DecodeOptions
{
    std::vector<std::string> inputs;
    std::string formatName = "dump";
    Format format = Format::Dump;
    RunFlags flags;
    int jobs = 1;
    SelectionOptions select;
    Selection selection;
};

const char *const decodeFooter = R"(Formats:
  dump    each record's own dump line (default)
  json    JSON Lines: protobuf's JSON of the schema message, header included,
          field names as in the schema, every field shown
  text    protobuf text format, each message after a '# line N: <type>' comment
          and followed by a blank line
  binary  length-delimited protobuf stream: each message's size as a varint,
          then its bytes (what protobuf's ParseDelimitedFrom reads)
  csv     one message type (select it with --message): a header row of time,
          message, id (0x2600), sequence (0 to 65535), msgId (9728) and the
          schema fields (oneof members left out: the library never sets
          them), then unread (the payload's bytes behind the record, in
          hexadecimal) for the union messages; then a row per message

Examples:
  vorlink decode examples/bus.log
  vorlink decode --format json --message DdTemperatureData --from 2023-11-14T22:13:20Z bus.log
  vorlink decode --format csv --message DdTemperatureData bus.log > temperatures.csv
  vorlink synth --count 10 | vorlink decode --format text
  tail -f bus.log | vorlink decode      each line as it comes
  vorlink decode --follow bus.log       the same, through log rotation

A line that cannot be converted (bad field, odd hex, unknown id, payload too
short) is reported on standard error as FILE:LINE: reason; the other lines are
still converted. Exit status: 0 ok, 1 some line was rejected, 2 misuse.)";

void appendVarint(std::string &out, std::uint32_t value)
{
    while (value >= 0x80) {
        out.push_back(char(value | 0x80));
        value >>= 7;
    }
    out.push_back(char(value));
}

// The CSV header: time, the message's name, its id as the log writes it,
// sequence as the log writes it (0 to 65535), msgId as the schema holds it,
// then the schema fields by name, without the oneof members, which the
// library never sets; last, for a message whose payload is longer than its
// record, the bytes behind the record (unread).
void appendCsvHeader(const RowInfo &row, std::string &out)
{
    out += "time,message,id,sequence,msgId";
    for (int k = 0; k < row.descriptor->field_count(); ++k) {
        const FieldDescriptor *field = row.descriptor->field(k);
        if (field->name() != "header" && field->containing_oneof() == nullptr) {
            out += ',';
            out += field->name();
        }
    }
    if (row.payloadSize > row.wireSize)
        out += ",unread";
    out += '\n';
}

void appendHex(const char *data, int size, std::string &out)
{
    static const char digits[] = "0123456789abcdef";
    for (int k = 0; k < size; ++k) {
        const auto byte = static_cast<unsigned char>(data[k]);
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
}

// One CSV row: values as the schema holds them (JsonCodec's spelling: floats
// in the shortest form that reads back to the same float), the unread bytes
// in hexadecimal.
bool appendCsvRow(const RowInfo &row, const BusLogEntry &entry, const QByteArray &proto, MessageValues &values,
                  std::string &out)
{
    if (!readMessageValues(row, proto.constData(), std::size_t(proto.size()), values))
        return false;
    appendIsoTime(entry.msecs, entry.nanos, out);
    out += ',' + row.message + ',' + hexId(entry.msgId) + ',' + std::to_string(entry.sequence) + ',' + std::to_string(values.msgId);
    for (const FieldValue &value : values.fields) {
        if (value.field->containing_oneof() != nullptr)
            continue;
        out += ',';
        appendFieldValue(out, value);
    }
    if (row.payloadSize > row.wireSize) {
        out += ',';
        appendHex(entry.payload.constData() + row.wireSize, entry.payload.size() - row.wireSize, out);
    }
    out += '\n';
    return true;
}

// " 0x0100 ": hexId() between blanks, without formatting a string.
void appendHexId(unsigned id, std::string &out)
{
    static const char digits[] = "0123456789ABCDEF";
    const char text[] = {' ', '0', 'x', digits[id >> 12 & 15], digits[id >> 8 & 15], digits[id >> 4 & 15], digits[id & 15], ' '};
    out.append(text, sizeof text);
}

// The log time and the id, then the record's own dump line, then the bytes
// of the payload that the record does not read, if any.
void appendDumpLine(const RowInfo &row, const BusLogEntry &entry, std::string &out)
{
    appendIsoTime(entry.msecs, entry.nanos, out);
    appendHexId(entry.msgId, out);
    vorlink::appendDumpLine(row, entry.payload.constData(), out);
    const int unread = entry.payload.size() - row.wireSize;
    if (unread > 0) {
        out += "  +" + std::to_string(unread) + (unread == 1 ? " byte" : " bytes") + " not read: ";
        appendHex(entry.payload.constData() + row.wireSize, unread, out);
    }
    out += '\n';
}

// Writes each converted message in the chosen format; one per thread.
class Converter
{
public:
    explicit Converter(Format format) : format_(format) {}

    // Appends the scan's current message to `out`, or rejects it there.
    void convert(LogScan &scan, std::string &out)
    {
        const RowInfo &row = scan.row();
        const QByteArray &proto = scan.proto();
        switch (format_) {
        case Format::Binary:
            appendVarint(out, std::uint32_t(proto.size()));
            out.append(proto.constData(), std::size_t(proto.size()));
            return;
        case Format::Dump: appendDumpLine(row, scan.entry(), out); return;
        case Format::Json:
            if (!appendJsonMessage(row, proto.constData(), std::size_t(proto.size()), out, error_)) {
                scan.reject("not converted", error_);
                return;
            }
            out.push_back('\n');
            return;
        case Format::Csv:
            if (!appendCsvRow(row, scan.entry(), proto, values_, out))
                scan.reject("not converted", "the converted bytes of " + row.protoName + " do not read as CSV");
            return;
        case Format::Text: appendText(scan, out); return;
        }
    }

private:
    void appendText(LogScan &scan, std::string &out)
    {
        out += "# line ";
        char number[24];
        out.append(number, std::size_t(std::to_chars(number, number + sizeof number, scan.lineNumber()).ptr - number));
        out += ": ";
        out += scan.row().protoName;
        out += '\n';
        appendProtoText(scan.row(), scan.entry(), out);
        out += '\n';
    }

    const Format format_;
    std::string error_;
    MessageValues values_;
};

// The pieces of a regular file on `jobs` threads, written in input order.
void decodePieces(LogScan &scan, const DecodeOptions &options, int jobs, Writer &out,
                  ScanView &view)
{
    PieceReader reader(scan.input(), pieceSize(scan.input().totalBytes(), jobs));
    const std::string &name = scan.input().name();
    const std::function<void(const Piece &, PieceOutput &)> convert = [&](const Piece &piece, PieceOutput &output) {
        // Each worker thread keeps its own, for the pieces of this file.
        thread_local std::unique_ptr<Converter> converter;
        thread_local std::unique_ptr<PieceScan> pieces;
        if (!converter) {
            converter = std::make_unique<Converter>(options.format);
            pieces = std::make_unique<PieceScan>(options.selection, options.flags.strict, scan.converts());
        }
        LogScan &part = pieces->open(piece, name, output);
        while (part.next())
            converter->convert(part, output.text);
        output.stopped = pieces->stopped();
    };
    const std::function<bool(PieceOutput &)> take = [&](PieceOutput &output) {
        std::size_t written = 0;
        for (const PieceOutput::Reject &reject : output.rejects) {
            out.append(output.text.data() + written, reject.at - written);
            written = reject.at;
            scan.rejects().report(reject.rejected.line, reject.rejected.cause, reject.rejected.reason);
        }
        out.append(output.text.data() + written, output.text.size() - written);
        return !out.failed() && !output.stopped;
    };
    runPieces(reader, jobs, convert, take,
              [&] { view.show(scan.input().position(), reader.lines()); });
}

int runDecode(const CLI::App &command, DecodeOptions &options)
{
    std::string error;
    const std::vector<std::pair<std::string, Format>> formats = {{"dump", Format::Dump}, {"json", Format::Json},
                                                                 {"text", Format::Text}, {"binary", Format::Binary},
                                                                 {"csv", Format::Csv}};
    if (!choose("--format", options.formatName, formats, options.format, error))
        return misuse(command, error);
    if (!resolveSelection(options.select, options.selection, error))
        return misuse(command, error);
    const RowInfo *csvRow = nullptr;
    if (options.format == Format::Csv) {
        const auto rows = options.selection.rows();
        if (rows.size() != 1)
            return misuse(command, rows.empty() ? "--format csv needs one message type: name it with --message"
                                                : "--format csv writes one message type, and --message selected " +
                                                      std::to_string(rows.size()));
        csvRow = rows.front();
    }
    setVerbose(options.flags.verbose);
    if (!checkInputs(options.inputs, options.flags.follow, error))
        return misuse(command, error);
    LogScan scan(options.selection, options.flags.strict);
    // Dump lines and text are written from the wire bytes: the library's
    // conversion only checks what the scan checks without it, unless its own
    // lines are wanted.
    scan.setConvert(options.flags.verbose || (options.format != Format::Dump && options.format != Format::Text));
    Writer out;
    ScanView view(command, scan, options.flags, options.inputs, &out);
    if (csvRow != nullptr)
        appendCsvHeader(*csvRow, out.buffer());

    // The inputs in turn; a large plain regular file on --jobs threads. The
    // library's own lines (--verbose) come in the order one job makes them.
    Converter converter(options.format);
    while (!out.failed() && view.nextInput()) {
        const int jobs = options.flags.verbose ? 1 : jobsFor(scan.input(), options.flags.follow, options.jobs);
        if (jobs > 1) {
            decodePieces(scan, options, jobs, out, view);
            if (options.flags.strict && scan.rejects().count() > 0)
                break;
            continue;
        }
        while (!out.failed() && scan.next()) {
            converter.convert(scan, out.buffer());
            out.commit();
        }
    }
    return view.finish(out);
}

} // namespace

Command addDecodeCommand(CLI::App &parent)
{
    auto options = std::make_shared<DecodeOptions>();
    CLI::App *command = parent.add_subcommand("decode", "convert a bus log into dump lines, JSON Lines, protobuf "
                                                        "text, a binary stream or CSV");
    command->add_option("FILE", options->inputs, "the bus logs, read in turn, plain or compressed (gzip, xz, zstd); "
                                                 "standard input when '-' or missing")
        ->type_name("");
    command->add_option("--format", options->formatName, "dump (default), json, text, binary or csv")
        ->type_name("FORMAT");
    addSelectionOptions(*command, options->select);
    addRunFlags(*command, options->flags);
    addFollowFlag(*command, options->flags.follow);
    addJobsOption(*command, options->jobs);
    command->footer(decodeFooter);
    return {command, [command, options] { return runDecode(*command, *options); }};
}

} // namespace vorlink
