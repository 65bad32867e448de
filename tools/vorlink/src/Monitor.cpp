// vorlink monitor: a full-screen live table of a bus log on a terminal, one
// row per message type seen with its count, rate and age, and the fields of
// its latest message as its dump line shows them.

#include "Command.h"
#include "Dictionary.h"
#include "LogScan.h"
#include "Selection.h"

#include <curses.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace vorlink {
namespace {

enum class SortBy { Id, Name, Count, Recency };
const char *const sortNames[] = {"id", "name", "count", "recency"};

struct MonitorOptions
{
    std::vector<std::string> inputs;
    bool follow = false;
    std::string sortName = "id";
    SortBy sort = SortBy::Id;
    SelectionOptions select;
    Selection selection;
};

long long steadyMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The rate of a message type over the last seconds of log time, counted in
// half-second buckets.
class RecentRate
{
public:
    static constexpr qint64 bucketMs = 500;
    static constexpr int buckets = 10;   // 5 s

    void add(qint64 msecs)
    {
        const qint64 b = bucketOf(msecs);
        const std::size_t slot = std::size_t(b % (buckets + 1));
        if (ids_[slot] != b) {
            ids_[slot] = b;
            counts_[slot] = 0;
        }
        ++counts_[slot];
    }
    // Messages a second in the window that ends at `now`, which began no
    // earlier than `start` (the first message of the log); false without a span.
    bool rate(qint64 now, qint64 start, double &perSecond) const
    {
        const qint64 last = bucketOf(now), first = last - (buckets - 1);
        long long n = 0;
        for (std::size_t k = 0; k < ids_.size(); ++k)
            if (ids_[k] >= first && ids_[k] <= last)
                n += counts_[k];
        const qint64 span = now - std::max(first * bucketMs, start);
        if (span <= 0)
            return false;
        perSecond = double(n) * 1000.0 / double(span);
        return true;
    }

private:
    static qint64 bucketOf(qint64 msecs) { return msecs / bucketMs; }
    std::array<qint64, buckets + 1> ids_ = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
    std::array<long long, buckets + 1> counts_ = {};
};

// What is known of one message type.
struct Latest
{
    const RowInfo *row = nullptr;
    long long count = 0;
    qint64 lastMsecs = 0;
    QByteArray payload;   // of the latest message
    RecentRate rate;
    std::string dump;     // its dump line, made when drawn
    bool dumped = false;
};

// Greedy wrap at blanks to `width` columns; a word longer than that is cut.
void wrap(const std::string &text, std::size_t width, std::vector<std::string> &lines)
{
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t end = std::min(text.size(), at + width);
        if (end < text.size()) {
            const std::size_t blank = text.rfind(' ', end);
            if (blank != std::string::npos && blank > at)
                end = blank;
        }
        lines.push_back(text.substr(at, end - at));
        at = end;
        while (at < text.size() && text[at] == ' ')
            ++at;
    }
}

