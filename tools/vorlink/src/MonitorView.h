#pragma once

// The screen of `vorlink monitor`: what the user chose (sort, filter, the
// row under the cursor, pause, the detail of one type), the keys that change
// it, and the ncurses drawing of the model.

#include "MonitorModel.h"

#include <bitset>
#include <string>
#include <vector>

namespace vorlink {

class LogScan;

enum class SortBy { Id, Name, Count, Recency };

// The types the filter shows: what --message takes, key by key (blanks or
// commas between keys), and a key that names no message as part of a name.
class TypeFilter
{
public:
    void set(const std::string &text);
    bool matches(const RowInfo &row) const;
    bool empty() const { return text_.empty(); }
    const std::string &text() const { return text_; }
    // Why a key matches no message at all; empty when each key matches one.
    const std::string &error() const { return error_; }

private:
    std::string text_, error_;
    std::bitset<65536> ids_;
    std::vector<std::string> words_;   // lower case
};

class MonitorView
{
public:
    MonitorView(const LogScan &scan, MonitorModel &model, SortBy sort) : scan_(scan), model_(model), sort_(sort) {}

    // The keys waiting, then the screen when it is due; false once the user quits.
    bool tick(long long wallMs);
    bool quitting() const { return quit_; }
    void note(const std::string &text) { note_ = text; }

private:
    void keys();
    void editKey(int key);
    void moveCursor(int by);
    void draw(long long wallMs);
    int drawHeader(long long wallMs, qint64 now, int width);
    void drawTable(qint64 now, int top, int height, int width);
    void drawDetail(qint64 now, int top, int height, int width);
    std::vector<MonitoredType *> shown() const;

    const LogScan &scan_;
    MonitorModel &model_;
    SortBy sort_;
    TypeFilter filter_;
    std::string typed_, note_;
    const RowInfo *cursorRow_ = nullptr;   // the row under the cursor
    const RowInfo *detail_ = nullptr;      // the row whose history is shown
    int cursor_ = 0, scroll_ = 0, detailScroll_ = 0, bodyHeight_ = 1, typesPerPage_ = 1;
    long long lastKeys_ = 0, lastDraw_ = 0;
    long long rateLines_ = 0, rateSince_ = 0;
    double linesPerSecond_ = 0;
    bool quit_ = false, paused_ = false, editing_ = false;
};

} // namespace vorlink
