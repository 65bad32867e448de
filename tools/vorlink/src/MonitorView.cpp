// The drawing of `vorlink monitor`: a header that wraps rather than loses
// anything, a line per node, the table of message types with the fields that
// just changed set off, and the history of one type's fields.

#include "MonitorView.h"
#include "Command.h"
#include "Dictionary.h"
#include "LogScan.h"

#include <curses.h>
#include <langinfo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace vorlink {
namespace {

const char *const sortNames[] = {"id", "name", "count", "recency"};

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

// Lays `items` out on lines of `width` columns, two blanks between them; an
// item too long for a line of its own is wrapped at its blanks.
void layOut(const std::vector<std::string> &items, std::size_t width, std::vector<std::string> &lines)
{
    std::string line;
    for (const std::string &item : items) {
        if (item.empty())
            continue;
        if (!line.empty() && line.size() + 2 + item.size() <= width) {
            line += "  " + item;
            continue;
        }
        if (!line.empty())
            lines.push_back(line);
        std::vector<std::string> parts;
        wrap(item, width, parts);
        lines.insert(lines.end(), parts.begin(), parts.end() - 1);
        line = parts.back();
    }
    if (!line.empty())
        lines.push_back(line);
}

std::string seconds(qint64 msecs)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", double(msecs) / 1000.0);
    return text;
}

// A value in at most 10 characters, to 6 significant digits where they fit.
std::string number(double value)
{
    char text[32];
    for (int digits = 6; digits > 1; --digits)
        if (std::snprintf(text, sizeof text, "%.*g", digits, value) <= 10)
            break;
    return text;
}

// Where in a dump line each field's "name=value" stands: [begin, end), or
// begin == npos when the line does not show it.
std::pair<std::size_t, std::size_t> fieldText(const std::string &dump, const std::string &name)
{
    for (std::size_t at = dump.find(' ' + name + '='); at != std::string::npos; at = dump.find(' ' + name + '=', at + 1)) {
        if (at > 0 && dump[at - 1] != ',' && dump[at - 1] != ':')
            continue;
        const std::size_t end = dump.find(", ", at + 1);
        return {at + 1, end == std::string::npos ? dump.size() : end};
    }
    return {std::string::npos, 0};
}

bool utf8Terminal()
{
    const char *codeset = nl_langinfo(CODESET);
    return codeset != nullptr && std::strcmp(codeset, "UTF-8") == 0;
}

} // namespace

std::vector<MonitoredType *> MonitorView::shown() const
{
    std::vector<MonitoredType *> rows;
    for (MonitoredType *t : model_.seen())
        if (filter_.empty() || filter_.matches(*t->row))
            rows.push_back(t);
    auto by = [this](const MonitoredType *a, const MonitoredType *b) {
        switch (sort_) {
        case SortBy::Name:
            return a->row->message < b->row->message;
        case SortBy::Count:
            return a->count != b->count ? a->count > b->count : a->row->id < b->row->id;
        case SortBy::Recency:
            return a->last != b->last ? a->last > b->last : a->row->id < b->row->id;
        case SortBy::Id:
            break;
        }
        return a->row->id < b->row->id;
    };
    std::sort(rows.begin(), rows.end(), by);
    return rows;
}