std::string lower(std::string text)
{
    for (char &c : text)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

class Monitor
{
public:
    Monitor(const LogScan &scan, SortBy sort) : scan_(scan), sort_(sort), latest_(Dictionary::instance().rows().size())
    {
        const auto &rows = Dictionary::instance().rows();
        for (std::size_t k = 0; k < rows.size(); ++k)
            latest_[k].row = &rows[k];
        start_ = lastKeys_ = steadyMs();
    }

    void add(const RowInfo &row, const BusLogEntry &entry)
    {
        Latest &l = latest_[std::size_t(&row - Dictionary::instance().rows().data())];
        if (l.count++ == 0)
            seen_.push_back(&l);
        l.lastMsecs = entry.msecs;
        l.payload = entry.payload;
        l.dumped = false;
        l.rate.add(entry.msecs);
        if (messages_++ == 0)
            firstMsecs_ = entry.msecs;
        firstMsecs_ = std::min(firstMsecs_, entry.msecs);
        lastMsecs_ = std::max(lastMsecs_, entry.msecs);
        lastArrival_ = steadyMs();
    }

    // Keys, and the screen when it is due; false once the user quits.
    bool tick()
    {
        const long long now = steadyMs();
        if (now - lastKeys_ >= 10) {
            lastKeys_ = now;
            keys();
        }
        if (now - lastDraw_ >= 100 && !quit_)
            draw(now);
        return !quit_;
    }
    bool quitting() const { return quit_; }
    void note(const std::string &text) { note_ = text; }
    void ended() { ended_ = true; }

private:
    void keys();
    void draw(long long now);
    void drawHeader(long long now, int width);
    std::vector<Latest *> shown();

    const LogScan &scan_;
    SortBy sort_;
    std::vector<Latest> latest_;
    std::vector<Latest *> seen_;
    long long messages_ = 0;
    qint64 firstMsecs_ = 0, lastMsecs_ = 0;
    long long start_ = 0, lastArrival_ = 0, lastKeys_ = 0, lastDraw_ = 0;
    long long rateLines_ = 0, rateSince_ = 0;
    double linesPerSecond_ = 0;
    int scroll_ = 0, bodyHeight_ = 1;
    bool quit_ = false, paused_ = false, ended_ = false, editing_ = false;
    std::string filter_, typed_, note_;
};

void Monitor::keys()
{
    for (int key = getch(); key != ERR; key = getch()) {
        if (editing_) {
            if (key == '\n' || key == '\r' || key == KEY_ENTER) {
                filter_ = typed_;
                editing_ = false;
                scroll_ = 0;
            } else if (key == 27) {
                editing_ = false;
            } else if (key == KEY_BACKSPACE || key == 127 || key == 8) {
                if (!typed_.empty())
                    typed_.pop_back();
            } else if (key >= 32 && key < 127) {
                typed_.push_back(char(key));
            }
            lastDraw_ = 0;
            continue;
        }
        switch (key) {
        case 'q':
        case 'Q':
            quit_ = true;
            return;
        case 'p':
        case 'P':
            paused_ = !paused_;
            break;
        case '/':
            editing_ = true;
            typed_ = filter_;
            break;
        case 's':
            sort_ = SortBy((int(sort_) + 1) % 4);
            break;
        case KEY_UP:
            --scroll_;
            break;
        case KEY_DOWN:
            ++scroll_;
            break;
        case KEY_PPAGE:
            scroll_ -= bodyHeight_;
            break;
        case KEY_NPAGE:
            scroll_ += bodyHeight_;
            break;
        case KEY_HOME:
            scroll_ = 0;
            break;
        case KEY_RESIZE:
            break;
        default:
            continue;
        }
        lastDraw_ = 0;   // show the change now, paused or not
    }
}

std::vector<Latest *> Monitor::shown()
{
    std::vector<Latest *> rows;
    const std::string wanted = lower(filter_);
    for (Latest *l : seen_)
        if (wanted.empty() || lower(l->row->message).find(wanted) != std::string::npos)
            rows.push_back(l);
    auto by = [this](const Latest *a, const Latest *b) {
        switch (sort_) {
        case SortBy::Name:
            return a->row->message < b->row->message;
        case SortBy::Count:
            return a->count != b->count ? a->count > b->count : a->row->id < b->row->id;
        case SortBy::Recency:
            return a->lastMsecs != b->lastMsecs ? a->lastMsecs > b->lastMsecs : a->row->id < b->row->id;
        case SortBy::Id:
            break;
        }
        return a->row->id < b->row->id;
    };
    std::sort(rows.begin(), rows.end(), by);
    return rows;
}

void Monitor::drawHeader(long long now, int width)
{
    char text[512];
    std::string line = "vorlink monitor  " + scan_.input().name() + (scan_.input().following() ? " (following)" : "");
    if (now - rateSince_ >= 1000) {
        const long long lines = scan_.lineNumber();
        if (rateSince_ > 0)
            linesPerSecond_ = double(lines - rateLines_) * 1000.0 / double(now - rateSince_);
        rateLines_ = lines;
        rateSince_ = now;
    }
    std::snprintf(text, sizeof text, "  %lld messages of %zu types  %.0f lines/s", messages_, seen_.size(),
                  linesPerSecond_);
    line += text;
    if (messages_ > 0) {
        line += "  span ";
        appendIsoTime(firstMsecs_, line);
        line += " .. ";
        appendIsoTime(lastMsecs_, line);
    }
    attron(A_REVERSE);
    mvaddnstr(0, 0, line.c_str(), width);
    for (int x = int(std::min<std::size_t>(line.size(), std::size_t(width))); x < width; ++x)
        addch(' ');
    attroff(A_REVERSE);

    const Rejects &rejects = scan_.rejects();
    line = "rejected " + std::to_string(rejects.count());
    const char *separator = ": ";
    for (const auto &[cause, count] : rejects.byCause()) {
        line += separator + cause + " " + std::to_string(count);
        separator = ", ";
    }
    if (rejects.count() > 0)
        line += "   last: " + scan_.input().name() + ":" + std::to_string(rejects.last().line) + ": " +
                rejects.last().reason;
    mvaddnstr(1, 0, line.c_str(), width);

    line = std::string("sort: ") + sortNames[int(sort_)] + (filter_.empty() ? "" : "   filter: " + filter_) +
           (paused_ ? "   PAUSED" : "") + (ended_ ? "   end of input" : "") +
           (note_.empty() ? "" : "   " + note_) + "   [q quit, p pause, / filter, s sort, arrows/PgUp/PgDn scroll]";
    mvaddnstr(2, 0, line.c_str(), width);
}

void Monitor::draw(long long now)
{
    lastDraw_ = now;
    int height, width;
    getmaxyx(stdscr, height, width);
    if (paused_ && !editing_) {   // the screen as it was, and the mark
        move(2, 0);
        clrtoeol();
        attron(A_REVERSE);
        mvaddnstr(2, 0, "PAUSED: the log is still read; p shows it again", width);
        attroff(A_REVERSE);
        refresh();
        return;
    }
    erase();
    drawHeader(now, width);
    // Log time now: the latest message's time, moved on by the wall clock
    // since it came, so that a bus gone quiet shows its age growing.
    const qint64 logNow = lastMsecs_ + (messages_ > 0 ? now - lastArrival_ : 0);
    int nameWidth = 7;
    for (const Latest *l : seen_)
        nameWidth = std::max(nameWidth, int(l->row->message.size()));
    nameWidth = std::max(12, std::min(nameWidth, width - 46));   // on a narrow screen, names are cut
    char text[512];
    std::snprintf(text, sizeof text, "%-6s  %-*s %10s %12s %12s", "id", nameWidth, "message", "count", "rate Hz",
                  "last, s ago");
    attron(A_BOLD);
    mvaddnstr(3, 0, text, width);
    attroff(A_BOLD);

    std::vector<std::string> lines;
    std::vector<std::string> wrapped;
    const std::size_t dumpWidth = std::size_t(std::max(width - 8, 8));
    for (Latest *l : shown()) {
        double rate = 0;
        char rateText[32] = "-";
        if (l->rate.rate(logNow, firstMsecs_, rate))
            std::snprintf(rateText, sizeof rateText, "%.2f", rate);
        std::snprintf(text, sizeof text, "0x%04X  %-*.*s %10lld %12s %12.1f", l->row->id, nameWidth, nameWidth,
                      l->row->message.c_str(), l->count, rateText, double(logNow - l->lastMsecs) / 1000.0);
        lines.emplace_back(text);
        if (!l->dumped) {
            l->dump.clear();
            setDumpTarget(&l->dump);
            l->row->dumpPayload(l->payload);
            setDumpTarget(nullptr);
            l->dumped = true;
        }
        wrapped.clear();
        wrap(l->dump, dumpWidth, wrapped);
        for (const std::string &w : wrapped)
            lines.push_back("        " + w);
    }
    const int top = 4;
    bodyHeight_ = std::max(height - top - (editing_ ? 1 : 0), 1);
    scroll_ = std::max(0, std::min(scroll_, int(lines.size()) - bodyHeight_));
    for (int y = 0; y < bodyHeight_ && std::size_t(scroll_ + y) < lines.size(); ++y)
        mvaddnstr(top + y, 0, lines[std::size_t(scroll_ + y)].c_str(), width);
    if (editing_) {
        const std::string prompt = "filter by name: " + typed_;
        mvaddnstr(height - 1, 0, prompt.c_str(), width);
    }
    refresh();
}

// The terminal, from newterm to endwin; the keys come from `keyboard`.
class Screen
{
public:
    explicit Screen(FILE *keyboard) : keyboard_(keyboard)
    {
        screen_ = newterm(nullptr, stdout, keyboard);
        if (screen_ == nullptr)
            return;
        set_term(screen_);
        cbreak();
        noecho();
        nodelay(stdscr, TRUE);
        keypad(stdscr, TRUE);
        set_escdelay(25);
        curs_set(0);
    }
    ~Screen()
    {
        if (screen_ != nullptr) {
            endwin();
            delscreen(screen_);
        }
        if (keyboard_ != stdin)
            std::fclose(keyboard_);
    }
    bool ok() const { return screen_ != nullptr; }
    int keyboardFd() const { return fileno(keyboard_); }

private:
    FILE *keyboard_;
    SCREEN *screen_ = nullptr;
};

int runMonitor(const CLI::App &command, MonitorOptions &options)
{
    std::string error;
    const std::vector<std::pair<std::string, SortBy>> sorts = {
        {"id", SortBy::Id}, {"name", SortBy::Name}, {"count", SortBy::Count}, {"recency", SortBy::Recency}};
    if (!choose("--sort", options.sortName, sorts, options.sort, error))
        return misuse(command, error);
    if (!resolveSelection(options.select, options.selection, error))
        return misuse(command, error);
    if (::isatty(STDOUT_FILENO) != 1)
        return misuse(command, "the live table needs a terminal, and standard output is not one; to read a log "
                               "into a file or a pipe, use 'vorlink decode' (each message) or 'vorlink stats' "
                               "(counts by type)");
    if (!checkInputs(options.inputs, options.follow, error))
        return misuse(command, error);
    const bool fromStdin = std::count(options.inputs.begin(), options.inputs.end(), "-") > 0;
    if (fromStdin && ::isatty(STDIN_FILENO) == 1)
        return misuse(command, "the log would come from standard input, which is the terminal: give a FILE, or "
                               "pipe the log in (tail -f bus.log | vorlink monitor)");
    // The keys come from the terminal, also when the log comes through a pipe.
    FILE *keyboard = !fromStdin && ::isatty(STDIN_FILENO) == 1 ? stdin : std::fopen("/dev/tty", "r");
    if (keyboard == nullptr)
        return misuse(command, "no terminal to read keys from (/dev/tty)");
    setVerbose(false);
    LogScan scan(options.selection, false);
    if (!openInput(scan.input(), options.inputs.front(), options.follow, error)) {
        if (keyboard != stdin)
            std::fclose(keyboard);
        return misuse(command, error);
    }
    catchStopSignals();   // before the terminal is set up, so that curses leaves them to us
    Monitor monitor(scan, options.sort);
    std::string failure;   // the last input that could not be read
    {
        Screen screen(keyboard);
        if (!screen.ok()) {
            std::fprintf(stderr, "vorlink monitor: cannot use the terminal (TERM=%s)\n",
                         std::getenv("TERM") ? std::getenv("TERM") : "");
            return exitRejected;
        }
        LineReader &input = scan.input();
        input.stopOn(&stopSignal());
        input.onIdle([&monitor] { return monitor.tick(); });
        input.onNotice([&monitor](const std::string &note) { monitor.note(note); });
        scan.onProgress([&monitor](long long, long long) { monitor.tick(); });
        // The inputs in turn, into one table.
        for (std::size_t k = 0;; ++k) {
            while (!monitor.quitting() && scan.next())
                monitor.add(scan.row(), scan.entry());
            if (input.readError() != 0)
                failure = input.name() + ": " + std::strerror(input.readError());
            if (monitor.quitting() || input.stopped() || k + 1 == options.inputs.size())
                break;
            if (!openInput(input, options.inputs[k + 1], false, error))
                failure = error;
        }
        if (!input.stopped())
            monitor.ended();
        // The input is over; the table stays until the user quits.
        while (!monitor.quitting() && stopSignal() == 0) {
            monitor.tick();
            pollfd key{screen.keyboardFd(), POLLIN, 0};
            ::poll(&key, 1, 100);
        }
    }
    if (const int signal = stopSignal())
        return 128 + signal;
    if (!failure.empty()) {
        std::fprintf(stderr, "vorlink monitor: %s\n", failure.c_str());
        return exitRejected;
    }
    return exitOk;
}

} // namespace

