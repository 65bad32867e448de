// vorlink plot: fields of a bus log over time, as one self-contained HTML page
// with a zoomable chart per message type.

#include "Command.h"
#include "Dictionary.h"
#include "LogScan.h"
#include "PlotPage.h"
#include "Selection.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>

namespace vorlink {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

struct PlotOptions
{
    std::vector<std::string> args;   // [FILE|-] SERIES...
    std::string output;
    RunFlags flags;
    SelectionOptions select;
    Selection selection;
};

// A message type to chart and the fields of it that were asked for.
struct Wanted
{
    const RowInfo *row;
    std::vector<const FieldDescriptor *> fields;
};

bool plottable(const FieldDescriptor *field)
{
    switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_UINT32:
    case FieldDescriptor::CPPTYPE_INT32:
    case FieldDescriptor::CPPTYPE_FLOAT:
    case FieldDescriptor::CPPTYPE_BOOL: return true;
    default: return false;
    }
}

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

// Adds one SERIES, `Message` or `Message.field`, to what is wanted.
bool addSeries(const std::string &text, std::vector<Wanted> &wanted, std::string &error)
{
    const Dictionary &dictionary = Dictionary::instance();
    const RowInfo *row = dictionary.findByName(text);
    std::string fieldName;
    const std::size_t dot = text.rfind('.');
    if (row == nullptr && dot != std::string::npos) {
        row = dictionary.findByName(text.substr(0, dot));
        fieldName = text.substr(dot + 1);
    }
    if (row == nullptr) {
        std::vector<std::string> names;
        for (const RowInfo &r : dictionary.rows())
            names.push_back(r.message);
        const std::string message = dot == std::string::npos ? text : text.substr(0, dot);
        error = "no message '" + message + "'; nearest: " + nearestNames(message, names);
        return false;
    }
    std::vector<const FieldDescriptor *> fields;
    for (const WireField &field : row->fields)
        if (field.schemaField != nullptr && plottable(field.schemaField) &&
            (fieldName.empty() || lower(field.name) == lower(fieldName)))
            fields.push_back(field.schemaField);
    if (fields.empty()) {
        std::vector<std::string> names;
        for (const WireField &field : row->fields)
            names.push_back(row->message + "." + field.name);
        error = fieldName.empty() ? row->message + " has no field to plot"
                                  : row->message + " has no field '" + fieldName + "'; nearest: " +
                                        nearestNames(row->message + "." + fieldName, names);
        return false;
    }
    auto at = std::find_if(wanted.begin(), wanted.end(), [row](const Wanted &w) { return w.row == row; });
    if (at == wanted.end())
        at = wanted.insert(wanted.end(), Wanted{row, {}});
    for (const FieldDescriptor *field : fields)
        if (std::find(at->fields.begin(), at->fields.end(), field) == at->fields.end())
            at->fields.push_back(field);
    return true;
}

// The leading arguments are logs while each is '-', names a file, or has a
// '/'; the rest are SERIES, and without a log it is standard input.
bool isLog(const std::string &arg)
{
    struct stat info;
    return arg == "-" || arg.find('/') != std::string::npos || ::stat(arg.c_str(), &info) == 0;
}

double valueOf(const Message &message, const FieldDescriptor *field)
{
    const auto *reflection = message.GetReflection();
    if (field->containing_oneof() != nullptr && !reflection->HasField(message, field))
        return std::nan("");   // a union member that this message does not carry
    switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_UINT32: return reflection->GetUInt32(message, field);
    case FieldDescriptor::CPPTYPE_INT32: return reflection->GetInt32(message, field);
    case FieldDescriptor::CPPTYPE_FLOAT: {
        const float value = reflection->GetFloat(message, field);
        return std::isfinite(value) ? value : std::nan("");   // a chart has no place for it
    }
    case FieldDescriptor::CPPTYPE_BOOL: return reflection->GetBool(message, field) ? 1 : 0;
    default: return std::nan("");
    }
}

