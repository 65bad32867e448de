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
#include <QtGlobal>

#include <cstddef>
#include <cstring>
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

template <class Record>
constexpr std::size_t fieldCount()
{
    return std::tuple_size_v<std::remove_cv_t<decltype(Layout<Record>::fields)>>;
}

// Where field I starts in the record's wire image: the widths of the fields
// before it.
template <class Record, std::size_t... J>
constexpr int wireOffsetOf(std::size_t index, std::index_sequence<J...>)
{
    return (0 + ... + (J < index ? widthOf(std::get<J>(Layout<Record>::fields)) : 0));
}

template <class Record, std::size_t I>
constexpr int wireOffset()
{
    return wireOffsetOf<Record>(I, std::make_index_sequence<fieldCount<Record>()>());
}

// A wire value holds its bytes in bus order (Bytra::Types lays the value over
// them), so a record's fields copy to and from the wire image as plain bytes.
// The bus is little-endian, and a wire value's `value` is only its bus value
// on a host that is too.
static_assert(Q_BYTE_ORDER == Q_LITTLE_ENDIAN, "wire values overlay their bytes in the bus's little-endian order");

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

// A buffer too short for the record: the fields are read one by one until the
// first that does not fit, whose getValue call writes the warning.
template <class Record>
Q_NEVER_INLINE bool readShort(Record &record, const QByteArray &buffer)
{
    return readFields(record, buffer, std::make_index_sequence<fieldCount<Record>()>());
}

// Field by field between the record and its wire image, each a copy of
// constant size at a constant place: the compiler merges neighbours into wide
// moves.
template <class Record, std::size_t... I>
Q_ALWAYS_INLINE void copyFromWire(Record &record, const char *image, std::index_sequence<I...>)
{
    constexpr const auto &fields = Layout<Record>::fields;
    (std::memcpy((record.*(std::get<I>(fields).member)).bytes, image + wireOffset<Record, I>(),
                 sizeof((record.*(std::get<I>(fields).member)).bytes)),
     ...);
}

template <class Record, std::size_t... I>
Q_ALWAYS_INLINE void copyToWire(const Record &record, char *image, std::index_sequence<I...>)
{
    constexpr const auto &fields = Layout<Record>::fields;
    (std::memcpy(image + wireOffset<Record, I>(), (record.*(std::get<I>(fields).member)).bytes,
                 sizeof((record.*(std::get<I>(fields).member)).bytes)),
     ...);
}

template <class Record>
bool decodeRecord(Record &record, const QByteArray &buffer)
{
    if constexpr (fieldCount<Record>() == 0) {
        return true;
    } else {
        // Union records read fewer bytes than their payload carries: what
        // matters is the bytes of their own fields.
        if (Q_UNLIKELY(buffer.size() < wireSize<Record>()))
            return readShort(record, buffer);
        // The buffer holds the whole record: every field is read, none can
        // fail, nothing is logged. The wire image is first taken whole into a
        // local copy: a store into the record could, for all the compiler
        // knows, change the buffer, which would keep it from merging the
        // field copies. (Building a local record instead and storing it whole
        // reads the record back wider than it was written, which stalls.)
        char image[wireSize<Record>()];
        std::memcpy(image, buffer.constData(), sizeof image);
        copyFromWire(record, image, std::make_index_sequence<fieldCount<Record>()>());
        return true;
    }
}

// Appends the record's wire image in one call, which grows `out` at most once.
template <class Record>
void encodeRecord(const Record &record, QByteArray &out)
{
    constexpr int size = wireSize<Record>();
    if constexpr (size > 0) {
        char image[size];
        copyToWire(record, image, std::make_index_sequence<fieldCount<Record>()>());
        out.append(image, size);
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
