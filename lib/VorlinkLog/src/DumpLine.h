#pragma once

// A record's dump line written straight from its wire bytes and the wire
// table: letter for letter what the record's dump() hands the Qt logger, but
// without a record, a QString per field or the logger in between.

#include <charconv>
#include <string>

namespace vorlink {

struct RowInfo;

// Appends "<Message>Payload: name=value, ..." (or "<Message>Payload: <none>")
// to `out`, without a newline. `payload` holds at least row.wireSize bytes.
void appendDumpLine(const RowInfo &row, const char *payload, std::string &out);

// An F32 as dump() prints it, QString::arg(double(value), 0, 'g', -1): six
// significant digits, the shorter of fixed and exponent form (37.5, 0.1,
// 1.23457e+06, 1e-05), "nan", "inf", "-inf", and 0 for
// either zero.
void appendDumpFloat(float value, std::string &out);

// An integer in decimal, as to_chars spells it.
template <class T>
void appendDecimal(T value, std::string &out)
{
    char text[24];
    const auto r = std::to_chars(text, text + sizeof text, value);
    out.append(text, std::size_t(r.ptr - text));
}

} // namespace vorlink
