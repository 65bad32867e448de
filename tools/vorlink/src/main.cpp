// vorlink: decode, encode, list and synthesise bus logs with the Vorlink
// message dictionary.

#include "BusLog.h"
#include "Dictionary.h"
#include "Io.h"
#include "JsonCodec.h"

#include "ZelkoMsgDefs.h"
#include "ZelkoMsgProtoUtils.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include <QDateTime>
#include <QLoggingCategory>
#include <QString>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#ifndef VORLINK_VERSION
#define VORLINK_VERSION "unknown"
#endif

namespace vorlink {
namespace {

constexpr int exitOk = 0;
constexpr int exitRejected = 1;
constexpr int exitMisuse = 2;

// ---------------------------------------------------------------- logging
// The library speaks through Qt's logger. A record's dump line is the output
// of `decode --format dump`; everything else the library says is kept off
// standard output, and shown on standard error only with --verbose.

Writer *dumpTarget = nullptr;   // set while a record dumps itself
bool verboseLog = false;

void messageHandler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (dumpTarget != nullptr && type == QtDebugMsg &&
        (context.category == nullptr || std::strcmp(context.category, "default") == 0)) {
        const QByteArray utf8 = text.toUtf8();
        dumpTarget->append(utf8.constData(), std::size_t(utf8.size()));
        dumpTarget->append('\n');
        return;
    }
    if (verboseLog)
        std::fprintf(stderr, "vorlink: library: %s\n", text.toLocal8Bit().constData());
}

void setVerbose(bool verbose)
{
    verboseLog = verbose;
    // Without --verbose the reader's warnings would only be dropped: keep the
    // library from building their text at all.
    if (!verbose)
        QLoggingCategory::setFilterRules(QStringLiteral("bytra.types.warning=false"));
}

// ------------------------------------------------------------ arguments

struct Option
{
    const char *name;   // long name without "--"
    bool takesValue;
};

struct Args
{
    std::vector<std::string> positional;
    std::map<std::string, std::string> values;
    bool has(const std::string &name) const { return values.count(name) != 0; }
    std::string value(const std::string &name, const std::string &fallback) const
    {
        const auto it = values.find(name);
        return it == values.end() ? fallback : it->second;
    }
};

bool parseArgs(int argc, char **argv, int first, const std::vector<Option> &options, Args &args, std::string &error)
{
    bool onlyPositional = false;
    for (int i = first; i < argc; ++i) {
        const std::string arg = argv[i];
        if (onlyPositional || arg == "-" || arg.size() < 2 || arg[0] != '-') {
            args.positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            onlyPositional = true;
            continue;
        }
        if (arg == "-h") {
            args.values["help"] = "";
            continue;
        }
        if (arg.compare(0, 2, "--") != 0) {
            error = "unknown option '" + arg + "'";
            return false;
        }
        std::string name = arg.substr(2);
        std::string value;
        bool inlineValue = false;
        if (const auto eq = name.find('='); eq != std::string::npos) {
            value = name.substr(eq + 1);
            name.resize(eq);
            inlineValue = true;
        }
        const auto option = std::find_if(options.begin(), options.end(),
                                         [&](const Option &o) { return name == o.name; });
        if (option == options.end()) {
            error = "unknown option '--" + name + "'";
            return false;
        }
        if (option->takesValue && !inlineValue) {
            if (i + 1 >= argc) {
                error = "option '--" + name + "' needs a value";
                return false;
            }
            value = argv[++i];
        } else if (!option->takesValue && inlineValue) {
            error = "option '--" + name + "' takes no value";
            return false;
        }
        args.values[name] = value;
    }
    return true;
}

int misuse(const char *command, const std::string &error)
{
    std::fprintf(stderr, "vorlink %s: %s\nTry 'vorlink %s --help'.\n", command, error.c_str(), command);
    return exitMisuse;
}

bool parseCount(const std::string &text, unsigned long long &value)
{
    if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    value = std::stoull(text);
    return true;
}

// ----------------------------------------------------------------- help

const char *const mainHelp =
    "Usage: vorlink <command> [options]\n"
    "\n"
    "The Vorlink message dictionary on the command line.\n"
    "\n"
    "Commands:\n"
    "  decode [FILE|-]   convert a bus log into dump lines, JSON Lines, protobuf text or binary\n"
    "  encode [FILE|-]   convert JSON Lines from 'decode --format json' back into a bus log\n"
    "  list [ID|NAME]    show the dictionary: ids, names, sizes and fields\n"
    "  synth             write a deterministic bus log over every message\n"
    "\n"
    "Options:\n"
    "  -h, --help        show this help; 'vorlink <command> --help' for a command\n"
    "  --version         show the version\n"
    "\n"
    "Bus-log line: <time> <sequence> <id> <payload>, e.g.\n"
    "  1700000000.123 7 0x0100 02000000010000003c0000000500\n"
    "time in seconds since 1970 (UTC, up to 3 decimals), sequence 0 to 65535 in\n"
    "decimal, id in hexadecimal, payload in hexadecimal ('-' when empty). Blank\n"
    "lines and lines starting with '#' are skipped.\n"
    "\n"
    "Exit status: 0 success, 1 some input was rejected, 2 misuse.\n";

const char *const decodeHelp =
    "Usage: vorlink decode [options] [FILE|-]\n"
    "\n"
    "Reads a bus log (standard input when FILE is '-' or missing) and converts\n"
    "every message with the library into its schema message.\n"
    "\n"
    "Options:\n"
    "  --format FORMAT   dump    the record's dump line (default)\n"
    "                    json    JSON Lines, one schema message per line, header included\n"
    "                    text    protobuf text format, one block per message\n"
    "                    binary  length-delimited protobuf stream (varint size, then bytes)\n"
    "  --strict          stop at the first rejected line\n"
    "  --verbose         show the library's own log lines on standard error\n"
    "  --no-progress     never draw the progress bar\n"
    "  -h, --help        show this help\n"
    "\n"
    "A line that cannot be converted (bad field, odd hex, unknown id, payload too\n"
    "short) is reported on standard error as FILE:LINE: reason; the other lines\n"
    "are still converted. Exit status 1 when any line was rejected.\n";

const char *const encodeHelp =
    "Usage: vorlink encode [options] [FILE|-]\n"
    "\n"
    "Reads JSON Lines as 'vorlink decode --format json' writes them and writes the\n"
    "bus log they stand for: time, sequence and id from each header, the payload\n"
    "as the record's wire bytes.\n"
    "\n"
    "Options:\n"
    "  --strict          stop at the first rejected line\n"
    "  --verbose         show the library's own log lines on standard error\n"
    "  --no-progress     never draw the progress bar\n"
    "  -h, --help        show this help\n";

const char *const listHelp =
    "Usage: vorlink list [ID|NAME]\n"
    "\n"
    "Shows every message, or the one given by id (hexadecimal, '0x' optional) or\n"
    "by name (MSG_ID_... enumerator, message name or zelko.messages.<Message>,\n"
    "in any case): id, enumerator, schema message, payload size, and each field\n"
    "with its byte position, wire type, name and schema type.\n"
    "\n"
    "Options:\n"
    "  -h, --help        show this help\n";

const char *const synthHelp =
    "Usage: vorlink synth [--count N] [--seed S] [--start SECONDS]\n"
    "\n"
    "Writes a valid bus log of N messages (default 1000) to standard output. Every\n"
    "message of the dictionary appears once in each run of 474 lines, in an order\n"
    "and with field values drawn from the seed (default 1); the same N and S always\n"
    "give the same log. Times start at SECONDS (default 1700000000).\n"
    "\n"
    "Options:\n"
    "  --count N         number of messages\n"
    "  --seed S          seed of the pseudo-random values\n"
    "  --start SECONDS   time of the first message, whole seconds since 1970\n"
    "  -h, --help        show this help\n";

// Closes a decode or encode run: flushes the output and sums up what was rejected.
int finishRun(const char *command, const LineReader &input, const Rejects &rejects, Progress &progress, Writer &out,
              bool strict)
{
    progress.clear();
    out.flush();
    if (input.readError() != 0) {
        std::fprintf(stderr, "vorlink %s: %s: %s\n", command, input.name().c_str(), std::strerror(input.readError()));
        return exitRejected;
    }
    if (rejects.count() > 0) {
        std::fprintf(stderr, "vorlink %s: %lld line%s rejected%s\n", command, rejects.count(),
                     rejects.count() == 1 ? "" : "s", strict ? ", stopped (--strict)" : "");
        return exitRejected;
    }
    return out.failed() ? exitRejected : exitOk;
}

// --------------------------------------------------------------- decode

enum class Format { Dump, Json, Text, Binary };

std::string hexId(unsigned id)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%04X", id);
    return text;
}

