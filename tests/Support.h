#pragma once

// Shared by the unit tests, the concurrency test and the fuzz targets: every
// row of the dictionary behind plain function pointers, the checks that hold
// for any input to a row (each returns what is wrong, or "" when right), and
// a capture of the Qt log lines with their level and category.

#include "ZelkoMsgDefs.pb.h"
#include "ZelkoMsgProtoUtils.h"
#include "ZelkoMsgRowList.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace rows {

struct Row
{
    quint16 id;
    int wireSize; // bytes the record reads and writes
    // fromQByteArray(input), or deserializeProto(input), into a record first
    // filled from `before`; its toQByteArray appended to `wire`; dump() if asked.
    bool (*decode)(const QByteArray &before, const QByteArray &input, QByteArray &wire, bool dump);
    bool (*fromProto)(const QByteArray &before, const QByteArray &input, QByteArray &wire, bool dump);
};

template <class R, bool Proto>
bool apply(const QByteArray &before, const QByteArray &input, QByteArray &wire, bool dump)
{
    R record;
    if (!before.isEmpty())
        record.fromQByteArray(before);
    const bool ok = Proto ? zelko::deserializeProto(input, record) : record.fromQByteArray(input);
    record.toQByteArray(wire);
    if (dump)
        record.dump();
    return ok;
}

template <class... Rs>
std::vector<Row> make(std::tuple<Rs...> *)
{
    std::vector<Row> table{{quint16(Rs::id), 0, &apply<typename Rs::Payload, false>, &apply<typename Rs::Payload, true>}...};
    for (Row &row : table) {
        QByteArray wire;
        row.decode(QByteArray(), QByteArray(512, 0), wire, false);
        row.wireSize = wire.size();
    }
    return table;
}

// A template, so that only the programs that use the rows instantiate them.
template <class All = zelko::AllRows>
const std::vector<Row> &all()
{
    static const std::vector<Row> table = make(static_cast<All *>(nullptr));
    return table;
}

inline const Row *find(unsigned id)
{
    for (const Row &row : all())
        if (row.id == id)
            return &row;
    return nullptr;
}

// Bytes to fill a record with first, so that "kept" and "cleared" differ.
inline QByteArray before()
{
    QByteArray bytes(512, 0);
    for (int k = 0; k < bytes.size(); ++k)
        bytes[k] = char(0xA5 ^ (k * 13));
    return bytes;
}

// A decode into a filled record: true with the record's bytes when the payload
// holds it, whatever follows; else false, the fields that fit read and the one
// that did not and all behind it kept.
inline std::string checkDecode(const Row &row, const QByteArray &payload)
{
    QByteArray kept, wire;
    row.decode(before(), before(), kept, false);
    const bool ok = row.decode(before(), payload, wire, false);
    if (ok != (payload.size() >= row.wireSize))
        return ok ? "decoded a short payload" : "refused a payload that holds the record";
    if (ok)
        return wire == payload.left(row.wireSize) ? "" : "bytes differ after a decode";
    for (int b = payload.size(); b >= 0 && b > payload.size() - 4; --b)
        if (wire.left(b) == payload.left(b) && wire.mid(b) == kept.mid(b))
            return "";
    return "a failed decode did not keep the fields from the one that failed";
}

inline std::unique_ptr<google::protobuf::Message> parseAs(const std::string &type, const QByteArray &bytes)
{
    const auto *descriptor = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(type);
    std::unique_ptr<google::protobuf::Message> m(
        descriptor ? google::protobuf::MessageFactory::generated_factory()->GetPrototype(descriptor)->New() : nullptr);
    return m && m->ParseFromArray(bytes.constData(), bytes.size()) ? std::move(m) : nullptr;
}

// canMessageToProtobufByteArray: true exactly when the id has a row and the
// payload holds its record, and then `out` is the id's schema message, nothing
// unknown in it, with the Header of the call; else `out` is empty.
inline std::string checkConversion(const Bytra::Can::Message &message, const QDateTime &when, bool ok,
                                   const QByteArray &out)
{
    const Row *row = find(message.msgId);
    const std::string &name = zelko::msgIdToProtoName(message.msgId);
    if ((row == nullptr) != name.empty())
        return "msgIdToProtoName and the dispatch disagree";
    if (ok != (row != nullptr && message.payload.size() >= row->wireSize))
        return ok ? "converted an unknown id or a short payload" : "refused a message that converts";
    if (!ok)
        return out.isEmpty() ? "" : "out not emptied";
    zelko::messages::Envelope envelope;
    const auto typed = parseAs(name, out);
    if (!envelope.ParseFromArray(out.constData(), out.size()) || !typed ||
        !typed->GetReflection()->GetUnknownFields(*typed).empty())
        return "out is not the id's schema message";
    const qint64 ms = when.toMSecsSinceEpoch();
    const auto &header = envelope.header();
    return header.msgid() == message.msgId && header.sequence() == qint16(message.sequence) && header.has_timestamp() &&
                   header.timestamp().seconds() == ms / 1000 && header.timestamp().nanos() == int(ms % 1000) * 1000000
               ? "" : "wrong Header";
}

} // namespace rows

// A log line: level, category, text.
using LogLine = std::tuple<QtMsgType, std::string, std::string>;
inline LogLine debugLine(const std::string &text) { return {QtDebugMsg, "default", text}; }
inline LogLine typesWarning(const std::string &text) { return {QtWarningMsg, "bytra.types", text}; }

// Collects the Qt log lines written while it lives. Not for several threads.
struct LogCapture
{
    static LogCapture *&active()
    {
        static LogCapture *capture = nullptr;
        return capture;
    }
    std::vector<LogLine> lines;
    LogCapture *outer = active();
    QtMessageHandler previous = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &c, const QString &text) {
        active()->lines.emplace_back(type, c.category ? c.category : "", text.toStdString());
    });
    LogCapture() { active() = this; }
    ~LogCapture() { qInstallMessageHandler(previous), active() = outer; }
};

inline QByteArray hex(const char *text) { return QByteArray::fromHex(text); }
inline std::string spaced(const QByteArray &bytes) { return bytes.toHex(' ').toUpper().toStdString(); }