int runPlot(const CLI::App &command, PlotOptions &options)
{
    std::string error;
    if (!resolveSelection(options.select, options.selection, error))
        return misuse(command, error);
    std::vector<std::string> inputs;
    auto series = options.args.begin();
    for (; series != options.args.end() && isLog(*series); ++series)
        inputs.push_back(*series);
    if (series == options.args.end())
        return misuse(command, "no SERIES: name a message (DdTemperatureData) or one of its fields "
                               "(DdTemperatureData.d1Temp)");
    std::vector<Wanted> wanted;
    for (; series != options.args.end(); ++series)
        if (!addSeries(*series, wanted, error))
            return misuse(command, series == options.args.begin() ? error + " (and there is no file '" + *series + "')"
                                                                  : error);

    // Only the messages to chart are converted.
    std::bitset<65536> ids;
    std::vector<int> chartOf(65536, -1);
    std::vector<PlotChart> charts;
    std::vector<std::unique_ptr<Message>> messages;
    for (const Wanted &w : wanted) {
        ids.set(w.row->id);
        chartOf[w.row->id] = int(charts.size());
        std::vector<PlotChart::Series> chartSeries;
        for (const FieldDescriptor *field : w.fields)
            chartSeries.push_back({field->name(), field->cpp_type() == FieldDescriptor::CPPTYPE_BOOL,
                                   field->cpp_type() == FieldDescriptor::CPPTYPE_FLOAT});
        charts.emplace_back(w.row->message, w.row->id, std::move(chartSeries));
        messages.emplace_back(w.row->prototype->New());
    }
    options.selection.keepOnly(ids);

    setVerbose(options.flags.verbose);
    if (!checkInputs(inputs, false, error))
        return misuse(command, error);
    std::string title;
    for (const std::string &input : inputs)
        title += (title.empty() ? "" : ", ") + (input == "-" ? std::string("standard input") : input);
    LogScan scan(options.selection, options.flags.strict);
    ScanView view(command, scan, options.flags, inputs);
    std::vector<double> values;
    while (view.next()) {
        const int c = chartOf[scan.entry().msgId];
        if (c < 0)
            continue;
        Message &message = *messages[std::size_t(c)];
        const QByteArray &proto = scan.proto();
        if (!message.ParseFromArray(proto.constData(), proto.size())) {
            if (!scan.reject("not converted", "the library's " + scan.row().protoName + " does not parse"))
                break;
            continue;
        }
        const Wanted &w = wanted[std::size_t(c)];
        values.resize(w.fields.size());
        for (std::size_t k = 0; k < w.fields.size(); ++k)
            values[k] = valueOf(message, w.fields[k]);
        charts[std::size_t(c)].add(scan.entry().msecs, values.data());
    }

    const int fd = options.output == "-" ? 1 : ::open(options.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        return misuse(command, "-o: " + options.output + ": " + std::strerror(errno));
    int status;
    {
        Writer out(fd);
        out.append(plotPage(title, charts));
        status = view.finish(out);
    }
    if (fd != 1 && ::close(fd) != 0 && status == exitOk) {
        std::fprintf(stderr, "vorlink plot: %s: %s\n", options.output.c_str(), std::strerror(errno));
        status = exitRejected;
    }
    return status;
}

} // namespace

Command addPlotCommand(CLI::App &parent)
{
    auto options = std::make_shared<PlotOptions>();
    CLI::App *command = parent.add_subcommand("plot", "draw fields of a bus log over time into a self-contained "
                                                      "HTML page (zoom, pan, values under the cursor)");
    command->add_option("FILE|SERIES", options->args,
                        "[FILE|-]... SERIES...: the bus logs, read in turn, plain or compressed (standard input "
                        "when '-' or left out), then what to draw: Message.field, or a Message for all of its fields")
        ->type_name("")
        ->required();
    command->add_option("-o,--output", options->output, "the page to write; '-' for standard output")
        ->type_name("PAGE.html")
        ->required();
    addSelectionOptions(*command, options->select);
    addRunFlags(*command, options->flags);
    command->footer(R"(One chart per message type, in the order the series were named, on one time
axis (UTC): drag to zoom, shift-drag to pan, double-click to zoom out; the
legend shows each field's value under the cursor. A bool field is drawn as a
0/1 step; a union member that a message does not carry, or a float that is
not finite, has no point there. The page embeds dygraphs and opens offline
in any browser.

A chart of more than 5000 messages is reduced as the log is read: it shows
the minimum and the maximum of each field in each of 1024 to 2048 time
buckets, so no spike is lost, and the page says so.

Examples:
  vorlink plot examples/bus.log DdTemperatureData -o t.html
  vorlink plot bus.log DdTemperatureData.d1Temp TdEvent --from 1700000000 -o p.html
  vorlink synth --count 100000 | vorlink plot - DdTemperatureData -o t.html)");
    return {command, [command, options] { return runPlot(*command, *options); }};
}

} // namespace vorlink
