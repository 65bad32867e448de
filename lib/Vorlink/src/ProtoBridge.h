#pragma once

// The one pattern behind every row of the protobuf bridge and of the CAN
// message conversion. The generated code gives each record its Schema: the
// schema message class and, field by field, the record member with the
// message's getter and setter. Include after ZelkoMsgDefs.pb.h.

#include "RecordCore.h"

#include "Bytra/Can.h"

#include <QByteArray>
#include <QDateTime>
#include <QDebug>
#include <QLoggingCategory>
#include <QString>
#include <QStringBuilder>
#include <QtGlobal>

#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <cstddef>
#include <limits>
#include <string>
#include <tuple>
#include <type_traits>
#include <unordered_map>

namespace zelko {
namespace detail {

// One wire field as the schema message holds it: the record member and the
// message's getter and setter, carried in the type so that every copy is a
// direct call the compiler can inline. The record-to-schema and
// schema-to-record rules are plain conversions between the two value types:
// zero- or sign-extension one way and the low bits back, `!= 0` into a bool
// and 0 or 1 out of it, and a float's bits unchanged.
template <auto Member, auto Get, auto Set>
struct BridgeField
{
};

template <auto Member, auto Get, auto Set>
constexpr BridgeField<Member, Get, Set> bridge()
{
    return {};
}

template <class Record, class Message, auto Member, auto Get, auto Set>
Q_ALWAYS_INLINE void toSchema(const Record &record, Message &message, BridgeField<Member, Get, Set>)
{
    using Proto = std::decay_t<decltype((message.*Get)())>;
    (message.*Set)(static_cast<Proto>((record.*Member).value));
}

template <class Record, class Message, auto Member, auto Get, auto Set>
Q_ALWAYS_INLINE void fromSchema(const Message &message, Record &record, BridgeField<Member, Get, Set>)
{
    auto &value = (record.*Member).value;
    value = static_cast<std::remove_reference_t<decltype(value)>>((message.*Get)());
}

template <class Record, class Message, class... Fields>
Q_ALWAYS_INLINE void copyToSchema(const Record &record, Message &message, std::tuple<Fields...>)
{
    (toSchema(record, message, Fields{}), ...);
}

template <class Record, class Message, class... Fields>
Q_ALWAYS_INLINE void copyFromSchema(const Message &message, Record &record, std::tuple<Fields...>)
{
    (fromSchema(message, record, Fields{}), ...);
}

// Specialised once per record by the generated code: `Message`, `fields`,
// and `unionName`, the message's name when its schema holds oneof groups
// the record does not carry, else nullptr.
template <class Record>
struct Schema;

// The schema message of one call, its Header and the Header's Timestamp side
// by side in one object: the message points at its parts instead of owning
// copies on the heap, and lets go of them before they end. Parsing merges
// into the parts in place, so it must not start with a Clear(), which would
// delete them.
template <class Message>
class LocalMessage
{
public:
    LocalMessage()
    {
        header_.unsafe_arena_set_allocated_timestamp(&time_);
        message_.unsafe_arena_set_allocated_header(&header_);
    }

    ~LocalMessage()
    {
        message_.unsafe_arena_release_header();
        header_.unsafe_arena_release_timestamp();
    }

    LocalMessage(const LocalMessage &) = delete;
    LocalMessage &operator=(const LocalMessage &) = delete;

    Message &get() { return message_; }

    void stamp(const QDateTime &timestamp, short sequence, unsigned short msgId)
    {
        const qint64 ms = timestamp.toMSecsSinceEpoch();
        time_.set_seconds(ms / 1000);
        time_.set_nanos(int(ms % 1000) * 1000000);
        header_.set_sequence(sequence);
        header_.set_msgid(msgId);
    }