void appendVarint(std::string &out, std::uint32_t value)
{
    while (value >= 0x80) {
        out.push_back(char(value | 0x80));
        value >>= 7;
    }
    out.push_back(char(value));
}

int runDecode(int argc, char **argv)
{
    Args args;
    std::string error;
    if (!parseArgs(argc, argv, 2, {{"format", true}, {"strict", false}, {"verbose", false}, {"no-progress", false}, {"help", false}},
                   args, error))
        return misuse("decode", error);
    if (args.has("help")) {
        std::fputs(decodeHelp, stdout);
        return exitOk;
    }
    if (args.positional.size() > 1)
        return misuse("decode", "more than one input file");
    const std::string formatName = args.value("format", "dump");
    Format format;
    if (formatName == "dump")
        format = Format::Dump;
    else if (formatName == "json")
        format = Format::Json;
    else if (formatName == "text")
        format = Format::Text;
    else if (formatName == "binary")
        format = Format::Binary;
    else
        return misuse("decode", "unknown format '" + formatName + "' (dump, json, text or binary)");
    const bool strict = args.has("strict");
    setVerbose(args.has("verbose"));

    LineReader input;
    if (!input.open(args.positional.empty() ? "-" : args.positional.front(), error))
        return misuse("decode", error);

    const Dictionary &dictionary = Dictionary::instance();
    Writer out;
    Progress progress(!args.has("no-progress"), input.totalBytes());
    Rejects rejects(input.name(), progress);

    google::protobuf::TextFormat::Printer textPrinter;
    std::vector<std::unique_ptr<google::protobuf::Message>> parsed(dictionary.rows().size());
    std::string text;

    BusLogEntry entry;
    Bytra::Can::Message message;
    QByteArray proto;
    std::string_view line;
    bool stop = false;
    while (!stop && input.next(line)) {
        progress.tick(input.bytesConsumed(), input.lineNumber());
        const LineResult result = parseBusLogLine(line, entry);
        if (result.kind == LineResult::Skip)
            continue;
        if (result.kind == LineResult::Error) {
            rejects.report(input.lineNumber(), result.reason);
            if (strict)
                break;
            continue;
        }
        // The table holds msgIdToProtoName's answer for every id the library
        // knows; an id without a row is one the library has no message for.
        const RowInfo *row = dictionary.find(entry.msgId);
        if (row == nullptr || row->prototype == nullptr) {
            rejects.report(input.lineNumber(), "unknown message id " + hexId(entry.msgId));
            if (strict)
                break;
            continue;
        }

        message.sequence = entry.sequence;
        message.msgId = entry.msgId;
        message.payload.swap(entry.payload);
        const bool converted = zelko::canMessageToProtobufByteArray(
            QDateTime::fromMSecsSinceEpoch(entry.msecs, Qt::UTC), message, proto);
        message.payload.swap(entry.payload);
        const std::string &protoName = row->protoName;
        if (!converted) {
            const int size = entry.payload.size();
            rejects.report(input.lineNumber(),
                           size < row->wireSize
                               ? "payload of " + std::to_string(size) + " bytes is too short for " + row->message +
                                     " (" + hexId(entry.msgId) + "), which needs " + std::to_string(row->wireSize)
                               : "the library could not convert " + protoName);
            if (strict)
                break;
            continue;
        }

        switch (format) {
        case Format::Binary: {
            std::string &buffer = out.buffer();
            appendVarint(buffer, std::uint32_t(proto.size()));
            buffer.append(proto.constData(), std::size_t(proto.size()));
            out.commit();
            break;
        }
        case Format::Dump:
            dumpTarget = &out;
            row->dumpPayload(entry.payload);
            dumpTarget = nullptr;
            break;
        case Format::Json: {
            std::string &buffer = out.buffer();
            if (!appendJsonMessage(*row, proto.constData(), std::size_t(proto.size()), buffer, error)) {
                rejects.report(input.lineNumber(), error);
                stop = strict;
                break;
            }
            buffer.push_back('\n');
            out.commit();
            break;
        }
        case Format::Text: {
            const std::size_t index = std::size_t(row - dictionary.rows().data());
            if (!parsed[index])
                parsed[index].reset(row->prototype->New());
            google::protobuf::Message &schema = *parsed[index];
            schema.Clear();
            if (!schema.ParseFromArray(proto.constData(), proto.size())) {
                rejects.report(input.lineNumber(), "the converted bytes do not parse as " + protoName);
                stop = strict;
                break;
            }
            text.clear();
            textPrinter.PrintToString(schema, &text);
            out.append("# line " + std::to_string(input.lineNumber()) + ": " + protoName + "\n");
            out.append(text);
            out.append('\n');
            break;
        }
        }
    }
    return finishRun("decode", input, rejects, progress, out, strict);
}

