// vorlink_messages.h, compiled as C99 in VorlinkFirmwareRows.c, against the
// host library's records, row by row: the same ids, sizes and field names;
// random values packed give the bytes toQByteArray gives; random bytes
// unpacked give the values fromQByteArray gives; a short buffer is refused by
// both, and the C side then writes nothing.

#include "FirmwareRows.h"
#include "ZelkoMsgLayouts.h"
#include "ZelkoMsgRowList.h"
#include "ZelkoMsgWireTable.h"

#include <gtest/gtest.h>

#include <QtGlobal>

#include <cstring>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// A library record: its names and layout from the wire table, its
// toQByteArray and fromQByteArray behind plain function pointers.
struct LibraryRow
{
    const vorlink::WireRowEntry *entry;
    QByteArray (*encode)(const fw_value *values);
    // fromQByteArray(bytes) on a record filled from `values`, which then get its fields
    bool (*decode)(const QByteArray &bytes, fw_value *values);
    const char *name() const { return entry->message; }
    int wireSize() const { return entry->wireSize; }
    std::size_t fieldCount() const { return entry->fieldCount; }
    const vorlink::WireFieldEntry &field(std::size_t k) const { return vorlink::wireFields[entry->firstField + k]; }
};

void put(Bytra::Types::U08 &w, const fw_value &v) { w.value = v.U08; }
void put(Bytra::Types::U16 &w, const fw_value &v) { w.value = v.U16; }
void put(Bytra::Types::U32 &w, const fw_value &v) { w.value = v.U32; }
void put(Bytra::Types::S16 &w, const fw_value &v) { w.value = v.S16; }
void put(Bytra::Types::S32 &w, const fw_value &v) { w.value = v.S32; }
void put(Bytra::Types::F32 &w, const fw_value &v) { w.value = v.F32; }
void get(const Bytra::Types::U08 &w, fw_value &v) { v.U08 = w.value; }
void get(const Bytra::Types::U16 &w, fw_value &v) { v.U16 = w.value; }
void get(const Bytra::Types::U32 &w, fw_value &v) { v.U32 = w.value; }
void get(const Bytra::Types::S16 &w, fw_value &v) { v.S16 = w.value; }
void get(const Bytra::Types::S32 &w, fw_value &v) { v.S32 = w.value; }
void get(const Bytra::Types::F32 &w, fw_value &v) { v.F32 = w.value; }

template <class Record, std::size_t... I>
void fill(Record &record, const fw_value *values, std::index_sequence<I...>)
{
    (put(record.*(std::get<I>(zelko::detail::Layout<Record>::fields).member), values[I]), ...);
}

template <class Record, std::size_t... I>
void read(const Record &record, fw_value *values, std::index_sequence<I...>)
{
    (get(record.*(std::get<I>(zelko::detail::Layout<Record>::fields).member), values[I]), ...);
}

template <class Record>
QByteArray encode(const fw_value *values)
{
    Record record;
    fill(record, values, std::make_index_sequence<zelko::detail::fieldCount<Record>()>());
    QByteArray out;
    record.toQByteArray(out);
    return out;
}

template <class Record>
bool decode(const QByteArray &bytes, fw_value *values)
{
    Record record;
    fill(record, values, std::make_index_sequence<zelko::detail::fieldCount<Record>()>());
    const bool ok = record.fromQByteArray(bytes);
    read(record, values, std::make_index_sequence<zelko::detail::fieldCount<Record>()>());
    return ok;
}

template <class... Rs>
std::vector<LibraryRow> make(std::tuple<Rs...> *)
{
    std::vector<LibraryRow> rows{{nullptr, &encode<typename Rs::Payload>, &decode<typename Rs::Payload>}...};
    const std::vector<quint16> ids{quint16(Rs::id)...};
    for (std::size_t k = 0; k < rows.size(); ++k) {
        if (k >= vorlink::wireRowCount || vorlink::wireRows[k].id != ids[k])
            throw std::logic_error("the wire table and the library's rows differ at row " + std::to_string(k));
        rows[k].entry = &vorlink::wireRows[k];
    }
    return rows;
}

const std::vector<LibraryRow> &libraryRows()
{
    static const std::vector<LibraryRow> rows = make(static_cast<zelko::AllRows *>(nullptr));
    return rows;
}

// The C rows paired with the library's, in ascending id both.
std::vector<std::pair<const fw_row *, const LibraryRow *>> pairs()
{
    std::vector<std::pair<const fw_row *, const LibraryRow *>> out;
    for (std::size_t k = 0; k < fw_row_count && k < libraryRows().size(); ++k)
        out.emplace_back(&fw_rows[k], &libraryRows()[k]);
    return out;
}

// Equal bits in each field's width: a float NaN compares as its pattern.
bool sameValues(const std::vector<fw_value> &a, const std::vector<fw_value> &b, const LibraryRow &row)
{
    for (std::size_t k = 0; k < row.fieldCount(); ++k)
        if (std::memcmp(&a[k], &b[k], std::size_t(row.field(k).width)) != 0)
            return false;
    return true;
}

std::vector<fw_value> randomValues(std::mt19937 &random, std::size_t count)
{
    std::vector<fw_value> values(count);
    for (auto &v : values) {
        std::memset(&v, 0, sizeof v);
        v.U32 = std::uint32_t(random());
    }
    return values;
}

QByteArray randomBytes(std::mt19937 &random, int size)
{
    QByteArray bytes(size, 0);
    for (auto &b : bytes)
        b = char(random());
    return bytes;
}

constexpr int trials = 12;
constexpr unsigned char sentinel = 0xA5;

// The library's short-buffer warnings are its own business here.
struct QuietLog
{
    QtMessageHandler previous = qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    ~QuietLog() { qInstallMessageHandler(previous); }
};

} // namespace

