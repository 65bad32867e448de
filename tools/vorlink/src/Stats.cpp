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
#include <bitset>
#include <cstdio>
#include <functional>
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
    int jobs = 1;
    SelectionOptions select;
    Selection selection;
};

std::string isoTime(qint64 msecs, qint32 nanos)
{
    std::string text;
    appendIsoTime(msecs, nanos, text);
    return text;
}

// What a run counted, by row index of the dictionary.
struct Tallies
{
    std::vector<MessageTally> rows = std::vector<MessageTally>(Dictionary::instance().rows().size());
    long long messages = 0;
    long long leftOut = 0;

    MessageTally &of(const RowInfo &row) { return rows[std::size_t(&row - Dictionary::instance().rows().data())]; }
    const MessageTally &of(const RowInfo &row) const
    {
        return rows[std::size_t(&row - Dictionary::instance().rows().data())];
    }
    // Those of the input that follows.
    void append(const Tallies &later)
    {
        for (std::size_t k = 0; k < rows.size(); ++k) {
            MessageTally &s = rows[k];
            const MessageTally &t = later.rows[k];
            if (t.count == 0)
                continue;
            if (s.count == 0) {
                s.first = t.first;
                s.firstNanos = t.firstNanos;
            }
            s.count += t.count;
            s.last = t.last;
            s.lastNanos = t.lastNanos;
            s.bytes += t.bytes;
            s.unread += t.unread;
        }
        messages += later.messages;
        leftOut += later.leftOut;
    }
};

void writeText(const std::vector<const RowInfo *> &rows, const Tallies &seen, const Rejects &rejects, long long types,
               Writer &out)
{
    int width = 7;
    for (const RowInfo *row : rows)
        width = std::max(width, int(row->message.size()));
    char line[512];
    std::snprintf(line, sizeof line, "%-6s  %-*s %9s  %-24s  %-24s  %10s  %11s  %9s\n", "id", width, "message",
                  "count", "first", "last", "rate Hz", "bytes", "unread");
    out.append(line);
    for (const RowInfo *row : rows) {
        const MessageTally &s = seen.of(*row);
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

// What one input of several held, for the per-file part of --format json.
struct FileTally
{
    std::string name;
    long long messages = 0, leftOut = 0, rejected = 0;
    std::map<std::string, long long> rejectedByCause;
    std::bitset<65536> types;
    qint64 first = 0, last = 0;
    qint32 firstNanos = 0, lastNanos = 0;
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
            {"first", file.messages > 0 ? QJsonValue(QString::fromStdString(isoTime(file.first, file.firstNanos))) : QJsonValue()},
            {"last", file.messages > 0 ? QJsonValue(QString::fromStdString(isoTime(file.last, file.lastNanos))) : QJsonValue()}};
}

void writeJson(const std::vector<const RowInfo *> &rows, const Tallies &seen, const Rejects &rejects,
               const std::vector<FileTally> &files, Writer &out)
{
    QJsonArray messages;
    for (const RowInfo *row : rows) {
        const MessageTally &s = seen.of(*row);
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
    for (const auto &[cause, count] : rejects.byCause())
        rejected.insert(QString::fromStdString(cause), count);
    const QJsonObject totals{{"messages", seen.messages},
                             {"types", int(rows.size())},
                             {"leftOut", seen.leftOut},
                             {"rejected", rejects.count()}};
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

// One message into the run's tallies and its file's.
void count(const LogScan &scan, Tallies &seen, FileTally &file)
{
    const BusLogEntry &entry = scan.entry();
    seen.of(scan.row()).add(entry, scan.row().wireSize);
    if (file.types.none()) {
        file.first = entry.msecs;
        file.firstNanos = entry.nanos;
    }
    file.last = entry.msecs;
    file.lastNanos = entry.nanos;
    file.types.set(entry.msgId);
}

struct StatsPiece
{
    PieceOutput output;
    Tallies tallies;
    FileTally file;

    void clear()
    {
        output.clear();
        tallies = Tallies();
        file = FileTally();
    }
};

// The pieces of a regular file counted on `jobs` threads and added in input order.
void countPieces(LogScan &scan, const StatsOptions &options, int jobs, Tallies &seen, FileTally &file,
                 ScanView &view)
{
    PieceReader reader(scan.input(), pieceSize(scan.input().totalBytes(), jobs));
    const std::string &name = scan.input().name();
    const std::function<void(const Piece &, StatsPiece &)> countPiece = [&](const Piece &piece, StatsPiece &result) {
        thread_local std::unique_ptr<PieceScan> pieces;   // each worker's own, for the pieces of this file
        if (!pieces)
            pieces = std::make_unique<PieceScan>(options.selection, options.flags.strict, true);
        LogScan &part = pieces->open(piece, name, result.output);
        while (part.next())
            count(part, result.tallies, result.file);
        result.tallies.messages = pieces->messages();
        result.tallies.leftOut = pieces->leftOut();
        result.output.stopped = pieces->stopped();
    };
    const std::function<bool(StatsPiece &)> take = [&](StatsPiece &result) {
        for (const PieceOutput::Reject &reject : result.output.rejects)
            scan.rejects().report(reject.rejected.line, reject.rejected.cause, reject.rejected.reason);
        seen.append(result.tallies);
        if (result.file.types.any()) {
            if (file.types.none()) {
                file.first = result.file.first;
                file.firstNanos = result.file.firstNanos;
            }
            file.last = result.file.last;
            file.lastNanos = result.file.lastNanos;
            file.types |= result.file.types;
        }
        return !result.output.stopped;
    };
    runPieces(reader, jobs, countPiece, take, [&] { view.show(scan.input().position(), reader.lines()); });
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

    // What the run counted: the scan's own messages and lines left out, and
    // those of --jobs pieces in `seen`.
    Tallies seen;
    const auto messages = [&] { return scan.messages() + seen.messages; };
    const auto leftOut = [&] { return scan.leftOut() + seen.leftOut; };

    // Each input's share: what the counts grew by while it was read.
    std::vector<FileTally> files;
    FileTally file, before;
    std::map<std::string, long long> causesBefore;
    view.onInputEnd([&](const LineReader &input) {
        file.name = input.name();
        file.messages = messages() - before.messages;
        file.leftOut = leftOut() - before.leftOut;
        file.rejected = scan.rejects().count() - before.rejected;
        for (const auto &[cause, n] : scan.rejects().byCause())
            if (n > causesBefore[cause])
                file.rejectedByCause[cause] = n - causesBefore[cause];
        files.push_back(std::move(file));
        file = FileTally();
        before.messages = messages();
        before.leftOut = leftOut();
        before.rejected = scan.rejects().count();
        for (const auto &[cause, n] : scan.rejects().byCause())
            causesBefore[cause] = n;
    });

    // The inputs in turn; a large plain regular file on --jobs threads.
    while (view.nextInput()) {
        const int jobs = options.flags.verbose ? 1 : jobsFor(scan.input(), options.flags.follow, options.jobs);
        if (jobs > 1) {
            countPieces(scan, options, jobs, seen, file, view);
            if (options.flags.strict && scan.rejects().count() > 0)
                break;
            continue;
        }
        while (scan.next())
            count(scan, seen, file);
    }
    seen.messages = messages();
    seen.leftOut = leftOut();
    std::vector<const RowInfo *> rows;
    for (const RowInfo &row : Dictionary::instance().rows())
        if (seen.of(row).count > 0)
            rows.push_back(&row);
    Writer out;
    if (options.json)
        writeJson(rows, seen, scan.rejects(), files, out);
    else
        writeText(rows, seen, scan.rejects(), (long long)rows.size(), out);
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