// --------------------------------------------------------------- encode

int runEncode(int argc, char **argv)
{
    Args args;
    std::string error;
    if (!parseArgs(argc, argv, 2, {{"strict", false}, {"verbose", false}, {"no-progress", false}, {"help", false}}, args,
                   error))
        return misuse("encode", error);
    if (args.has("help")) {
        std::fputs(encodeHelp, stdout);
        return exitOk;
    }
    if (args.positional.size() > 1)
        return misuse("encode", "more than one input file");
    const bool strict = args.has("strict");
    setVerbose(args.has("verbose"));

    LineReader input;
    if (!input.open(args.positional.empty() ? "-" : args.positional.front(), error))
        return misuse("encode", error);
    Writer out;
    Progress progress(!args.has("no-progress"), input.totalBytes());
    Rejects rejects(input.name(), progress);

    BusLogEntry entry;
    std::string_view line;
    while (input.next(line)) {
        progress.tick(input.bytesConsumed(), input.lineNumber());
        const LineResult result = parseJsonLine(line, entry);
        if (result.kind == LineResult::Skip)
            continue;
        if (result.kind == LineResult::Error) {
            rejects.report(input.lineNumber(), result.reason);
            if (strict)
                break;
            continue;
        }
        appendBusLogLine(entry, out.buffer());
        out.buffer().push_back('\n');
        out.commit();
    }
    return finishRun("encode", input, rejects, progress, out, strict);
}

