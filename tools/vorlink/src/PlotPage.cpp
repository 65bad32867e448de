#include "PlotPage.h"
#include "BusLog.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cmath>
#include <numeric>

namespace vorlink {
namespace {

qint64 floorDiv(qint64 a, qint64 b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

void appendNumber(long long value, std::string &out)
{
    char text[24];
    out.append(text, std::size_t(std::to_chars(text, text + sizeof text, value).ptr - text));
}

std::string plural(long long count, const char *word)
{
    return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

std::string escapeHtml(const std::string &text)
{
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string isoTime(qint64 msecs)
{
    std::string text;
    appendIsoTime(msecs, text);
    return text;
}

const char *const pageStyle = R"(
body { font: 14px sans-serif; margin: 1em 2em; color: #222; }
h1 { font-size: 1.4em; margin-bottom: 0.2em; }
h2 { font-size: 1.1em; margin: 1.2em 0 0.2em; }
h2 small { color: #777; font-weight: normal; }
.note { margin: 0.2em 0; color: #555; }
.reduced { color: #8a4b00; }
.plot { display: flex; align-items: flex-start; }
.graph { flex: 1; height: 260px; min-width: 300px; }
.legend { width: 240px; margin-left: 1em; font-size: 13px; }
.legend .dygraph-legend { position: static; width: auto; background: none; }
)";

// Draws every chart that has rows into its placeholder and ties their time
// axes together: zooming or panning one (drag to zoom, shift-drag to pan,
// double-click to reset) moves all of them.
const char *const pageScript = R"(
(function () {
  'use strict';
  var graphs = [], span = vorlinkSpan.slice();
  if (span[1] - span[0] < 1000) { span[0] -= 500; span[1] += 500; }
  var pad = (span[1] - span[0]) / 50, shown = [span[0] - pad, span[1] + pad];
  vorlinkCharts.forEach(function (chart, i) {
    if (chart.rows.length === 0) return;
    var labels = ['time (UTC)'], series = {};
    chart.series.forEach(function (s) {
      labels.push(s.name);
      if (s.bool) series[s.name] = {stepPlot: true};
    });
    chart.rows.forEach(function (row) { row[0] = new Date(row[0]); });
    graphs.push(new Dygraph(document.getElementById('graph' + i), chart.rows, {
      labels: labels, series: series, labelsUTC: true, labelsKMB: true, legend: 'always',
      labelsDiv: document.getElementById('legend' + i), labelsSeparateLines: true,
      connectSeparatedPoints: true, drawPoints: chart.rows.length < 300, animatedZooms: false,
      pointSize: 2.5, dateWindow: shown,
      axes: {x: {axisLabelWidth: 90}, y: {valueFormatter: function (v) { return String(v); }}}
    }));
  });
  if (graphs.length > 1) Dygraph.synchronize(graphs, {zoom: true, selection: true, range: false});
  window.vorlinkGraphs = graphs;   // for the browser's console
})();
)";

} // namespace

PlotChart::PlotChart(std::string message, unsigned id, std::vector<Series> series)
    : message_(std::move(message)), id_(id), series_(std::move(series))
{
}

void PlotChart::add(qint64 msecs, const double *values)
{
    if (messages_++ == 0)
        first_ = last_ = msecs;
    first_ = std::min(first_, msecs);
    last_ = std::max(last_, msecs);
    const std::size_t n = series_.size();
    for (std::size_t k = 0; k < n; ++k)
        series_[k].points += std::isnan(values[k]) ? 0 : 1;
    if (width_ == 0) {
        times_.push_back(msecs);
        values_.insert(values_.end(), values, values + n);
        if (times_.size() > rawLimit)
            reduce();
        return;
    }
    addToBucket(msecs, values);
    if (buckets_.size() > maxBuckets)
        widen();
}

void PlotChart::reduce()
{
    width_ = std::max<qint64>(1, (last_ - first_) / qint64(minBuckets));
    const std::size_t n = series_.size();
    for (std::size_t i = 0; i < times_.size(); ++i)
        addToBucket(times_[i], values_.data() + i * n);
    times_ = {};
    values_ = {};
    while (buckets_.size() > maxBuckets)
        widen();
}

void PlotChart::addToBucket(qint64 msecs, const double *values)
{
    const auto [at, fresh] = buckets_.try_emplace(floorDiv(msecs, width_));
    Bucket &bucket = at->second;
    if (fresh) {
        bucket.first = bucket.last = msecs;
        bucket.series.resize(series_.size());
    }
    bucket.first = std::min(bucket.first, msecs);
    bucket.last = std::max(bucket.last, msecs);
    for (std::size_t k = 0; k < series_.size(); ++k) {
        const double v = values[k];
        Extreme &e = bucket.series[k];
        if (std::isnan(v))
            continue;
        if (!e.any) {
            e = {v, v, msecs, msecs, true};
            continue;
        }
        if (v < e.min)
            e.min = v, e.minAt = msecs;
        if (v > e.max)
            e.max = v, e.maxAt = msecs;
    }
}

void PlotChart::widen()
{
    width_ *= 2;
    std::map<qint64, Bucket> wider;
    for (auto &[index, bucket] : buckets_) {
        const auto [at, fresh] = wider.try_emplace(floorDiv(index, 2), std::move(bucket));
        if (fresh)
            continue;
        Bucket &into = at->second;
        into.first = std::min(into.first, bucket.first);
        into.last = std::max(into.last, bucket.last);
        for (std::size_t k = 0; k < series_.size(); ++k) {
            const Extreme &e = bucket.series[k];
            Extreme &to = into.series[k];
            if (!e.any)
                continue;
            if (!to.any) {
                to = e;
                continue;
            }
            if (e.min < to.min)
                to.min = e.min, to.minAt = e.minAt;
            if (e.max > to.max)
                to.max = e.max, to.maxAt = e.maxAt;
        }
    }
    buckets_.swap(wider);
}

void PlotChart::writeValue(std::size_t series, double value, std::string &out) const
{
    char text[32];
    if (!std::isfinite(value))
        out += "null";
    else if (series_[series].isFloat)
        out.append(text, std::size_t(std::to_chars(text, text + sizeof text, float(value)).ptr - text));
    else
        appendNumber((long long)value, out);
}

void PlotChart::writeJson(std::string &out) const
{
    out += "{\"message\":\"" + message_ + "\",\"series\":[";
    for (std::size_t k = 0; k < series_.size(); ++k)
        out += std::string(k ? "," : "") + "{\"name\":\"" + series_[k].name + "\",\"bool\":" +
               (series_[k].isBool ? "true" : "false") + ",\"points\":" + std::to_string(series_[k].points) + "}";
    out += "],\"rows\":[";
    const std::size_t n = series_.size();
    bool firstRow = true;
    const auto row = [&](qint64 msecs, auto value) {
        out += firstRow ? "[" : ",[";
        firstRow = false;
        appendNumber(msecs, out);
        for (std::size_t k = 0; k < n; ++k) {
            out += ',';
            writeValue(k, value(k), out);
        }
        out += ']';
    };
    if (width_ == 0) {
        // A log need not be in time order; the chart must be.
        std::vector<std::size_t> order(times_.size());
        std::iota(order.begin(), order.end(), std::size_t(0));
        std::stable_sort(order.begin(), order.end(),
                         [&](std::size_t a, std::size_t b) { return times_[a] < times_[b]; });
        for (const std::size_t i : order)
            row(times_[i], [&](std::size_t k) { return values_[i * n + k]; });
    } else {
        // Each bucket as two rows, at its first and its last message: each
        // field's extreme that came first, then the other one.
        const double none = std::nan("");
        for (const auto &[index, b] : buckets_) {
            row(b.first, [&](std::size_t k) {
                const Extreme &e = b.series[k];
                return !e.any ? none : e.minAt <= e.maxAt ? e.min : e.max;
            });
            const bool flat = std::all_of(b.series.begin(), b.series.end(),
                                          [](const Extreme &e) { return !e.any || e.min == e.max; });
            if (b.last != b.first || !flat)
                row(b.last, [&](std::size_t k) {
                    const Extreme &e = b.series[k];
                    return !e.any ? none : e.minAt <= e.maxAt ? e.max : e.min;
                });
        }
    }
    out += "]}";
}

std::string plotPage(const std::string &logName, const std::vector<PlotChart> &charts)
{
    long long messages = 0, reducedPoints = 0;
    qint64 first = 0, last = 0;
    for (const PlotChart &chart : charts) {
        if (chart.messages() == 0)
            continue;
        first = messages == 0 ? chart.first() : std::min(first, chart.first());
        last = messages == 0 ? chart.last() : std::max(last, chart.last());
        messages += chart.messages();
        if (chart.reduced())
            for (const PlotChart::Series &s : chart.series())
                reducedPoints += s.points;
    }

    const std::string span = messages == 0 ? "no messages plotted"
                                           : isoTime(first) + " to " + isoTime(last) + " (UTC), " +
                                                 plural(messages, "message") + " plotted";
    const std::string title = logName + ": " + span;
    std::string page = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>" +
                       escapeHtml(title) + "</title>\n<style>\n";
    page += dygraphsCss;
    page += pageStyle;
    page += "</style>\n<script>\n";
    page += dygraphsJs;
    page += "\n</script>\n<script>\n";
    page += dygraphsSynchronizerJs;
    page += "\n</script>\n</head>\n<body>\n<h1>" + escapeHtml(logName) + "</h1>\n<p class=\"note\">";
    page += messages == 0 ? "No messages of the requested series in the selection." : span + ".";
    page += " Drag to zoom, shift-drag to pan, double-click to zoom out; all charts share the time axis.</p>\n";
    if (reducedPoints > 0)
        page += "<p class=\"note reduced\">The data was reduced: charts of more than " +
                std::to_string(PlotChart::rawLimit) + " messages show the minimum and the maximum of each time "
                "bucket, so that no spike is lost (" + plural(reducedPoints, "point") + " read for them).</p>\n";

    for (std::size_t i = 0; i < charts.size(); ++i) {
        const PlotChart &chart = charts[i];
        page += "<section>\n<h2>" + chart.message() + " <small>" + hexId(chart.id()) + ", " + plural(chart.messages(), "message") +
                "</small></h2>\n";
        std::string empty;
        for (const PlotChart::Series &s : chart.series())
            if (s.points == 0)
                empty += (empty.empty() ? "" : ", ") + s.name;
        if (!empty.empty())
            page += "<p class=\"note empty\">No points in the selection: " + empty + ".</p>\n";
        if (chart.reduced()) {
            long long points = 0;
            for (const PlotChart::Series &s : chart.series())
                points += s.points;
            page += "<p class=\"note reduced\">Reduced from " + plural(points, "point") + ": each field's minimum " +
                    "and maximum in each of " + std::to_string(chart.buckets()) + " time buckets of " +
                    std::to_string(chart.bucketWidth()) + " ms.</p>\n";
        }
        if (chart.messages() > 0)
            page += "<div class=\"plot\"><div class=\"graph\" id=\"graph" + std::to_string(i) +
                    "\"></div><div class=\"legend\" id=\"legend" + std::to_string(i) + "\"></div></div>\n";
        page += "</section>\n";
    }

    page += "<script>\nvar vorlinkCharts = [\n";
    for (std::size_t i = 0; i < charts.size(); ++i) {
        charts[i].writeJson(page);
        page += i + 1 < charts.size() ? ",\n" : "\n";
    }
    page += "];\nvar vorlinkSpan = [" + std::to_string(first) + "," + std::to_string(last) + "];\n";
    page += pageScript;
    page += "</script>\n</body>\n</html>\n";
    return page;
}

} // namespace vorlink
