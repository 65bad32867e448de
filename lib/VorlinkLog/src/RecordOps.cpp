#include "RecordOps.h"

#include "ZelkoMsgDefs.h"
#include "ZelkoMsgProtoUtils.h"
#include "ZelkoMsgRowList.h"

#include <array>
#include <new>
#include <tuple>
#include <type_traits>

namespace vorlink {
namespace {

constexpr std::size_t alignUp(std::size_t n, std::size_t a) { return (n + a - 1) / a * a; }

// A record class holds its fields in wire order as members of the six wire
// value types, each as wide as its value and aligned to its width: the
// places of a plain struct with those members.
struct Shape
{
    std::size_t size = 1;   // an empty class still takes a byte
    std::size_t align = 1;
};

constexpr Shape shapeOf(const WireRowEntry &row)
{
    Shape shape;
    std::size_t end = 0;
    for (std::size_t k = row.firstField; k < std::size_t(row.firstField) + row.fieldCount; ++k) {
        const std::size_t width = wireFields[k].width;
        end = alignUp(end, width) + width;
        shape.align = width > shape.align ? width : shape.align;
    }
    if (row.fieldCount > 0)
        shape.size = alignUp(end, shape.align);
    return shape;
}

constexpr std::array<std::uint16_t, fieldTotal> offsets = [] {
    std::array<std::uint16_t, fieldTotal> result{};
    for (const WireRowEntry &row : wireRows) {
        std::size_t end = 0;
        for (std::size_t k = row.firstField; k < std::size_t(row.firstField) + row.fieldCount; ++k) {
            const std::size_t width = wireFields[k].width;
            end = alignUp(end, width);
            result[k] = std::uint16_t(end);
            end += width;
        }
    }
    return result;
}();

constexpr std::size_t indexOfId(std::uint16_t id)
{
    std::size_t low = 0, high = wireRowCount;
    while (low < high) {
        const std::size_t mid = (low + high) / 2;
        if (wireRows[mid].id < id)
            low = mid + 1;
        else
            high = mid;
    }
    return low;
}

template <class Record>
void make(void *storage)
{
    new (storage) Record();
}

template <class Record>
bool fromWire(const QByteArray &payload, void *storage)
{
    return (new (storage) Record())->fromQByteArray(payload);
}

template <class Record>
void toWire(const void *storage, QByteArray &out)
{
    static_cast<const Record *>(storage)->toQByteArray(out);
}

template <class Record>
void dump(const void *storage)
{
    static_cast<const Record *>(storage)->dump();
}

template <class Record>
bool fromProto(const QByteArray &bytes, void *storage)
{
    return zelko::deserializeProto(bytes, *new (storage) Record());
}

template <class Row>
constexpr RecordOps opsOf()
{
    using Record = typename Row::Payload;
    constexpr std::size_t index = indexOfId(quint16(Row::id));
    static_assert(index < wireRowCount && wireRows[index].id == quint16(Row::id), "the wire table has every row");
    static_assert(std::is_standard_layout_v<Record> && std::is_trivially_copyable_v<Record>,
                  "a record is a plain struct of wire values");
    static_assert(sizeof(Record) == shapeOf(wireRows[index]).size && alignof(Record) == shapeOf(wireRows[index]).align,
                  "the record's fields sit where the wire table's types put them");
    static_assert(sizeof(Record) <= sizeof(RecordStorage), "RecordStorage holds every record");
    return {&make<Record>, &fromWire<Record>, &toWire<Record>, &dump<Record>, &fromProto<Record>};
}

template <class... Rows>
constexpr std::array<RecordOps, sizeof...(Rows)> opsOfAll(std::tuple<Rows...> *)
{
    return {opsOf<Rows>()...};
}

constexpr auto ops = opsOfAll(static_cast<zelko::AllRows *>(nullptr));
static_assert(ops.size() == wireRowCount, "one row of the wire table per record class");

} // namespace

const RecordOps &recordOps(std::size_t row) { return ops[row]; }

std::size_t recordOffset(std::size_t field) { return offsets[field]; }

int rowOfId(std::uint16_t id)
{
    const std::size_t index = indexOfId(id);
    return index < wireRowCount && wireRows[index].id == id ? int(index) : -1;
}

} // namespace vorlink