int MonitorView::drawHeader(long long wallMs, qint64 now, int width)
{
    if (wallMs - rateSince_ >= 1000) {
        const long long lines = scan_.lineNumber();
        if (rateSince_ > 0)
            linesPerSecond_ = double(lines - rateLines_) * 1000.0 / double(wallMs - rateSince_);
        rateLines_ = lines;
        rateSince_ = wallMs;
    }
    char text[256];
    std::vector<std::string> items = {"vorlink monitor",
                                      scan_.input().name() + (scan_.input().following() ? " (following)" : "")};
    std::snprintf(text, sizeof text, "%lld messages of %zu types", model_.messages(), model_.seen().size());
    items.emplace_back(text);
    std::snprintf(text, sizeof text, "%.0f lines/s", linesPerSecond_);
    items.emplace_back(text);
    if (model_.messages() > 0) {
        std::string span = "span ";
        appendIsoTime(model_.firstStamp(), span);
        span += " .. ";
        appendIsoTime(model_.lastStamp(), span);
        items.push_back(span);
    }
    items.push_back(std::to_string(model_.overdueTypes(now)) + " overdue");
    if (model_.stepsBack() > 0)
        items.push_back("log time went back " + seconds(model_.lastStepBack()) + " at line " +
                        std::to_string(model_.lastStepBackLine()) +
                        (model_.stepsBack() > 1 ? " (" + std::to_string(model_.stepsBack()) + " times)" : ""));
    items.push_back(note_);
    items.push_back(model_.ended() ? "end of input" : "");
    std::vector<std::string> lines;
    layOut(items, std::size_t(width), lines);
    const int title = int(lines.size());

    const Rejects &rejects = scan_.rejects();
    std::string rejected = "rejected " + std::to_string(rejects.count());
    const char *separator = ": ";
    for (const auto &[cause, count] : rejects.byCause()) {
        rejected += separator + cause + " " + std::to_string(count);
        separator = ", ";
    }
    items = {rejected};
    if (rejects.count() > 0)
        items.push_back("last: " + scan_.input().name() + ":" + std::to_string(rejects.last().line) + ": " +
                        rejects.last().reason);
    layOut(items, std::size_t(width), lines);

    items = {std::string("sort: ") + sortNames[int(sort_)], filter_.empty() ? "" : "filter: " + filter_.text(),
             paused_ ? "PAUSED" : "",
             detail_ != nullptr ? "[q quit, p pause, Enter/Esc back to the table, arrows scroll]"
                                : "[q quit, p pause, / filter, s sort, Enter history, arrows/PgUp/PgDn/Home move]"};
    layOut(items, std::size_t(width), lines);

    const std::array<NodeState, nodeCount> nodes = model_.nodes(now);
    for (int k = 0; k < nodeCount; ++k) {
        const NodeState &n = nodes[std::size_t(k)];
        if (n.heard)
            std::snprintf(text, sizeof text, "%s  last heard %s ago  %d %s, %d overdue", nodeNames[k],
                          seconds(now - n.last).c_str(), n.types, n.types == 1 ? "type" : "types", n.overdue);
        else
            std::snprintf(text, sizeof text, "%s  not heard", nodeNames[k]);
        lines.emplace_back(text);
    }
    int y = 0;
    for (const std::string &line : lines) {
        if (y < title)
            attron(A_REVERSE);
        mvaddnstr(y, 0, line.c_str(), width);
        for (int x = int(line.size()); y < title && x < width; ++x)
            addch(' ');
        attroff(A_REVERSE);
        ++y;
    }
    return y;
}

