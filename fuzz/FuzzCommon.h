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

// The little-endian integer of `width` bytes at `at`, zero past the input's end.
inline quint64 take(const std::uint8_t *data, std::size_t size, std::size_t at, int width)
{
    quint64 v = 0;
    for (int k = 0; k < width; ++k)
        v |= quint64(at + k < size ? data[at + k] : 0) << (8 * k);
    return v;
}
inline QByteArray rest(const std::uint8_t *data, std::size_t size, std::size_t at)
{
    return at < size ? QByteArray(reinterpret_cast<const char *>(data + at), int(size - at)) : QByteArray();
}

// The input's first line without its newline, as the tool hands lines on.
inline std::string_view firstLine(const std::uint8_t *data, std::size_t size)
{
    const std::string_view all(reinterpret_cast<const char *>(data), size);
    return all.substr(0, all.find('\n'));
}

} // namespace fuzz