    // ParseFromArray without its Clear(): the message is fresh.
    bool parse(const QByteArray &buffer)
    {
        google::protobuf::io::ArrayInputStream input(buffer.constData(), buffer.size());
        return message_.MergeFromBoundedZeroCopyStream(&input, buffer.size());
    }

private:
    google::protobuf::Timestamp time_;
    messages::Header header_;
    Message message_;
};

// Writes the message's bytes straight into `out`, whose own buffer is reused
// when it is not shared and large enough.
template <class Message>
bool serializeInto(const Message &message, QByteArray &out)
{
    const std::size_t size = message.ByteSizeLong();
    if (size > std::size_t(std::numeric_limits<int>::max())) {
        out = QByteArray();
        return false;
    }
    out.resize(int(size));
    message.SerializeWithCachedSizesToArray(reinterpret_cast<quint8 *>(out.data()));
    return true;
}

// qDebug() drops a line when the default category has debug output off, but
// only after the line is made. These lines are written on every call of a
// union message, so the category is asked first and the text made only when
// it is written.
inline bool defaultDebugEnabled()
{
    const QLoggingCategory *category = QLoggingCategory::defaultCategory();
    return category == nullptr || category->isDebugEnabled();
}

// The line goes out as qDebug().noquote() writes it, with the same context,
// but is made in one allocation and without the stream qDebug() builds.
inline void warnPartial(const char *messageName, const char *direction)
{
    if (!defaultDebugEnabled())
        return;
    const QString line = QLatin1String("WARNING: MsgId=") % QLatin1String(messageName) %
                         QLatin1String(" contains union/oneof field(s); protobuf ") % QLatin1String(direction) %
                         QLatin1String(" is partial");
    const QMessageLogContext context(QT_MESSAGELOG_FILE, QT_MESSAGELOG_LINE, QT_MESSAGELOG_FUNC, "default");
    qt_message_output(QtDebugMsg, context, line);
}

template <class Record>
bool serializeRecord(const Record &record, const QDateTime &timestamp, short sequence, unsigned short msgId,
                     QByteArray &out)
{
    using S = Schema<Record>;
    if constexpr (S::unionName != nullptr)
        warnPartial(S::unionName, "serialization");
    LocalMessage<typename S::Message> message;
    message.stamp(timestamp, sequence, msgId);
    copyToSchema(record, message.get(), S::fields);
    return serializeInto(message.get(), out);
}

template <class Record>
bool deserializeRecord(const QByteArray &buffer, Record &record)
{
    using S = Schema<Record>;
    if constexpr (S::unionName != nullptr)
        warnPartial(S::unionName, "deserialization");
    LocalMessage<typename S::Message> message;
    if (!message.parse(buffer))
        return false;
    copyFromSchema(message.get(), record, S::fields);
    return true;
}

// One case of canMessageToProtobufByteArray.
template <class Record>
bool convertMessage(const QDateTime &timestamp, const Bytra::Can::Message &message, QByteArray &out)
{
    Record record;
    if (!decodeRecord(record, message.payload)) {
        out = QByteArray();
        return false;
    }
    return serializeRecord(record, timestamp, short(message.sequence), message.msgId, out);
}

inline bool rejectUnknownId(const Bytra::Can::Message &message, QByteArray &out)
{
    if (defaultDebugEnabled())
        qDebug().noquote() << QStringLiteral("WARNING: MsgId=0x%1 not handled").arg(qulonglong(message.msgId), 4, 16, QLatin1Char('0'));
    out = QByteArray();
    return false;
}

// msgIdToProtoName's table: built on first use, read-only after, and handing
// out references that live as long as the library.
class ProtoNameTable
{
public:
    struct Entry
    {
        unsigned short msgId;
        const char *name;
    };

    template <std::size_t N>
    explicit ProtoNameTable(const Entry (&entries)[N])
    {
        names_.reserve(N);
        for (const Entry &e : entries)
            names_.emplace(e.msgId, std::string(e.name));
    }

    const std::string &find(unsigned short msgId) const
    {
        const auto it = names_.find(msgId);
        return it == names_.end() ? none_ : it->second;
    }

private:
    // A hash of the library's own keeps the map's template code hidden with
    // the rest of the library; std::hash would make it an exported symbol.
    struct IdHash
    {
        std::size_t operator()(unsigned short msgId) const { return msgId; }
    };

    std::unordered_map<unsigned short, std::string, IdHash> names_;
    const std::string none_;
};

} // namespace detail
} // namespace zelko
