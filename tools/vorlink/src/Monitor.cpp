// vorlink monitor: a full-screen live table of a bus log on a terminal, one
// row per message type seen with its count, rate, age and whether it is
// overdue, and the fields of its latest message as its dump line shows them.
// This file holds the command, the keys and the loop over the input; the
// model and the drawing have files of their own.

#include "Command.h"
#include "Dictionary.h"
#include "LogScan.h"
#include "MonitorModel.h"
#include "MonitorView.h"
#include "Selection.h"

#include <curses.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace vorlink {
namespace {

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

std::string lower(std::string text)
{
    for (char &c : text)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

} // namespace

void TypeFilter::set(const std::string &text)
{
    text_ = text;
    error_.clear();
    ids_.reset();
    words_.clear();
    std::string key;
    std::istringstream keys(text);
    std::string error;
    while (std::getline(keys, key, ',')) {
        std::istringstream words(key);
        for (std::string word; words >> word;) {
            std::vector<const RowInfo *> rows;
            if (resolveMessageKey(word, rows, error)) {
                for (const RowInfo *row : rows)
                    ids_.set(row->id);
                continue;
            }
            // Not a key: part of a name, as long as some name holds it.
            const std::string part = lower(word);
            const auto &all = Dictionary::instance().rows();
            if (std::none_of(all.begin(), all.end(),
                             [&](const RowInfo &row) { return lower(row.message).find(part) != std::string::npos; }))
                error_ = error;
            words_.push_back(part);
        }
    }
}

bool TypeFilter::matches(const RowInfo &row) const
{
    if (ids_[row.id])
        return true;
    const std::string name = lower(row.message);
    return std::any_of(words_.begin(), words_.end(),
                       [&](const std::string &w) { return name.find(w) != std::string::npos; });
}

bool MonitorView::tick(long long wallMs)
{
    if (wallMs - lastKeys_ >= 10) {
        lastKeys_ = wallMs;
        keys();
    }
    if (wallMs - lastDraw_ >= 100 && !quit_)
        draw(wallMs);
    return !quit_;
}

void MonitorView::editKey(int key)
{
    if (key == '\n' || key == '\r' || key == KEY_ENTER) {
        filter_.set(typed_);
        editing_ = false;
        cursor_ = scroll_ = 0;
        cursorRow_ = nullptr;
    } else if (key == 27) {
        editing_ = false;
    } else if (key == KEY_BACKSPACE || key == 127 || key == 8) {
        if (!typed_.empty())
            typed_.pop_back();
    } else if (key >= 32 && key < 127) {
        typed_.push_back(char(key));
    }
}

void MonitorView::moveCursor(int by)
{
    if (detail_ != nullptr) {
        detailScroll_ = std::max(0, detailScroll_ + by);
        return;
    }
    const std::vector<MonitoredType *> rows = shown();
    if (rows.empty())
        return;
    cursor_ = std::max(0, std::min(cursor_ + by, int(rows.size()) - 1));
    cursorRow_ = rows[std::size_t(cursor_)]->row;
}

void MonitorView::keys()
{
    for (int key = getch(); key != ERR; key = getch()) {
        lastDraw_ = 0;   // show the change now, paused or not
        if (editing_) {
            editKey(key);
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
            typed_ = filter_.text();
            break;
        case 's':
            sort_ = SortBy((int(sort_) + 1) % 4);
            break;
        case '\n':
        case '\r':
        case KEY_ENTER:
            detail_ = detail_ != nullptr ? nullptr : cursorRow_;
            detailScroll_ = 0;
            break;
        case 27:
        case KEY_BACKSPACE:
        case 127:
            detail_ = nullptr;
            break;
        case KEY_UP:
            moveCursor(-1);
            break;
        case KEY_DOWN:
            moveCursor(1);
            break;
        case KEY_PPAGE:
            moveCursor(detail_ != nullptr ? -bodyHeight_ : -typesPerPage_);
            break;
        case KEY_NPAGE:
            moveCursor(detail_ != nullptr ? bodyHeight_ : typesPerPage_);
            break;
        case KEY_HOME:
            moveCursor(-(1 << 20));
            break;
        default:
            break;
        }
    }
}

namespace {

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
        if (has_colors()) {   // a changing value in red, as cansniffer shows it
            start_color();
            use_default_colors();
            init_pair(1, COLOR_RED, -1);
        }
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
    scan.setConvert(false);   // the monitor shows the wire fields; the checks stay
    if (!openInput(scan.input(), options.inputs.front(), options.follow, error)) {
        if (keyboard != stdin)
            std::fclose(keyboard);
        return misuse(command, error);
    }
    std::setlocale(LC_CTYPE, "");   // the trend's block characters on a UTF-8 terminal
    catchStopSignals();   // before the terminal is set up, so that curses leaves them to us
    MonitorModel model;
    MonitorView view(scan, model, options.sort);
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
        input.onIdle([&view] { return view.tick(steadyMs()); });
        input.onNotice([&view](const std::string &note) { view.note(note); });
        scan.onProgress([&view](long long, long long) { view.tick(steadyMs()); });
        // The inputs in turn, into one table.
        for (std::size_t k = 0;; ++k) {
            while (!view.quitting() && scan.next())
                model.add(scan.row(), scan.entry(), scan.lineNumber(), steadyMs());
            if (input.readError() != 0)
                failure = input.name() + ": " + std::strerror(input.readError());
            if (view.quitting() || input.stopped() || k + 1 == options.inputs.size())
                break;
            if (!openInput(input, options.inputs[k + 1], false, error))
                failure = error;
        }
        if (!input.stopped())
            model.end();
        // The input is over; the table stays until the user quits.
        while (!view.quitting() && stopSignal() == 0) {
            view.tick(steadyMs());
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
    // As decode ends: 1 after rejected lines, with their count.
    const Rejects &rejects = scan.rejects();
    if (rejects.count() > 0) {
        std::fprintf(stderr, "vorlink monitor: %lld %s rejected\n", rejects.count(), rejects.unit());
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
5 seconds of log time, the time since its latest message, and 'overdue' with
how long it has been silent once that is more than 3 of its usual periods
(the median of its recent gaps) and at least 0.5 s; under it that message's
fields as its dump line shows them, a field that changed within the last
second set off. The header shows the input, the span of log time, lines a
second, the overdue types, a step back of log time, and the rejected lines
by cause with the last of them; then a line per node (TD, DD, FP, UI) with
when it was last heard and how many of its types are overdue. On a finished
log, time stands still; on a quiet live one, it runs on with the clock.

Keys: q quit, p pause the display (reading goes on), / filter by what
--message takes (names, ids, node prefixes; Enter applies, Esc cancels), s
next sort order, arrows, Page Up/Down and Home move the cursor, Enter shows
each field's minimum, maximum, latest and trend over the last 3 minutes.

Examples:
  vorlink monitor --follow bus.log
  tail -f bus.log | vorlink monitor --message Dd
  vorlink monitor --sort recency examples/bus.log

It needs a terminal; to read a log into a file or a pipe use 'vorlink decode'
or 'vorlink stats'. After q the exit status is 1 when lines were rejected.)");
    return {command, [command, options] { return runMonitor(*command, *options); }};
}

} // namespace vorlink