// ----------------------------------------------------------------- list

const char *schemaTypeName(const google::protobuf::FieldDescriptor *field)
{
    return field->type_name();
}

void printRow(const RowInfo &row, Writer &out)
{
    char line[512];
    std::string size = std::to_string(row.payloadSize) + " bytes";
    if (row.wireSize != row.payloadSize)
        size += " (record reads " + std::to_string(row.wireSize) + ")";
    std::snprintf(line, sizeof line, "0x%04X  %s  %s  %s\n", row.id, row.enumerator.c_str(), row.protoName.c_str(),
                  size.c_str());
    out.append(line);
    if (row.fields.empty())
        out.append("        no fields\n");
    for (const WireField &field : row.fields) {
        if (field.position >= 0) {
            std::snprintf(line, sizeof line, "  %4d  %-3s  %-32s %s\n", field.position, field.wireType.c_str(),
                          field.name.c_str(), schemaTypeName(field.schemaField));
        } else {
            const auto *oneof = field.schemaField->containing_oneof();
            std::snprintf(line, sizeof line, "     -  -    %-32s %s, schema only (oneof %s)\n", field.name.c_str(),
                          schemaTypeName(field.schemaField), oneof != nullptr ? oneof->name().c_str() : "?");
        }
        out.append(line);
    }
}

