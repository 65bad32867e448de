// The identity tables, the cost of the dispatch across the numbering, and
// the conversion on one thread and on two.

#include "AllocCount.h"
#include "Pair.h"
#include "Rows.h"

#include "ZelkoMsgProtoUtils.h"

#include <vector>

namespace vorbench {
namespace {

std::vector<quint16> allIds()
{
    std::vector<quint16> ids;
    forEachRow([&](auto tag) { ids.push_back(Floor<typename decltype(tag)::type>::id); });
    return ids;
}

std::vector<Bytra::Can::Message> allMessages()
{
    std::vector<Bytra::Can::Message> messages;
    forEachRow([&](auto tag) {
        using F = Floor<typename decltype(tag)::type>;
        messages.push_back(sampleMessage(F::id, F::payloadBytes));
    });
    return messages;
}

// Runs `call` on every id per iteration and reports heap allocations per call.
template <class Call>
void countAllocations(benchmark::State &state, const std::vector<quint16> &ids, Call call)
{
    unsigned long calls = 0;
    setAllocCounting(true);
    const unsigned long before = allocCount();
    for (auto _ : state) {
        for (const quint16 id : ids)
            call(id);
        calls += ids.size();
    }
    const unsigned long allocations = allocCount() - before;
    setAllocCounting(false);
    state.SetItemsProcessed(int64_t(calls));
    state.counters["allocs_per_call"] = double(allocations) / double(calls);
}

void msgIdStringKnown(benchmark::State &state)
{
    countAllocations(state, allIds(), [](quint16 id) {
        const QString name = zelko::msgIdString(zelko::MsgId(id));
        benchmark::DoNotOptimize(name.constData());
    });
}
BENCHMARK(msgIdStringKnown)->Name("msgIdString/known");

// The text of an id in no row is made at each call: this one must count.
void msgIdStringUnknown(benchmark::State &state)
{
    countAllocations(state, {0x0001}, [](quint16 id) {
        const QString name = zelko::msgIdString(zelko::MsgId(id));
        benchmark::DoNotOptimize(name.constData());
    });
}
BENCHMARK(msgIdStringUnknown)->Name("msgIdString/unknown");

void msgIdToProtoNameKnown(benchmark::State &state)
{
    const std::vector<quint16> ids = allIds();
    benchmark::DoNotOptimize(zelko::msgIdToProtoName(ids.front()).data()); // the first call builds the table
    countAllocations(state, ids, [](quint16 id) { benchmark::DoNotOptimize(zelko::msgIdToProtoName(id).data()); });
}
BENCHMARK(msgIdToProtoNameKnown)->Name("msgIdToProtoName/known");

// The first and the last id of the numbering: both rows have no field, so the
// conversions differ only in where the dispatch finds them.
void dispatchLastVsFirst(benchmark::State &state)
{
    const QDateTime seen = sampleTime();
    const Bytra::Can::Message first = sampleMessage(zelko::MSG_ID_UNUSED, 0);
    const Bytra::Can::Message last = sampleMessage(zelko::MSG_ID_ACK_MESSAGE_THAT_REQUIRES_ACK, 0);
    QByteArray a, b;
    if (!zelko::canMessageToProtobufByteArray(seen, first, a) || !zelko::canMessageToProtobufByteArray(seen, last, b)) {
        state.SkipWithError("first or last id not converted");
        return;
    }
    comparePair(
        state, [&] { benchmark::DoNotOptimize(zelko::canMessageToProtobufByteArray(seen, last, b)); },
        [&] { benchmark::DoNotOptimize(zelko::canMessageToProtobufByteArray(seen, first, a)); });
}
BENCHMARK(dispatchLastVsFirst)->Name("dispatch/last_vs_first")->UseManualTime()->MinTime(0.5);

// Each thread converts its own copy of every row's message into its own array.
void convertAllRows(benchmark::State &state)
{
    const QDateTime seen = sampleTime();
    const std::vector<Bytra::Can::Message> messages = allMessages();
    QByteArray out;
    for (auto _ : state) {
        for (const Bytra::Can::Message &message : messages)
            benchmark::DoNotOptimize(zelko::canMessageToProtobufByteArray(seen, message, out));
    }
    state.SetItemsProcessed(int64_t(state.iterations() * messages.size()));
}
BENCHMARK(convertAllRows)->Name("threads/convertAllRows")->Threads(1)->Threads(2)->UseRealTime()->MinTime(1.0);

} // namespace
} // namespace vorbench