Command addMonitorCommand(CLI::App &parent)
{
    auto options = std::make_shared<MonitorOptions>();
    CLI::App *command = parent.add_subcommand("monitor", "a live table of a bus log on the terminal: the latest "
                                                         "values of every message type");
    command->add_option("FILE", options->inputs, "the bus logs, read in turn into one table, plain or compressed; "
                                                 "standard input when '-' or missing")
        ->type_name("");
    command->add_option("--sort", options->sortName, "id (default), name, count (most first) or recency (latest first)")
        ->type_name("KEY");
    addSelectionOptions(*command, options->select);
    addFollowFlag(*command, options->follow);
    command->footer(R"(One row per message type seen: id, name, count, the rate over the last
5 seconds of log time, and the time since its latest message; under it that
message's fields as its dump line shows them. The header shows the input, the
span of log time, lines a second, and the rejected lines by cause with the
last of them.

Keys: q quit, p pause the display (reading goes on), / filter by name (Enter
applies, Esc cancels), s next sort order, arrows, Page Up/Down and Home scroll.

Examples:
  vorlink monitor --follow bus.log
  tail -f bus.log | vorlink monitor --message Dd
  vorlink monitor --sort recency examples/bus.log

It needs a terminal; to read a log into a file or a pipe use 'vorlink decode'
or 'vorlink stats'.)");
    return {command, [command, options] { return runMonitor(*command, *options); }};
}

} // namespace vorlink
