#pragma once

// Measures two calls against each other in one benchmark: a batch of one, a
// batch of the other, alternating which goes first, for as long as Google
// Benchmark runs the loop. Every batch is timed on its own and the medians
// are compared, so a burst of load from elsewhere on the machine lands in a
// few batches instead of in the result.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

namespace vorbench {

using Clock = std::chrono::steady_clock;

template <class Call>
double timeBatch(Call &call, int batch)
{
    const auto start = Clock::now();
    for (int i = 0; i < batch; ++i)
        call();
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

inline double median(std::vector<double> &v)
{
    if (v.empty())
        return 0;
    auto mid = v.begin() + std::ptrdiff_t(v.size() / 2);
    std::nth_element(v.begin(), mid, v.end());
    return *mid;
}

// Calls per batch so that the cheaper call fills about `targetNs`.
template <class A, class B>
int batchSize(A &a, B &b, double targetNs = 4000)
{
    for (int k = 0; k < 8; ++k) {
        a();
        b();
    }
    const double perCall = std::min(timeBatch(a, 64), timeBatch(b, 64)) / 64;
    return int(std::clamp(targetNs / std::max(perCall, 0.1), 1.0, 4096.0));
}

// Reports the time of `measured` per call as the benchmark's time, and the
// counters ns (measured), base_ns (base) and ratio (ns / base_ns).
template <class Measured, class Base>
void comparePair(benchmark::State &state, Measured measured, Base base)
{
    const int batch = batchSize(measured, base);
    std::vector<double> m, b;
    bool measuredFirst = true;
    for (auto _ : state) {
        double tm, tb;
        if (measuredFirst) {
            tm = timeBatch(measured, batch);
            tb = timeBatch(base, batch);
        } else {
            tb = timeBatch(base, batch);
            tm = timeBatch(measured, batch);
        }
        measuredFirst = !measuredFirst;
        m.push_back(tm);
        b.push_back(tb);
        state.SetIterationTime(tm * 1e-9);
    }
    const double ns = median(m) / batch;
    const double baseNs = median(b) / batch;
    state.counters["ns"] = ns;
    state.counters["base_ns"] = baseNs;
    state.counters["ratio"] = baseNs > 0 ? ns / baseNs : 0;
    state.counters["batch"] = batch;
}

} // namespace vorbench
