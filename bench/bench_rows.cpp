// Every row of the dictionary against its floor: the conversion, the two
// directions of the protobuf bridge and the two of the wire format.

#include "Pair.h"
#include "Rows.h"

#include "ZelkoMsgProtoUtils.h"

#include <QLoggingCategory>
#include <QSet>
#include <QString>

#include <cstdlib>
#include <cstring>
#include <string>

namespace vorbench {

// --- floors: what a host writes by hand, kept out of line like the library's calls

template <class R>
__attribute__((noipa)) bool floorSerialize(const typename Floor<R>::Wire &wire, const QDateTime &timestamp,
                                           short sequence, unsigned short msgId, QByteArray &out)
{
    typename Floor<R>::Message message;
    zelko::messages::Header &header = *message.mutable_header();
    const qint64 ms = timestamp.toMSecsSinceEpoch();
    header.mutable_timestamp()->set_seconds(ms / 1000);
    header.mutable_timestamp()->set_nanos(int(ms % 1000) * 1000000);
    header.set_sequence(sequence);
    header.set_msgid(msgId);
    Floor<R>::fill(wire, message);
    std::string bytes;
    const bool ok = message.SerializeToString(&bytes);
    out = ok ? QByteArray(bytes.data(), int(bytes.size())) : QByteArray();
    return ok;
}

template <class R>
__attribute__((noipa)) bool floorParse(const QByteArray &buffer, typename Floor<R>::Wire &wire)
{
    typename Floor<R>::Message message;
    if (!message.ParseFromArray(buffer.constData(), buffer.size()))
        return false;
    Floor<R>::read(message, wire);
    return true;
}

template <class R>
__attribute__((noipa)) bool floorDecode(const QByteArray &buffer, typename Floor<R>::Wire &wire)
{
    if (buffer.size() < Floor<R>::wireBytes)
        return false;
    std::memcpy(&wire, buffer.constData(), Floor<R>::wireBytes);
    return true;
}

template <class R>
__attribute__((noipa)) void floorEncode(const typename Floor<R>::Wire &wire, QByteArray &out)
{
    if constexpr (Floor<R>::wireBytes > 0)
        out.append(reinterpret_cast<const char *>(&wire), Floor<R>::wireBytes);
}

// --- one row's input, checked: the floor must give what the library gives

template <class R>
struct RowInput
{
    using F = Floor<R>;
    const QDateTime seen = sampleTime();
    const short sequence = 7;
    const Bytra::Can::Message message = sampleMessage(F::id, F::payloadBytes, quint16(sequence));
    R record;
    typename F::Wire wire{};
    QByteArray proto;