void MonitorView::drawTable(qint64 now, int top, int height, int width)
{
    const std::vector<MonitoredType *> rows = shown();
    int nameWidth = 7;
    for (const MonitoredType *t : rows)
        nameWidth = std::max(nameWidth, int(t->row->message.size()));
    nameWidth = std::max(8, std::min(nameWidth, width - 54));   // on a narrow screen, names are cut
    char text[512];
    std::snprintf(text, sizeof text, "%-6s  %-*s %9s %9s %8s  %s", "id", nameWidth, "message", "count", "rate Hz",
                  "age, s", "state");
    attron(A_BOLD);
    mvaddnstr(top, 0, text, width);
    attroff(A_BOLD);
    ++top;
    --height;
    if (rows.empty()) {
        std::string why = model_.seen().empty() ? "no message yet"
                                                : "no message seen matches the filter '" + filter_.text() + "'";
        if (!filter_.error().empty())
            why += ": " + filter_.error();
        mvaddnstr(top, 0, why.c_str(), width);
        return;
    }
    const auto at = std::find_if(rows.begin(), rows.end(), [this](const MonitoredType *t) { return t->row == cursorRow_; });
    cursor_ = at != rows.end() ? int(at - rows.begin()) : std::max(0, std::min(cursor_, int(rows.size()) - 1));
    cursorRow_ = rows[std::size_t(cursor_)]->row;

    // The body's lines: each type's row, then its dump line wrapped; a dump
    // line is kept as the range of the type's dump text it shows.
    struct Line
    {
        MonitoredType *type;
        std::size_t from, to;   // from == to: the type's own row
    };
    std::vector<Line> lines;
    std::vector<std::string> wrapped;
    const std::size_t dumpWidth = std::size_t(std::max(width - 8, 8));
    int cursorFrom = 0, cursorTo = 0;
    for (MonitoredType *t : rows) {
        if (t->row == cursorRow_)
            cursorFrom = int(lines.size());
        lines.push_back({t, 0, 0});
        if (!t->dumped) {
            t->dump.clear();
            setDumpTarget(&t->dump);
            t->row->dumpPayload(t->payload);
            setDumpTarget(nullptr);
            t->dumped = true;
        }
        wrapped.clear();
        wrap(t->dump, dumpWidth, wrapped);
        std::size_t from = 0;
        for (const std::string &w : wrapped) {
            from = t->dump.find(w, from);
            lines.push_back({t, from, from + w.size()});
            from += w.size();
        }
        if (t->row == cursorRow_)
            cursorTo = int(lines.size());
    }
    bodyHeight_ = std::max(height, 1);
    typesPerPage_ = std::max(1, int(rows.size()) * bodyHeight_ / int(lines.size()));
    if (cursorFrom < scroll_)
        scroll_ = cursorFrom;
    else if (cursorTo > scroll_ + bodyHeight_)
        scroll_ = std::min(cursorFrom, cursorTo - bodyHeight_);

    const attr_t changed = A_BOLD | (has_colors() ? attr_t(COLOR_PAIR(1)) : attr_t(A_UNDERLINE));
    for (int y = 0; y < bodyHeight_ && std::size_t(scroll_ + y) < lines.size(); ++y) {
        const Line &line = lines[std::size_t(scroll_ + y)];
        const MonitoredType &t = *line.type;
        if (line.from == line.to) {
            qint64 silent = 0;
            std::string state = t.overdue(now, silent) ? "overdue " + seconds(silent) : "";
            double rate = 0;
            char rateText[32] = "-";
            if (t.rate.rate(now, model_.start(), rate))
                std::snprintf(rateText, sizeof rateText, "%.2f", rate);
            std::snprintf(text, sizeof text, "0x%04X  %-*.*s %9lld %9s %8.1f  %s", t.row->id, nameWidth, nameWidth,
                          t.row->message.c_str(), t.count, rateText, double(now - t.last) / 1000.0, state.c_str());
            if (t.row == cursorRow_)
                attron(A_REVERSE);
            mvaddnstr(top + y, 0, text, width);
            attroff(A_REVERSE);
            continue;
        }
        // The fields whose value changed within the last second stand out.
        std::vector<std::pair<std::size_t, std::size_t>> marked;
        for (std::size_t k = 0; k < t.fields.size(); ++k)
            if (t.changedAt[k] != never && now - t.changedAt[k] < changeShownMs)
                marked.push_back(fieldText(t.dump, t.fields[k]->name));
        mvaddnstr(top + y, 0, "        ", width);
        for (std::size_t at = line.from; at < line.to && int(8 + at - line.from) < width;) {
            bool on = false;
            std::size_t end = line.to;
            for (const auto &[b, e] : marked) {
                if (b == std::string::npos)
                    continue;
                if (at >= b && at < e) {
                    on = true;
                    end = std::min(end, e);
                } else if (b > at) {
                    end = std::min(end, b);
                }
            }
            if (on)
                attron(changed);
            addnstr(t.dump.data() + at, int(std::min(end - at, std::size_t(width - int(8 + at - line.from)))));
            attroff(changed);
            at = end;
        }
    }
}

