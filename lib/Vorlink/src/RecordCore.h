#pragma once

// The one pattern behind every payload record: decode, encode and dump walk
// the record's field list, which the generated code gives as a Layout.

#include "Bytra/Log.h"
#include "Bytra/Types.h"

#include <QByteArray>
#include <QDebug>
#include <QLatin1String>
#include <QString>
#include <QStringList>

#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

namespace zelko {
namespace detail {

// One wire field of a record: where it lives in the record, and its name.
template <class Record, class Wire>
struct Field
{
    Wire Record::*member;
    QLatin1String name;
};

template <class Record, class Wire, std::size_t N>
constexpr Field<Record, Wire> field(Wire Record::*member, const char (&name)[N])
{
    return {member, QLatin1String(name, int(N - 1))};
}

// Specialised once per record by the generated code: `name` is the class
// name and `fields` the wire fields in wire order.
template <class Record>
struct Layout;

template <class Record, class Wire>
constexpr int widthOf(const Field<Record, Wire> &)
{
    return int(sizeof(Wire::bytes));
}

// Bytes the record reads and writes: its fields back to back, no padding.
template <class Record>
constexpr int wireSize()
{
    return std::apply([](const auto &...f) { return (0 + ... + widthOf(f)); }, Layout<Record>::fields);
}

// The field name goes to getValue by value, and getValue only prints it when
// the value does not fit and the category lets the warning through; only then
// is it made into a QString.
template <class Wire>
Q_ALWAYS_INLINE bool readField(const QByteArray &buffer, int &position, Wire &out, QLatin1String name)
{
    constexpr int width = int(sizeof(out.bytes));
    const bool printed = position > buffer.size() - width && Bytra::logTypes().isWarningEnabled();
    return Bytra::Types::getValue(buffer, position, out, printed ? QString(name) : QString());
}

template <class Record, std::size_t... I>
Q_ALWAYS_INLINE bool readFields(Record &record, const QByteArray &buffer, std::index_sequence<I...>)
{
    constexpr const auto &fields = Layout<Record>::fields;
    int position = 0;
    return (true && ... &&
            readField(buffer, position, record.*(std::get<I>(fields).member), std::get<I>(fields).name));
}

// A buffer that holds the whole record: every getValue call succeeds, so none
// needs the field's name and none can stop the decode early.
template <class Record, std::size_t... I>
Q_ALWAYS_INLINE void readAllFields(Record &record, const QByteArray &buffer, std::index_sequence<I...>)
{
    constexpr const auto &fields = Layout<Record>::fields;
    int position = 0;
    (Bytra::Types::getValue(buffer, position, record.*(std::get<I>(fields).member), QString()), ...);
}

template <class Record>
constexpr std::size_t fieldCount()
{
    return std::tuple_size_v<std::remove_cv_t<decltype(Layout<Record>::fields)>>;
}

// A buffer too short for the record: the fields are read one by one until the
// first that does not fit, whose getValue call writes the warning.
template <class Record>
Q_NEVER_INLINE bool readShort(Record &record, const QByteArray &buffer)
{
    return readFields(record, buffer, std::make_index_sequence<fieldCount<Record>()>());
}

template <class Record>
bool decodeRecord(Record &record, const QByteArray &buffer)
{
    if constexpr (fieldCount<Record>() == 0) {
        return true;
    } else {
        if (Q_UNLIKELY(buffer.size() < wireSize<Record>()))
            return readShort(record, buffer);
        // Every field is read, into a local record that is then stored whole: a
        // store into the caller's record could, for all the compiler knows,
        // change the buffer, which would make it reload the buffer and recheck
        // every copy for overlap.
        Record local;
        readAllFields(local, buffer, std::make_index_sequence<fieldCount<Record>()>());
        record = local;
        return true;
    }
}

template <class Wire>
inline void appendBytes(QByteArray &out, const Wire &value)
{
    for (const quint8 byte : value.bytes)
        out.append(char(byte));
}

template <class Record>
void encodeRecord(const Record &record, QByteArray &out)
{
    constexpr int size = wireSize<Record>();
    if constexpr (size > 0) {
        out.reserve(out.size() + size);
        std::apply([&](const auto &...f) { (appendBytes(out, record.*f.member), ...); }, Layout<Record>::fields);
    }
}

// How each wire type prints in a dump line.
inline QString dumpValue(QString text, Bytra::Types::U08 v) { return text.arg(qlonglong(v.value)); }
inline QString dumpValue(QString text, Bytra::Types::U16 v) { return text.arg(qulonglong(v.value)); }
inline QString dumpValue(QString text, Bytra::Types::U32 v) { return text.arg(qulonglong(v.value)); }
inline QString dumpValue(QString text, Bytra::Types::S16 v) { return text.arg(qlonglong(v.value)); }
inline QString dumpValue(QString text, Bytra::Types::S32 v) { return text.arg(qlonglong(v.value)); }
inline QString dumpValue(QString text, Bytra::Types::F32 v) { return text.arg(double(v.value), 0, 'g', -1); }

template <class Record>
void dumpRecord(const Record &record)
{
    QStringList parts;
    std::apply(
        [&](const auto &...f) {
            parts.reserve(int(sizeof...(f)));
            (parts.append(dumpValue(QString(f.name) + QLatin1String("=%1"), record.*f.member)), ...);
        },
        Layout<Record>::fields);
    const QString line = (QString(QLatin1String(Layout<Record>::name)) + QLatin1String(": %1"))
                             .arg(parts.isEmpty() ? QStringLiteral("<none>") : parts.join(QLatin1String(", ")));
    qDebug().noquote() << line;
}

} // namespace detail
} // namespace zelko