    bool agree(benchmark::State &state)
    {
        const char *fault = nullptr;
        QByteArray fromFloor, converted, encoded;
        typename F::Wire parsed{};
        R back;
        QByteArray backEncoded;
        if (!record.fromQByteArray(message.payload) || !floorDecode<R>(message.payload, wire))
            fault = "decode failed";
        else if (record.toQByteArray(encoded), encoded != QByteArray(reinterpret_cast<const char *>(&wire), F::wireBytes))
            fault = "record and packed struct differ";
        else if (!zelko::serializeProto(record, seen, sequence, F::id, proto) ||
                 !floorSerialize<R>(wire, seen, sequence, F::id, fromFloor) || proto != fromFloor)
            fault = "serializeProto and the floor differ";
        else if (!zelko::canMessageToProtobufByteArray(seen, message, converted) || converted != proto)
            fault = "conversion and serializeProto differ";
        else if (!zelko::deserializeProto(proto, back) || !floorParse<R>(proto, parsed) ||
                 (back.toQByteArray(backEncoded),
                  backEncoded != QByteArray(reinterpret_cast<const char *>(&parsed), F::wireBytes)))
            fault = "deserializeProto and the floor parse differ";
        if (fault)
            state.SkipWithError(fault);
        return fault == nullptr;
    }
};

template <class R>
void convert(benchmark::State &state)
{
    RowInput<R> in;
    if (!in.agree(state))
        return;
    QByteArray a, b;
    comparePair(
        state, [&] { benchmark::DoNotOptimize(zelko::canMessageToProtobufByteArray(in.seen, in.message, a)); },
        [&] { benchmark::DoNotOptimize(floorSerialize<R>(in.wire, in.seen, in.sequence, Floor<R>::id, b)); });
}

template <class R>
void serialize(benchmark::State &state)
{
    RowInput<R> in;
    if (!in.agree(state))
        return;
    QByteArray a, b;
    comparePair(
        state, [&] { benchmark::DoNotOptimize(zelko::serializeProto(in.record, in.seen, in.sequence, Floor<R>::id, a)); },
        [&] { benchmark::DoNotOptimize(floorSerialize<R>(in.wire, in.seen, in.sequence, Floor<R>::id, b)); });
}

template <class R>
void deserialize(benchmark::State &state)
{
    RowInput<R> in;
    if (!in.agree(state))
        return;
    R record;
    typename Floor<R>::Wire wire{};
    comparePair(
        state, [&] { benchmark::DoNotOptimize(zelko::deserializeProto(in.proto, record)); },
        [&] { benchmark::DoNotOptimize(floorParse<R>(in.proto, wire)); });
}

template <class R>
void decode(benchmark::State &state)
{
    RowInput<R> in;
    if (!in.agree(state))
        return;
    R record;
    typename Floor<R>::Wire wire{};
    comparePair(
        state, [&] { benchmark::DoNotOptimize(record.fromQByteArray(in.message.payload)); },
        [&] { benchmark::DoNotOptimize(floorDecode<R>(in.message.payload, wire)); });
}

// Into a fresh array each time, as a host encodes a record to send it.
template <class R>
void encode(benchmark::State &state)
{
    RowInput<R> in;
    if (!in.agree(state))
        return;
    comparePair(
        state,
        [&] {
            QByteArray out;
            in.record.toQByteArray(out);
            benchmark::DoNotOptimize(out.constData());
        },
        [&] {
            QByteArray out;
            floorEncode<R>(in.wire, out);
            benchmark::DoNotOptimize(out.constData());
        });
}

void noLog(QtMsgType, const QMessageLogContext &, const QString &) {}

// A union message with its warning line written: the line goes to a handler
// that drops it, so what is measured is the making of the line, not a terminal.
template <class R>
void convertWithWarning(benchmark::State &state)
{
    RowInput<R> in;
    if (!in.agree(state))
        return;
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=true"));
    const QtMessageHandler previous = qInstallMessageHandler(noLog);
    QByteArray a, b;
    comparePair(
        state, [&] { benchmark::DoNotOptimize(zelko::canMessageToProtobufByteArray(in.seen, in.message, a)); },
        [&] { benchmark::DoNotOptimize(floorSerialize<R>(in.wire, in.seen, in.sequence, Floor<R>::id, b)); });
    qInstallMessageHandler(previous);
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
}

// The rows shown one by one in the table run longer than the sweep.
const QSet<QString> &detailRows()
{
    static const QSet<QString> rows{QStringLiteral("Unused"), QStringLiteral("AlarmStatusData"),
                                    QStringLiteral("TdEvent"), QStringLiteral("DdMixingControlData"),
                                    QStringLiteral("DdConcentratePumpData")};
    return rows;
}

double envSeconds(const char *name, double fallback)
{
    const char *text = std::getenv(name);
    return text && *text ? std::atof(text) : fallback;
}

void registerRowBenchmarks()
{
    const double sweep = envSeconds("VORLINK_BENCH_SWEEP_SECONDS", 0.03);
    const double detail = envSeconds("VORLINK_BENCH_DETAIL_SECONDS", 0.3);
    forEachRow([&](auto tag) {
        using R = typename decltype(tag)::type;
        const std::string name = Floor<R>::name;
        const double seconds = detailRows().contains(QString::fromStdString(name)) ? detail : sweep;
        const auto add = [&](const char *op, void (*fn)(benchmark::State &)) {
            benchmark::RegisterBenchmark((std::string(op) + "/" + name).c_str(), fn)->UseManualTime()->MinTime(seconds);
        };
        add("convert", &convert<R>);
        add("serializeProto", &serialize<R>);
        add("deserializeProto", &deserialize<R>);
        add("fromQByteArray", &decode<R>);
        add("toQByteArray", &encode<R>);
    });
    benchmark::RegisterBenchmark("convertWithWarning/TdEvent", &convertWithWarning<zelko::TdEventPayload>)
        ->UseManualTime()
        ->MinTime(detail);
}

} // namespace vorbench