TEST(FirmwareHeader, EveryRowHasTheLibrarysIdSizeAndFields)
{
    ASSERT_EQ(fw_row_count, libraryRows().size());
    for (const auto &[c, lib] : pairs()) {
        SCOPED_TRACE(lib->name());
        EXPECT_EQ(c->id, lib->entry->id);
        EXPECT_EQ((long long)c->size, zelko::payloadSize.value(zelko::MsgId(lib->entry->id), -1));
        ASSERT_EQ(c->field_count, lib->fieldCount());
        EXPECT_EQ(c->pack == nullptr, (lib->fieldCount() == 0));
        EXPECT_EQ(c->unpack == nullptr, (lib->fieldCount() == 0));
        for (std::size_t k = 0; k < c->field_count; ++k) {
            EXPECT_STREQ(c->fields[k].name, lib->field(k).name);
            EXPECT_EQ(c->fields[k].size, std::size_t(lib->field(k).width)) << lib->field(k).name;
            if (k > 0) {
                EXPECT_GT(c->fields[k].offset, c->fields[k - 1].offset) << "struct members out of wire order";
            }
        }
    }
}

TEST(FirmwareHeader, PackGivesTheBytesOfToQByteArray)
{
    std::mt19937 random(31);
    for (const auto &[c, lib] : pairs()) {
        if (c->pack == nullptr)
            continue;
        SCOPED_TRACE(lib->name());
        for (int t = 0; t < trials; ++t) {
            const auto values = randomValues(random, lib->fieldCount());
            const QByteArray expected = lib->encode(values.data());
            ASSERT_EQ(expected.size(), lib->wireSize());
            const int room = lib->wireSize() + (t % 4); // exactly the record's size, and more
            std::vector<std::uint8_t> out(std::size_t(room) + 4, sentinel);
            ASSERT_EQ(c->pack(out.data(), std::size_t(room), values.data()), lib->wireSize());
            EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(out.data()), lib->wireSize()).toHex(), expected.toHex());
            for (std::size_t k = std::size_t(lib->wireSize()); k < out.size(); ++k)
                ASSERT_EQ(out[k], sentinel) << "written behind the record at " << k;
        }
    }
}

TEST(FirmwareHeader, UnpackGivesTheValuesOfFromQByteArray)
{
    std::mt19937 random(1031);
    for (const auto &[c, lib] : pairs()) {
        if (c->unpack == nullptr)
            continue;
        SCOPED_TRACE(lib->name());
        for (int t = 0; t < trials; ++t) {
            const QByteArray bytes = randomBytes(random, lib->wireSize() + (t % 4)); // left-overs are ignored
            auto fromC = randomValues(random, lib->fieldCount());
            auto fromLibrary = randomValues(random, lib->fieldCount());
            ASSERT_EQ(c->unpack(fromC.data(), reinterpret_cast<const std::uint8_t *>(bytes.constData()),
                                std::size_t(bytes.size())),
                      0);
            ASSERT_TRUE(lib->decode(bytes, fromLibrary.data()));
            EXPECT_TRUE(sameValues(fromC, fromLibrary, *lib)) << bytes.toHex().constData();
        }
    }
}

TEST(FirmwareHeader, AShortBufferIsRefusedByBothAndNothingIsWritten)
{
    QuietLog quiet;
    std::mt19937 random(7);
    for (const auto &[c, lib] : pairs()) {
        if (c->pack == nullptr)
            continue;
        SCOPED_TRACE(lib->name());
        for (int size = 0; size < lib->wireSize(); ++size) {
            const auto values = randomValues(random, lib->fieldCount());
            std::vector<std::uint8_t> out(std::size_t(lib->wireSize()) + 4, sentinel);
            ASSERT_EQ(c->pack(out.data(), std::size_t(size), values.data()), -1) << "room for " << size;
            for (std::size_t k = 0; k < out.size(); ++k)
                ASSERT_EQ(out[k], sentinel) << "a refused pack wrote byte " << k;

            const QByteArray bytes = randomBytes(random, size);
            auto kept = values;
            ASSERT_EQ(c->unpack(kept.data(), reinterpret_cast<const std::uint8_t *>(bytes.constData()),
                                std::size_t(size)),
                      -1)
                << size << " bytes";
            EXPECT_TRUE(sameValues(kept, values, *lib)) << "a refused unpack wrote the record, " << size << " bytes";
            auto scratch = values;
            EXPECT_FALSE(lib->decode(bytes, scratch.data())) << size << " bytes";
        }
    }
}

TEST(FirmwareHeader, TheTableAndTheLookupByIdHoldEveryMessageAndNothingElse)
{
    std::map<quint16, std::size_t> byId;
    for (std::size_t k = 0; k < libraryRows().size(); ++k)
        byId[libraryRows()[k].entry->id] = k;
    ASSERT_EQ(fw_message_count(), libraryRows().size());
    for (long id = 0; id <= 0xFFFF; ++id) {
        const long found = fw_lookup(quint16(id));
        const auto known = byId.find(quint16(id));
        if (known == byId.end()) {
            EXPECT_EQ(found, -1) << id;
            continue;
        }
        ASSERT_EQ(found, long(known->second)) << id; // the table is in ascending id, as the library's rows
        const fw_info info = fw_table_entry(known->second);
        const LibraryRow &lib = libraryRows()[known->second];
        EXPECT_EQ(info.id, lib.entry->id);
        EXPECT_STREQ(info.name, lib.name());
        EXPECT_EQ((long long)info.size, zelko::payloadSize.value(zelko::MsgId(id), -1)) << lib.name();
        EXPECT_EQ(info.wire_size, (unsigned long)lib.wireSize()) << lib.name();
    }
}
