#include "MonitorModel.h"
#include "Dictionary.h"
#include "Selection.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vorlink {

void RecentRate::add(qint64 msecs)
{
    const qint64 b = bucketOf(msecs);
    const std::size_t slot = std::size_t(b % (buckets + 1));
    if (ids_[slot] != b) {
        ids_[slot] = b;
        counts_[slot] = 0;
    }
    ++counts_[slot];
}

bool RecentRate::rate(qint64 now, qint64 start, double &perSecond) const
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

void PeriodLearner::add(qint64 gap)
{
    if (gap <= 0)
        return;
    gaps_[std::size_t(count_ % kept)] = gap;
    ++count_;
}

bool PeriodLearner::period(qint64 &msecs) const
{
    const int n = std::min(count_, kept);
    if (n == 0)
        return false;
    std::array<qint64, kept> sorted = gaps_;
    std::nth_element(sorted.begin(), sorted.begin() + n / 2, sorted.begin() + n);
    msecs = sorted[std::size_t(n / 2)];
    return true;
}

double MonitoredType::value(std::size_t field) const
{
    const WireField &f = *fields[field];
    if (payload.size() < f.position + f.width)
        return std::nan("");
    const char *at = payload.constData() + f.position;
    switch (f.type) {
    case WireType::U08: return double(quint8(*at));
    case WireType::U16: { quint16 v; std::memcpy(&v, at, sizeof v); return double(v); }
    case WireType::U32: { quint32 v; std::memcpy(&v, at, sizeof v); return double(v); }
    case WireType::S16: { qint16 v; std::memcpy(&v, at, sizeof v); return double(v); }
    case WireType::S32: { qint32 v; std::memcpy(&v, at, sizeof v); return double(v); }
    case WireType::F32: { float v; std::memcpy(&v, at, sizeof v); return double(v); }
    }
    return std::nan("");
}

bool MonitoredType::overdue(qint64 now, qint64 &silent) const
{
    qint64 usual = 0;
    if (count < 2 || !period.period(usual))
        return false;
    silent = now - last;
    return silent > overdueFactor * usual && silent >= overdueFloorMs;
}

MonitorModel::MonitorModel() : types_(Dictionary::instance().rows().size())
{
    const auto &rows = Dictionary::instance().rows();
    for (std::size_t k = 0; k < rows.size(); ++k) {
        types_[k].row = &rows[k];
        for (const WireField &f : rows[k].fields)
            if (f.position >= 0)
                types_[k].fields.push_back(&f);
    }
    // A node's messages are those its prefix names for --message.
    for (int node = 0; node < nodeCount; ++node) {
        std::vector<const RowInfo *> members;
        std::string error;
        resolveMessageKey(nodeNames[node], members, error);
        for (const RowInfo *row : members)
            types_[std::size_t(row - rows.data())].node = node;
    }
}

qint64 MonitorModel::place(qint64 stamp, long long line)
{
    const qint64 at = stamp + offset_;
    if (at < latest_ - backStepMs) {
        // Log time went back: the timeline goes on from here.
        ++stepsBack_;
        lastStepBack_ = latest_ - at;
        lastStepBackLine_ = line;
        offset_ += latest_ - at;
    }
    latest_ = std::max(latest_, at);
    return latest_;
}

void MonitorModel::add(const RowInfo &row, const BusLogEntry &entry, long long line, long long wallMs)
{
    MonitoredType &t = types_[std::size_t(&row - Dictionary::instance().rows().data())];
    qint64 at;
    if (messages_++ == 0) {
        firstStamp_ = lastStamp_ = entry.msecs;
        start_ = latest_ = at = entry.msecs;
    } else {
        firstStamp_ = std::min(firstStamp_, entry.msecs);
        lastStamp_ = std::max(lastStamp_, entry.msecs);
        at = place(entry.msecs, line);
    }
    lastArrival_ = wallMs;
    if (t.count++ == 0) {
        seen_.push_back(&t);
        t.changedAt.assign(t.fields.size(), never);
        t.bucketIds.assign(std::size_t(trendBuckets), -1);
        t.spans.resize(std::size_t(trendBuckets) * t.fields.size());
    } else {
        t.period.add(at - t.last);
        for (std::size_t k = 0; k < t.fields.size(); ++k) {
            const WireField &f = *t.fields[k];
            if (entry.payload.size() >= f.position + f.width && t.payload.size() >= f.position + f.width &&
                std::memcmp(entry.payload.constData() + f.position, t.payload.constData() + f.position,
                            std::size_t(f.width)) != 0)
                t.changedAt[k] = at;
        }
    }
    t.last = at;
    t.payload = entry.payload;
    t.dumped = false;
    t.rate.add(at);
    record(t, at);
}

void MonitorModel::record(MonitoredType &t, qint64 at)
{
    const qint64 id = at / trendBucketMs;
    const std::size_t slot = std::size_t(id % trendBuckets);
    FieldSpan *spans = t.spans.data() + slot * t.fields.size();
    if (t.bucketIds[slot] != id) {
        t.bucketIds[slot] = id;
        std::fill(spans, spans + t.fields.size(), FieldSpan());
    }
    for (std::size_t k = 0; k < t.fields.size(); ++k) {
        const double v = t.value(k);
        if (!std::isfinite(v))
            continue;
        FieldSpan &s = spans[k];
        s.min = s.n == 0 ? v : std::min(s.min, v);
        s.max = s.n == 0 ? v : std::max(s.max, v);
        s.sum += v;
        ++s.n;
    }
}

qint64 MonitorModel::now(long long wallMs) const
{
    if (messages_ == 0)
        return 0;
    return latest_ + (ended_ ? 0 : std::max(0LL, wallMs - lastArrival_));
}

std::array<NodeState, nodeCount> MonitorModel::nodes(qint64 now) const
{
    std::array<NodeState, nodeCount> nodes{};
    for (const MonitoredType *t : seen_) {
        if (t->node < 0)
            continue;
        NodeState &n = nodes[std::size_t(t->node)];
        n.last = n.heard ? std::max(n.last, t->last) : t->last;
        n.heard = true;
        ++n.types;
        qint64 silent;
        n.overdue += t->overdue(now, silent) ? 1 : 0;
    }
    return nodes;
}

int MonitorModel::overdueTypes(qint64 now) const
{
    int overdue = 0;
    qint64 silent;
    for (const MonitoredType *t : seen_)
        overdue += t->overdue(now, silent) ? 1 : 0;
    return overdue;
}

FieldHistory MonitorModel::history(const MonitoredType &t, std::size_t field, qint64 now) const
{
    FieldHistory h;
    h.latest = t.value(field);
    const qint64 last = now / trendBucketMs, first = last - (trendBuckets - 1);
    for (qint64 id = first; id <= last; ++id) {
        const std::size_t slot = std::size_t(id % trendBuckets);
        const FieldSpan &s = t.spans[slot * t.fields.size() + field];
        if (t.bucketIds[slot] != id || s.n == 0) {
            h.means.push_back(std::nan(""));
            continue;
        }
        h.min = h.any ? std::min(h.min, s.min) : s.min;
        h.max = h.any ? std::max(h.max, s.max) : s.max;
        h.any = true;
        h.means.push_back(s.sum / double(s.n));
    }
    return h;
}

} // namespace vorlink
