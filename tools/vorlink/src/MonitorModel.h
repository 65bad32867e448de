#pragma once

// What `vorlink monitor` knows of the log so far, apart from how it is drawn:
// the log's clock, and for each message type seen its count, rate, usual
// period, latest payload, when each field last changed, and a few minutes of
// each field's values.
//
// Times here lie on the monitor's own timeline: log time made monotone. A
// step back of more than backStepMs (a rotation, a clock reset) is told and
// the timeline goes on from the moment it came; a smaller step back (nodes
// whose clocks differ a little) counts as the latest time.

#include "BusLog.h"

#include <QByteArray>
#include <QtGlobal>

#include <array>
#include <limits>
#include <string>
#include <vector>

namespace vorlink {

struct RowInfo;
struct WireField;

// A message type is overdue once it has been silent for more than
// overdueFactor of its usual periods and for at least overdueFloorMs; its
// usual period is the median of the gaps between its latest arrivals.
constexpr int overdueFactor = 3;
constexpr qint64 overdueFloorMs = 500;
constexpr qint64 backStepMs = 1000;
// A field's value that changed within this much log time is shown as changing.
constexpr qint64 changeShownMs = 1000;
// The history of each field's values: trendBuckets buckets of trendBucketMs.
constexpr qint64 trendBucketMs = 5000;
constexpr int trendBuckets = 36;   // 3 minutes

constexpr qint64 never = std::numeric_limits<qint64>::min();

// The rate of a message type over the last seconds of log time, counted in
// half-second buckets.
class RecentRate
{
public:
    static constexpr qint64 bucketMs = 500;
    static constexpr int buckets = 10;   // 5 s

    void add(qint64 msecs);
    // Messages a second in the window that ends at `now`, which began no
    // earlier than `start` (the first message of the log); false without a span.
    bool rate(qint64 now, qint64 start, double &perSecond) const;

private:
    static qint64 bucketOf(qint64 msecs) { return msecs / bucketMs; }
    std::array<qint64, buckets + 1> ids_ = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
    std::array<long long, buckets + 1> counts_ = {};
};

// The usual period of a message type, learned from the gaps between its
// latest arrivals; gaps inside one millisecond (a burst) are left out.
class PeriodLearner
{
public:
    static constexpr int kept = 16;
    void add(qint64 gap);
    // False while no gap is known (a type seen once).
    bool period(qint64 &msecs) const;

private:
    std::array<qint64, kept> gaps_ = {};
    int count_ = 0;
};

// Minimum, maximum and mean of one field over one bucket of log time.
struct FieldSpan
{
    double min = 0, max = 0, sum = 0;
    long long n = 0;
};

struct MonitoredType
{
    const RowInfo *row = nullptr;
    std::vector<const WireField *> fields;   // the wire fields, in wire order
    int node = -1;                            // index in nodeNames, or -1
    long long count = 0;
    qint64 last = 0;                          // on the timeline
    QByteArray payload;                       // of the latest message
    RecentRate rate;
    PeriodLearner period;
    std::vector<qint64> changedAt;            // per field, on the timeline
    std::vector<qint64> bucketIds;            // per trend bucket: its start / trendBucketMs, or -1
    std::vector<FieldSpan> spans;             // trendBuckets x fields
    std::string dump;                         // the latest message's dump line, made when shown
    bool dumped = false;

    // A field's value in the latest payload.
    double value(std::size_t field) const;
    // How long the type has been silent past its rule, at `now`: false when
    // it is not overdue.
    bool overdue(qint64 now, qint64 &silent) const;
};

// What one field did over the window of history that ends at `now`.
struct FieldHistory
{
    bool any = false;
    double min = 0, max = 0, latest = 0;
    std::vector<double> means;   // per bucket, oldest first; NaN where the bucket is empty
};

constexpr const char *nodeNames[] = {"TD", "DD", "FP", "UI"};
constexpr int nodeCount = 4;

struct NodeState
{
    bool heard = false;
    qint64 last = 0;   // on the timeline
    int types = 0, overdue = 0;
};

class MonitorModel
{
public:
    MonitorModel();

    // A message of `row` read from line `line`, at `wallMs` on the steady clock.
    void add(const RowInfo &row, const BusLogEntry &entry, long long line, long long wallMs);
    // The input is over: log time stands still.
    void end() { ended_ = true; }
    bool ended() const { return ended_; }

    // Log time now on the timeline: the latest message's, moved on by the wall
    // clock since it came while the input goes on.
    qint64 now(long long wallMs) const;

    const std::vector<MonitoredType *> &seen() const { return seen_; }
    long long messages() const { return messages_; }
    qint64 firstStamp() const { return firstStamp_; }   // as the log writes them
    qint64 lastStamp() const { return lastStamp_; }
    qint64 start() const { return start_; }             // the first message, on the timeline

    // The last step back of log time, and how many there were.
    long long stepsBack() const { return stepsBack_; }
    qint64 lastStepBack() const { return lastStepBack_; }
    long long lastStepBackLine() const { return lastStepBackLine_; }

    std::array<NodeState, nodeCount> nodes(qint64 now) const;
    int overdueTypes(qint64 now) const;
    FieldHistory history(const MonitoredType &type, std::size_t field, qint64 now) const;

private:
    qint64 place(qint64 stamp, long long line);
    void record(MonitoredType &type, qint64 at);   // the latest payload's values into the history

    std::vector<MonitoredType> types_;   // by row index of the dictionary
    std::vector<MonitoredType *> seen_;
    long long messages_ = 0;
    qint64 firstStamp_ = 0, lastStamp_ = 0, start_ = 0;
    qint64 latest_ = 0, offset_ = 0;     // the timeline's latest time; stamp + offset_ = timeline
    long long lastArrival_ = 0;
    long long stepsBack_ = 0, lastStepBackLine_ = 0;
    qint64 lastStepBack_ = 0;
    bool ended_ = false;
};

} // namespace vorlink
