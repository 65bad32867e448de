#include "DumpLine.h"

#include "Dictionary.h"

#include <QString>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace vorlink {
namespace {

template <class T>
T wireValue(const char *at)
{
    T value;
    std::memcpy(&value, at, sizeof value);   // the wire's byte order is the machine's
    return value;
}

// Qt's own spelling, for the few values whose rounding to six digits is too
// close to call from nine.
void appendQtFloat(float value, std::string &out)
{
    const QByteArray text = QStringLiteral("%1").arg(double(value), 0, 'g', -1).toLatin1();
    out.append(text.constData(), std::size_t(text.size()));
}

} // namespace

void appendDumpFloat(float value, std::string &out)
{
    if (std::isnan(value)) {
        out += "nan";
        return;
    }
    if (std::isinf(value)) {
        out += value < 0 ? "-inf" : "inf";
        return;
    }
    if (value == 0) {
        out += '0';   // Qt drops the sign of -0
        return;
    }
    // The shortest digits that read back to the value (at most nine) round to
    // the same six digits as the exact value does. No six-digit rounding
    // point lies between the two: with seven digits or more, it would have
    // been fewer digits or closer; with six or fewer, the two lie closer than
    // half a step of six digits, for a float of full precision. Qt is asked
    // for the rest: a subnormal float, and a seventh digit that is exactly 5,
    // where the exact value's side of the half is unknown here (Qt rounds a
    // true half away from zero).
    if (std::fpclassify(value) == FP_SUBNORMAL) {
        appendQtFloat(value, out);
        return;
    }
    char shortest[32];
    const auto r = std::to_chars(shortest, shortest + sizeof shortest, value, std::chars_format::scientific);
    const char *p = shortest;
    const bool negative = *p == '-';
    if (negative)
        ++p;
    int digits[9] = {};
    int digitCount = 0;
    const char *q = p;
    for (; q < r.ptr && *q != 'e'; ++q)
        if (*q != '.')
            digits[digitCount++] = *q - '0';
    int exponent = 0;   // after the 'e': from_chars takes a '-' but not a '+'
    std::from_chars(q + (q[1] == '+' ? 2 : 1), r.ptr, exponent);
    if (digitCount == 7 && digits[6] == 5) {
        appendQtFloat(value, out);
        return;
    }
    long six = 0;
    for (int k = 0; k < 6; ++k)
        six = six * 10 + digits[k];
    if (digits[6] >= 5 && ++six == 1000000) {
        six = 100000;
        ++exponent;
    }
    char kept[6];
    for (int k = 5; k >= 0; --k, six /= 10)
        kept[k] = char('0' + six % 10);
    int count = 6;
    while (count > 1 && kept[count - 1] == '0')
        --count;

    if (negative)
        out += '-';
    if (exponent < -4 || exponent >= 6) {
        out += kept[0];
        if (count > 1) {
            out += '.';
            out.append(kept + 1, std::size_t(count - 1));
        }
        out += exponent < 0 ? "e-" : "e+";
        const int magnitude = exponent < 0 ? -exponent : exponent;
        if (magnitude < 10)
            out += '0';
        appendDecimal(magnitude, out);
    } else if (exponent >= 0) {
        const int whole = exponent + 1;
        if (count <= whole) {
            out.append(kept, std::size_t(count));
            out.append(std::size_t(whole - count), '0');
        } else {
            out.append(kept, std::size_t(whole));
            out += '.';
            out.append(kept + whole, std::size_t(count - whole));
        }
    } else {
        out += "0.";
        out.append(std::size_t(-exponent - 1), '0');
        out.append(kept, std::size_t(count));
    }
}

void appendDumpLine(const RowInfo &row, const char *payload, std::string &out)
{
    out += row.message;
    out += "Payload: ";
    bool first = true;
    for (const WireField &field : row.fields) {
        if (field.position < 0)
            break;   // the schema-only fields come last
        if (!first)
            out += ", ";
        first = false;
        out += field.name;
        out += '=';
        const char *at = payload + field.position;
        switch (field.type) {
        case WireType::U08: appendDecimal(unsigned(static_cast<unsigned char>(*at)), out); break;
        case WireType::U16: appendDecimal(wireValue<std::uint16_t>(at), out); break;
        case WireType::U32: appendDecimal(wireValue<std::uint32_t>(at), out); break;
        case WireType::S16: appendDecimal(int(wireValue<std::int16_t>(at)), out); break;
        case WireType::S32: appendDecimal(wireValue<std::int32_t>(at), out); break;
        case WireType::F32: appendDumpFloat(wireValue<float>(at), out); break;
        }
    }
    if (first)
        out += "<none>";
}

} // namespace vorlink
