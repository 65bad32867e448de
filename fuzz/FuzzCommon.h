#pragma once

// Shared by the fuzz targets: the library's log lines made and dropped, an
// input reader, and a broken expectation reported as a crash, which libFuzzer
// records with the input that caused it. The checks themselves are the unit
// tests' (tests/Support.h).

#include "Support.h"

#include <QLoggingCategory>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace fuzz {

// The lines are made whatever the machine's logging rules say, so that their
// formatting is fuzzed too; only the output is dropped.
inline int silenceLog()
{
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=true\nbytra.types.warning=true"));
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    return 0;
}

[[noreturn]] inline void fail(const std::string &what, unsigned id)
{
    std::fprintf(stderr, "expectation failed for id 0x%04x: %s\n", id, what.c_str());
    std::abort();
}
// A check of tests/Support.h that says something wrong, or a condition that does not hold.
#define FUZZ_CHECK(check, id) do { if (const std::string what_ = (check); !what_.empty()) ::fuzz::fail(what_, id); } while (0)
#define FUZZ_EXPECT(cond, id) FUZZ_CHECK((cond) ? "" : #cond, id)

// Little-endian integers off the front of the input, zeros past its end.
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
        return pos_ < size_ ? QByteArray(reinterpret_cast<const char *>(data_ + pos_), int(size_ - pos_)) : QByteArray();
    }

private:
    const std::uint8_t *data_;
    std::size_t size_, pos_ = 0;
};

// The input's first line without its newline, as the tool hands lines on.
inline std::string_view firstLine(const std::uint8_t *data, std::size_t size)
{
    const std::string_view all(reinterpret_cast<const char *>(data), size);
    return all.substr(0, all.find('\n'));
}

} // namespace fuzz
