// vorlink stats: which messages a log holds, how many, when and how often,
// and which of its lines were rejected and why.

#include "Command.h"
#include "Dictionary.h"
#include "LogScan.h"
#include "LogTables.h"
#include "Selection.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <bitset>
#include <cstdio>
#include <map>
#include <vector>

namespace vorlink {
namespace {

struct StatsOptions
{
    std::vector<std::string> inputs;
    std::string formatName = "text";
    bool json = false;
    RunFlags flags;
    SelectionOptions select;
    Selection selection;
};

std::string isoTime(qint64 msecs, qint32 nanos)
{
    std::string text;
    appendIsoTime(msecs, nanos, text);
    return text;
}

void writeText(const std::vector<const RowInfo *> &rows, const std::vector<MessageTally> &seen, const LogScan &scan,
               long long types, Writer &out)
{
    int width = 7;
    for (const RowInfo *row : rows)
        width = std::max(width, int(row->message.size()));
    char line[512];
    std::snprintf(line, sizeof line, "%-6s  %-*s %9s  %-24s  %-24s  %10s  %11s  %9s\n", "id", width, "message",
                  "count", "first", "last", "rate Hz", "bytes", "unread");
    out.append(line);
    for (const RowInfo *row : rows) {
        const MessageTally &s = seen[row->id];
        double rate = 0;
        char rateText[32] = "-";
        if (s.rateHz(rate))
            std::snprintf(rateText, sizeof rateText, "%.3f", rate);
        std::snprintf(line, sizeof line, "0x%04X  %-*s %9lld  %-24s  %-24s  %10s  %11lld  %9lld\n", row->id,
                      width, row->message.c_str(), s.count, isoTime(s.first, s.firstNanos).c_str(),
                      isoTime(s.last, s.lastNanos).c_str(), rateText,
                      s.bytes, s.unread);
        out.append(line);
    }
    const Rejects &rejects = scan.rejects();
    std::snprintf(line, sizeof line, "\n%lld message%s of %lld type%s; %lld line%s left out by the selection; %lld "
                                     "line%s rejected\n",
                  scan.messages(), scan.messages() == 1 ? "" : "s", types, types == 1 ? "" : "s", scan.leftOut(),
                  scan.leftOut() == 1 ? "" : "s", rejects.count(), rejects.count() == 1 ? "" : "s");
    out.append(line);
    for (const auto &[cause, count] : rejects.byCause()) {
        std::snprintf(line, sizeof line, "  %-24s %9lld\n", cause.c_str(), count);
        out.append(line);
    }
}

// What one input of several held, for the per-file part of --format json.
struct FileTally
{
    std::string name;
    long long messages = 0, leftOut = 0, rejected = 0;
    std::map<std::string, long long> rejectedByCause;
    std::bitset<65536> types;
    qint64 first = 0, last = 0;
};

QJsonObject fileJson(const FileTally &file)
{
    QJsonObject rejected;
    for (const auto &[cause, count] : file.rejectedByCause)
        rejected.insert(QString::fromStdString(cause), count);
    return {{"file", QString::fromStdString(file.name)},
            {"messages", file.messages},
            {"types", int(file.types.count())},
            {"leftOut", file.leftOut},
            {"rejected", file.rejected},
            {"rejectedByCause", rejected},
            {"first", file.messages > 0 ? QJsonValue(QString::fromStdString(isoTime(file.first))) : QJsonValue()},
            {"last", file.messages > 0 ? QJsonValue(QString::fromStdString(isoTime(file.last))) : QJsonValue()}};
}

void writeJson(const std::vector<const RowInfo *> &rows, const std::vector<MessageTally> &seen, const LogScan &scan,
               const std::vector<FileTally> &files, Writer &out)
{
    QJsonArray messages;
    for (const RowInfo *row : rows) {
        const MessageTally &s = seen[row->id];
        QJsonObject item{{"id", QString::fromStdString(hexId(row->id))},
                         {"msgId", row->id},
                         {"message", QString::fromStdString(row->message)},
                         {"count", s.count},
                         {"first", QString::fromStdString(isoTime(s.first, s.firstNanos))},
                         {"last", QString::fromStdString(isoTime(s.last, s.lastNanos))},
                         {"payloadBytes", s.bytes},
                         {"withUnreadBytes", s.unread}};
        double rate = 0;
        item.insert("rateHz", s.rateHz(rate) ? QJsonValue(rate) : QJsonValue());
        messages.append(item);
    }
    QJsonObject rejected;
    for (const auto &[cause, count] : scan.rejects().byCause())
        rejected.insert(QString::fromStdString(cause), count);
    const QJsonObject totals{{"messages", scan.messages()},
                             {"types", int(rows.size())},
                             {"leftOut", scan.leftOut()},
                             {"rejected", scan.rejects().count()}};
    QJsonObject document{{"messages", messages}, {"totals", totals}, {"rejectedByCause", rejected}};
    if (files.size() > 1) {
        QJsonArray perFile;
        for (const FileTally &file : files)
            perFile.append(fileJson(file));
        document.insert("files", perFile);
    }
    const QByteArray text = QJsonDocument(document).toJson(QJsonDocument::Indented);
    out.append(text.constData(), std::size_t(text.size()));
}

int runStats(const CLI::App &command, StatsOptions &options)
{
    std::string error;
    if (!choose<bool>("--format", options.formatName, {{"text", false}, {"json", true}}, options.json, error))
        return misuse(command, error);
    if (!resolveSelection(options.select, options.selection, error))
        return misuse(command, error);
    setVerbose(options.flags.verbose);
    if (!checkInputs(options.inputs, options.flags.follow, error))
        return misuse(command, error);
    LogScan scan(options.selection, options.flags.strict);
    ScanView view(command, scan, options.flags, options.inputs);

    // Each input's share: what the scan's counts grew by while it was read.
    std::vector<FileTally> files;
    FileTally file, before;
    std::map<std::string, long long> causesBefore;
    view.onInputEnd([&](const LineReader &input) {
        file.name = input.name();
        file.messages = scan.messages() - before.messages;
        file.leftOut = scan.leftOut() - before.leftOut;
        file.rejected = scan.rejects().count() - before.rejected;
        for (const auto &[cause, count] : scan.rejects().byCause())
            if (count > causesBefore[cause])
                file.rejectedByCause[cause] = count - causesBefore[cause];
        files.push_back(std::move(file));
        file = FileTally();
        before.messages = scan.messages();
        before.leftOut = scan.leftOut();
        before.rejected = scan.rejects().count();
        for (const auto &[cause, count] : scan.rejects().byCause())
            causesBefore[cause] = count;
    });

    std::vector<MessageTally> seen(65536);
    while (view.next()) {
        const BusLogEntry &entry = scan.entry();
        seen[entry.msgId].add(entry, scan.row().wireSize);
        if (file.types.none())
            file.first = entry.msecs;
        file.last = entry.msecs;
        file.types.set(entry.msgId);
    }
    std::vector<const RowInfo *> rows;
    for (const RowInfo &row : Dictionary::instance().rows())
        if (seen[row.id].count > 0)
            rows.push_back(&row);

    Writer out;
    if (options.json)
        writeJson(rows, seen, scan, files, out);
    else
        writeText(rows, seen, scan, (long long)rows.size(), out);
    return view.finish(out);
}

} // namespace

Command addStatsCommand(CLI::App &parent)
{
    auto options = std::make_shared<StatsOptions>();
    CLI::App *command = parent.add_subcommand("stats", "count the messages of a bus log: how many, when, how "
                                                       "often; and the rejected lines by cause");
    command->add_option("FILE", options->inputs, "the bus logs, read in turn, plain or compressed (gzip, xz, zstd); "
                                                 "standard input when '-' or missing")
        ->type_name("");
    command->add_option("--format", options->formatName, "text (default) or json")->type_name("FORMAT");
    addSelectionOptions(*command, options->select);
    addRunFlags(*command, options->flags);
    addFollowFlag(*command, options->flags.follow);
    command->footer(R"(One row per message type seen, in id order: id, name, count, the first and
the last time (UTC), the mean rate in Hz over that span, the payload bytes in
all, and how many of the messages carried bytes behind their record (unread).
Then the totals, and the rejected lines counted by cause. A message is counted
when the library converts it, as decode would.

Examples:
  vorlink stats examples/bus.log
  vorlink stats --message Dd --from 1700000000 --to 1700000060 bus.log
  vorlink stats --format json bus.log | jq '.messages[] | select(.count > 100)'
  vorlink stats --follow bus.log      counts until Ctrl-C, then the table)");
    return {command, [command, options] { return runStats(*command, *options); }};
}

} // namespace vorlink