bool parseIdArgument(std::string text, unsigned &id)
{
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text = text.substr(2);
    if (text.empty() || text.size() > 4 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return false;
    id = unsigned(std::stoul(text, nullptr, 16));
    return true;
}

int runList(int argc, char **argv)
{
    Args args;
    std::string error;
    if (!parseArgs(argc, argv, 2, {{"help", false}}, args, error))
        return misuse("list", error);
    if (args.has("help")) {
        std::fputs(listHelp, stdout);
        return exitOk;
    }
    if (args.positional.size() > 1)
        return misuse("list", "give one id or name at most");
    setVerbose(false);
    const Dictionary &dictionary = Dictionary::instance();
    Writer out;
    if (args.positional.empty()) {
        for (const RowInfo &row : dictionary.rows())
            printRow(row, out);
        return exitOk;
    }
    const std::string &wanted = args.positional.front();
    unsigned id = 0;
    const RowInfo *row = parseIdArgument(wanted, id) ? dictionary.find(quint16(id)) : dictionary.findByName(wanted);
    if (row == nullptr) {
        out.flush();
        std::fprintf(stderr, "vorlink list: no message '%s'\n", wanted.c_str());
        return exitRejected;
    }
    printRow(*row, out);
    return exitOk;
}

// ---------------------------------------------------------------- synth

// splitmix64: small, fast, and the same sequence on every platform.
class Random
{
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next()
    {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    std::uint32_t below(std::uint32_t bound) { return std::uint32_t(next() % bound); }

private:
    std::uint64_t state_;
};

void putLittleEndian(char *at, std::uint32_t value, int width)
{
    for (int k = 0; k < width; ++k)
        at[k] = char((value >> (8 * k)) & 0xFF);
}

// A plausible value for one field, as its wire bits.
std::uint32_t synthValue(const WireField &field, Random &random)
{
    using google::protobuf::FieldDescriptor;
    if (field.schemaField->cpp_type() == FieldDescriptor::CPPTYPE_BOOL)
        return random.below(2);
    const std::string &type = field.wireType;
    if (type == "U08")
        return random.below(256);
    if (type == "U16")
        return random.below(65536);
    if (type == "S16")
        return std::uint32_t(std::int32_t(random.below(65536)) - 32768);
    if (type == "U32") {
        switch (random.below(3)) {
        case 0: return random.below(100);
        case 1: return random.below(100000);
        default: return std::uint32_t(random.next());
        }
    }
    if (type == "S32")
        return random.below(2) ? std::uint32_t(std::int32_t(random.below(2001)) - 1000) : std::uint32_t(random.next());
    if (type == "F32") {
        const float value = random.below(8) == 0 ? 0.0f : float(std::int32_t(random.below(2000001)) - 1000000) / 100.0f;
        std::uint32_t bits;
        std::memcpy(&bits, &value, sizeof bits);
        return bits;
    }
    return std::uint32_t(random.next());
}

int runSynth(int argc, char **argv)
{
    Args args;
    std::string error;
    if (!parseArgs(argc, argv, 2, {{"count", true}, {"seed", true}, {"start", true}, {"help", false}}, args, error))
        return misuse("synth", error);
    if (args.has("help")) {
        std::fputs(synthHelp, stdout);
        return exitOk;
    }
    if (!args.positional.empty())
        return misuse("synth", "unexpected argument '" + args.positional.front() + "'");
    unsigned long long count = 0, seed = 0, start = 0;
    if (!parseCount(args.value("count", "1000"), count))
        return misuse("synth", "--count needs a whole number");
    if (!parseCount(args.value("seed", "1"), seed))
        return misuse("synth", "--seed needs a whole number");
    if (!parseCount(args.value("start", "1700000000"), start) || start > 253402300799ull - 1000000000ull)
        return misuse("synth", "--start needs whole seconds since 1970, before the year 9968");
    setVerbose(false);

    const Dictionary &dictionary = Dictionary::instance();
    const auto &rows = dictionary.rows();
    Random random(seed);
    std::vector<std::size_t> deck(rows.size());
    std::size_t dealt = deck.size();
    Writer out;
    out.append("# vorlink synth --count " + std::to_string(count) + " --seed " + std::to_string(seed) +
               " --start " + std::to_string(start) + "\n");

    BusLogEntry entry;
    entry.msecs = qint64(start) * 1000;
    std::uint32_t sequence = random.below(65536);
    for (unsigned long long n = 0; n < count; ++n) {
        if (dealt == deck.size()) {   // a fresh shuffle of all rows
            for (std::size_t k = 0; k < deck.size(); ++k)
                deck[k] = k;
            for (std::size_t k = deck.size(); k > 1; --k)
                std::swap(deck[k - 1], deck[random.below(std::uint32_t(k))]);
            dealt = 0;
        }
        const RowInfo &row = rows[deck[dealt++]];
        const int size = std::max(row.payloadSize, row.wireSize);
        entry.payload.resize(size);
        char *bytes = entry.payload.data();
        for (int k = row.wireSize; k < size; ++k)   // bytes behind the record's fields
            bytes[k] = char(random.below(256));
        for (const WireField &field : row.fields)
            if (field.position >= 0 && field.position + field.width <= size)
                putLittleEndian(bytes + field.position, synthValue(field, random), field.width);
        entry.msgId = row.id;
        entry.sequence = quint16(sequence++);
        entry.msecs += random.below(20);
        appendBusLogLine(entry, out.buffer());
        out.buffer().push_back('\n');
        out.commit();
    }
    out.flush();
    return out.failed() ? exitRejected : exitOk;
}

} // namespace
} // namespace vorlink

namespace vorlink {
namespace {

int run(int argc, char **argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    if (command.empty()) {
        std::fputs(mainHelp, stderr);
        return exitMisuse;
    }
    if (command == "-h" || command == "--help" || command == "help") {
        if (argc > 2) {   // "vorlink help decode"
            char *forward[] = {argv[0], argv[2], const_cast<char *>("--help")};
            return run(3, forward);
        }
        std::fputs(mainHelp, stdout);
        return exitOk;
    }
    if (command == "--version") {
        std::printf("vorlink %s (libVorlink.so.1, %zu messages)\n", VORLINK_VERSION,
                    Dictionary::instance().rows().size());
        return exitOk;
    }
    if (command == "decode")
        return runDecode(argc, argv);
    if (command == "encode")
        return runEncode(argc, argv);
    if (command == "list")
        return runList(argc, argv);
    if (command == "synth")
        return runSynth(argc, argv);
    std::fprintf(stderr, "vorlink: unknown command '%s'\nTry 'vorlink --help'.\n", command.c_str());
    return exitMisuse;
}

} // namespace
} // namespace vorlink

int main(int argc, char **argv)
{
    qInstallMessageHandler(vorlink::messageHandler);
    return vorlink::run(argc, argv);
}
