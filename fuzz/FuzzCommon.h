#pragma once

// Shared by the fuzz targets: a silent log, a little-endian input reader and
// per-row operation tables built from zelko::AllRows, so a target reaches the
// row chosen by its input without any code written per message.

#include "ZelkoMsgDefs.h"
#include "ZelkoMsgRowList.h"

#include <QByteArray>
#include <QLoggingCategory>
#include <QtGlobal>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <tuple>
#include <vector>

namespace fuzz {

// The library logs bad input by design (unknown ids, short payloads, union
// warnings, dumps). The lines are still made, whatever the machine's logging
// configuration, so their formatting is fuzzed too; only the output is dropped.
inline void silentHandler(QtMsgType, const QMessageLogContext &, const QString &) {}

inline QLoggingCategory::CategoryFilter &previousFilter()
{
    static QLoggingCategory::CategoryFilter filter = nullptr;
    return filter;
}

inline void libraryLogOn(QLoggingCategory *category)
{
    if (previousFilter())
        previousFilter()(category);
    if (qstrcmp(category->categoryName(), "default") == 0 || qstrcmp(category->categoryName(), "bytra.types") == 0) {
        category->setEnabled(QtDebugMsg, true);
        category->setEnabled(QtWarningMsg, true);
    }
}

inline void enableLibraryLog() { previousFilter() = QLoggingCategory::installFilter(libraryLogOn); }

inline void silenceLog()
{
    enableLibraryLog();
    qInstallMessageHandler(silentHandler);
}

// A broken expectation: print it and abort, which libFuzzer records as a crash
// with the input that caused it.
[[noreturn]] inline void fail(const char *what, unsigned id)
{
    std::fprintf(stderr, "expectation failed for id 0x%04x: %s\n", id, what);
    std::abort();
}
#define FUZZ_EXPECT(cond, id)                                                                                  \
    do {                                                                                                       \
        if (!(cond))                                                                                           \
            ::fuzz::fail(#cond, unsigned(id));                                                                 \
    } while (0)

// Reads little-endian integers off the front of the input; past its end it
// gives zeros, so every input is usable.
class Reader
{
public:
    Reader(const std::uint8_t *data, std::size_t size) : data_(data), size_(size) {}

    template <class T>
    T take()
    {
        std::uint64_t v = 0;
        for (std::size_t k = 0; k < sizeof(T); ++k, ++pos_)
            if (pos_ < size_)
                v |= std::uint64_t(data_[pos_]) << (8 * k);
        return T(v);
    }

    QByteArray rest() const
    {
        return pos_ < size_ ? QByteArray(reinterpret_cast<const char *>(data_ + pos_), int(size_ - pos_))
                            : QByteArray();
    }

private:
    const std::uint8_t *data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

// Bytes the record reads and writes (for the union messages less than the
// payload size).
template <class Record>
int wireSizeOf()
{
    QByteArray bytes;
    Record().toQByteArray(bytes);
    return bytes.size();
}

// One entry per row: its id, its record's wire size, and Op<Record>::run.
template <class Fn>
struct RowEntry
{
    quint16 id;
    int wireSize;
    Fn run;
};

template <template <class> class Op, class First, class... Rows>
auto makeRowTable(std::tuple<First, Rows...> *)
{
    using Fn = decltype(&Op<typename First::Payload>::run);
    return std::array<RowEntry<Fn>, 1 + sizeof...(Rows)>{{
        {quint16(First::id), wireSizeOf<typename First::Payload>(), &Op<typename First::Payload>::run},
        {quint16(Rows::id), wireSizeOf<typename Rows::Payload>(), &Op<typename Rows::Payload>::run}...}};
}

template <template <class> class Op>
const auto &rowTable()
{
    static const auto table = makeRowTable<Op>(static_cast<zelko::AllRows *>(nullptr));
    return table;
}

// Index into rowTable<Op>() by id, -1 for an id of no row.
template <template <class> class Op>
const std::vector<int> &rowIndexById()
{
    static const std::vector<int> index = [] {
        std::vector<int> v(0x10000, -1);
        const auto &table = rowTable<Op>();
        for (std::size_t i = 0; i < table.size(); ++i)
            v[table[i].id] = int(i);
        return v;
    }();
    return index;
}

// A record filled from a fixed byte pattern, so that "left as it was" can be
// told apart from "cleared".
inline const QByteArray &prefillPattern()
{
    static const QByteArray pattern = [] {
        QByteArray p(512, '\0');
        for (int k = 0; k < p.size(); ++k)
            p[k] = char(0xA5 ^ (k * 13));
        return p;
    }();
    return pattern;
}

} // namespace fuzz