void MonitorView::drawDetail(qint64 now, int top, int height, int width)
{
    const auto &types = model_.seen();
    const auto found = std::find_if(types.begin(), types.end(), [this](const MonitoredType *t) { return t->row == detail_; });
    if (found == types.end())
        return;
    const MonitoredType &t = **found;
    const std::string title = t.row->message + " (" + hexId(t.row->id) + "): each field over the last " +
                              std::to_string(trendBuckets * trendBucketMs / 60000) + " minutes of log time, a mark per " +
                              std::to_string(trendBucketMs / 1000) + " s, the latest at the right";
    std::vector<std::string> lines;
    layOut({title}, std::size_t(width), lines);
    int nameWidth = 5;
    for (const WireField *f : t.fields)
        nameWidth = std::max(nameWidth, int(f->name.size()));
    nameWidth = std::min(nameWidth, std::max(8, width - 35 - 12));   // the trend keeps 12 marks or more
    char text[512];
    std::snprintf(text, sizeof text, "%-*s %10s %10s %10s  %s", nameWidth, "field", "min", "max", "latest", "trend");
    const int columns = int(lines.size());
    lines.emplace_back(text);
    const int trendWidth = std::max(0, std::min(trendBuckets, width - nameWidth - 35));
    static const bool blocks = utf8Terminal();
    static const char *const blockMarks[] = {"\u2581", "\u2582", "\u2583", "\u2584", "\u2585", "\u2586", "\u2587", "\u2588"};
    static const char *const plainMarks[] = {"_", ".", "-", "~", "=", "+", "*", "#"};
    const char *const *marks = blocks ? blockMarks : plainMarks;
    for (std::size_t k = 0; k < t.fields.size(); ++k) {
        const FieldHistory h = model_.history(t, k, now);
        std::string trend;
        for (std::size_t b = h.means.size() - std::size_t(trendWidth); b < h.means.size(); ++b) {
            if (std::isnan(h.means[b])) {
                trend += ' ';
                continue;
            }
            const double level = h.max > h.min ? (h.means[b] - h.min) / (h.max - h.min) : 0;
            trend += marks[std::min(7, std::max(0, int(level * 8)))];
        }
        std::snprintf(text, sizeof text, "%-*.*s %10s %10s %10s  %s", nameWidth, nameWidth, t.fields[k]->name.c_str(),
                      h.any ? number(h.min).c_str() : "-", h.any ? number(h.max).c_str() : "-",
                      number(h.latest).c_str(), trend.c_str());
        lines.emplace_back(text);
    }
    if (t.fields.empty())
        lines.emplace_back("this message has no fields");
    bodyHeight_ = std::max(height, 1);
    detailScroll_ = std::max(0, std::min(detailScroll_, int(lines.size()) - bodyHeight_));
    for (int y = 0; y < bodyHeight_ && std::size_t(detailScroll_ + y) < lines.size(); ++y) {
        if (detailScroll_ + y <= columns)
            attron(A_BOLD);
        // The marks of the trend take three bytes each in UTF-8, one column.
        mvaddnstr(top + y, 0, lines[std::size_t(detailScroll_ + y)].c_str(), width + (blocks ? 2 * trendWidth : 0));
        attroff(A_BOLD);
    }
}

void MonitorView::draw(long long wallMs)
{
    lastDraw_ = wallMs;
    int height, width;
    getmaxyx(stdscr, height, width);
    if (paused_ && !editing_) {   // the screen as it was, and the mark
        move(height - 1, 0);
        clrtoeol();
        attron(A_REVERSE);
        mvaddnstr(height - 1, 0, "PAUSED: the log is still read; p shows it again", width);
        attroff(A_REVERSE);
        refresh();
        return;
    }
    erase();
    const qint64 now = model_.now(wallMs);
    const int top = drawHeader(wallMs, now, width);
    const int bottom = height - (editing_ ? 1 : 0);
    if (detail_ != nullptr)
        drawDetail(now, top, bottom - top, width);
    else
        drawTable(now, top, bottom - top, width);
    if (editing_) {
        const std::string prompt = "filter (names, ids, node prefixes): " + typed_;
        mvaddnstr(height - 1, 0, prompt.c_str(), width);
    }
    refresh();
}

} // namespace vorlink
