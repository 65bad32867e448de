// vorlink stats: which messages a log holds, how many, when and how often,
// and which of its lines were rejected and why.

#include "Command.h"
#include "Dictionary.h"
#include "LogScan.h"
#include "LogTables.h"
#include "Pieces.h"
#include "Selection.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace vorlink {
namespace {

struct StatsOptions
{
    std::string input = "-";
    std::string formatName = "text";
    bool json = false;
    RunFlags flags;
    int jobs = 1;
    SelectionOptions select;
    Selection selection;
};

// What a run counted, by row index of the dictionary.
struct Tallies
{
    std::vector<MessageTally> rows = std::vector<MessageTally>(Dictionary::instance().rows().size());
    long long messages = 0;
    long long leftOut = 0;

    void add(const LogScan &scan)
    {
        const std::size_t index = std::size_t(&scan.row() - Dictionary::instance().rows().data());
        rows[index].add(scan.entry(), scan.row().wireSize);
    }
    // Those of the input that follows.
    void append(const Tallies &later)
    {
        for (std::size_t k = 0; k < rows.size(); ++k) {
            MessageTally &s = rows[k];
            const MessageTally &t = later.rows[k];
            if (t.count == 0)
                continue;
            if (s.count == 0)
                s.first = t.first;
            s.count += t.count;
            s.last = t.last;
            s.bytes += t.bytes;
            s.unread += t.unread;
        }
        messages += later.messages;
        leftOut += later.leftOut;
    }
};

struct StatsPiece
{
    PieceOutput output;
    Tallies tallies;
};

// The pieces of a regular file counted on `jobs` threads and summed in input order.
void countPieces(LogScan &scan, const StatsOptions &options, int jobs, Tallies &tallies, Progress &progress)
{
    PieceReader reader(scan.input(), pieceSize(scan.input().totalBytes(), jobs));
    const std::string &name = scan.input().name();
    const std::function<void(const Piece &, StatsPiece &)> count = [&](const Piece &piece, StatsPiece &result) {
        LogScan part(options.selection, options.flags.strict);
        openPiece(part, piece, name, result.output);
        while (part.next())
            result.tallies.add(part);
        result.tallies.messages = part.messages();
        result.tallies.leftOut = part.leftOut();
        result.output.stopped = part.strict() && part.rejects().count() > 0;
    };
    const std::function<bool(StatsPiece &)> take = [&](StatsPiece &result) {
        for (const PieceOutput::Reject &reject : result.output.rejects)
            scan.rejects().report(reject.rejected.line, reject.rejected.cause, reject.rejected.reason);
        tallies.append(result.tallies);
        return !result.output.stopped;
    };
    runPieces(reader, jobs, count, take, [&] { progress.show(scan.input().bytesConsumed(), reader.lines()); });
}

std::string isoTime(qint64 msecs)
{
    std::string text;
    appendIsoTime(msecs, text);
    return text;
}

void writeText(const std::vector<const RowInfo *> &rows, const Tallies &seen, const Rejects &rejects, Writer &out)
{
    int width = 7;
    for (const RowInfo *row : rows)
        width = std::max(width, int(row->message.size()));
    char line[512];
    std::snprintf(line, sizeof line, "%-6s  %-*s %9s  %-24s  %-24s  %10s  %11s  %9s\n", "id", width, "message",
                  "count", "first", "last", "rate Hz", "bytes", "unread");
    out.append(line);
    for (const RowInfo *row : rows) {
        const MessageTally &s = seen.rows[std::size_t(row - Dictionary::instance().rows().data())];
        double rate = 0;
        char rateText[32] = "-";
        if (s.rateHz(rate))
            std::snprintf(rateText, sizeof rateText, "%.3f", rate);
        std::snprintf(line, sizeof line, "0x%04X  %-*s %9lld  %-24s  %-24s  %10s  %11lld  %9lld\n", row->id,
                      width, row->message.c_str(), s.count, isoTime(s.first).c_str(), isoTime(s.last).c_str(), rateText,
                      s.bytes, s.unread);
        out.append(line);
    }
    const long long types = (long long)rows.size();
    std::snprintf(line, sizeof line, "\n%lld message%s of %lld type%s; %lld line%s left out by the selection; %lld "
                                     "line%s rejected\n",
                  seen.messages, seen.messages == 1 ? "" : "s", types, types == 1 ? "" : "s", seen.leftOut,
                  seen.leftOut == 1 ? "" : "s", rejects.count(), rejects.count() == 1 ? "" : "s");
    out.append(line);
    for (const auto &[cause, count] : rejects.byCause()) {
        std::snprintf(line, sizeof line, "  %-24s %9lld\n", cause.c_str(), count);
        out.append(line);
    }
}

void writeJson(const std::vector<const RowInfo *> &rows, const Tallies &seen, const Rejects &rejects, Writer &out)
{
    QJsonArray messages;
    for (const RowInfo *row : rows) {
        const MessageTally &s = seen.rows[std::size_t(row - Dictionary::instance().rows().data())];
        QJsonObject item{{"id", QString::fromStdString(hexId(row->id))},
                         {"msgId", row->id},
                         {"message", QString::fromStdString(row->message)},
                         {"count", s.count},
                         {"first", QString::fromStdString(isoTime(s.first))},
                         {"last", QString::fromStdString(isoTime(s.last))},
                         {"payloadBytes", s.bytes},
                         {"withUnreadBytes", s.unread}};
        double rate = 0;
        item.insert("rateHz", s.rateHz(rate) ? QJsonValue(rate) : QJsonValue());
        messages.append(item);
    }
    QJsonObject rejected;
    for (const auto &[cause, count] : rejects.byCause())
        rejected.insert(QString::fromStdString(cause), count);
    const QJsonObject totals{{"messages", seen.messages},
                             {"types", int(rows.size())},
                             {"leftOut", seen.leftOut},
                             {"rejected", rejects.count()}};
    const QJsonObject document{{"messages", messages}, {"totals", totals}, {"rejectedByCause", rejected}};
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
    LogScan scan(options.selection, options.flags.strict);
    if (!openInput(scan.input(), options.input, options.flags.follow, error))
        return misuse(command, error);
    ScanView view(scan, options.flags);

    Tallies seen;
    const int jobs = options.flags.verbose ? 1 : jobsFor(scan.input(), options.input, options.flags.follow, options.jobs);
    if (jobs > 1) {
        countPieces(scan, options, jobs, seen, view.progress());
    } else {
        while (scan.next())
            seen.add(scan);
        seen.messages = scan.messages();
        seen.leftOut = scan.leftOut();
    }
    std::vector<const RowInfo *> rows;
    for (std::size_t k = 0; k < seen.rows.size(); ++k)
        if (seen.rows[k].count > 0)
            rows.push_back(&Dictionary::instance().rows()[k]);

    Writer out;
    if (options.json)
        writeJson(rows, seen, scan.rejects(), out);
    else
        writeText(rows, seen, scan.rejects(), out);
    return view.finish(command, out);
}

} // namespace

Command addStatsCommand(CLI::App &parent)
{
    auto options = std::make_shared<StatsOptions>();
    CLI::App *command = parent.add_subcommand("stats", "count the messages of a bus log: how many, when, how "
                                                       "often; and the rejected lines by cause");
    command->add_option("FILE", options->input, "the bus log; standard input when '-' or missing")
        ->type_name("");
    command->add_option("--format", options->formatName, "text (default) or json")->type_name("FORMAT");
    addSelectionOptions(*command, options->select);
    addRunFlags(*command, options->flags);
    addFollowFlag(*command, options->flags.follow);
    addJobsOption(*command, options->jobs);
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
