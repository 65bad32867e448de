#include "BusLog.h"

#include <QDateTime>
#include <QString>

namespace vorlink {
namespace {

// Days since 1970-01-01 to a proleptic Gregorian date (H. Hinnant's
// civil_from_days), exact for every day a bus log can name.
void civilFromDays(qint64 days, int &year, unsigned &month, unsigned &day)
{
    days += 719468;
    const qint64 era = (days >= 0 ? days : days - 146096) / 146097;
    const unsigned dayOfEra = unsigned(days - era * 146097);
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned mp = (5 * dayOfYear + 2) / 153;
    day = dayOfYear - (153 * mp + 2) / 5 + 1;
    month = mp < 10 ? mp + 3 : mp - 9;
    year = int(qint64(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0));
}

void putDigits(char *at, unsigned value, int count)
{
    for (int k = count - 1; k >= 0; --k, value /= 10)
        at[k] = char('0' + value % 10);
}

} // namespace

void appendIsoTime(qint64 msecs, std::string &out) { appendIsoTime(msecs, 0, out); }

void appendIsoTime(qint64 msecs, qint32 nanos, std::string &out)
{
    qint64 days = msecs / 86400000;
    qint64 rest = msecs % 86400000;
    if (rest < 0) {
        rest += 86400000;
        --days;
    }
    int year;
    unsigned month, day;
    civilFromDays(days, year, month, day);
    char text[] = "0000-00-00T00:00:00.000Z";
    putDigits(text, unsigned(year < 0 ? 0 : year), 4);
    putDigits(text + 5, month, 2);
    putDigits(text + 8, day, 2);
    const unsigned ms = unsigned(rest);
    putDigits(text + 11, ms / 3600000, 2);
    putDigits(text + 14, ms / 60000 % 60, 2);
    putDigits(text + 17, ms / 1000 % 60, 2);
    putDigits(text + 20, ms % 1000, 3);
    out.append(text, sizeof text - 2);
    if (nanos != 0) {
        char more[6];
        const int digits = nanos % 1000 == 0 ? 3 : 6;
        putDigits(more, unsigned(nanos) / (digits == 3 ? 1000 : 1), digits);
        out.append(more, std::size_t(digits));
    }
    out += 'Z';
}

bool parseTimeArgument(const std::string &text, LogTime &time)
{
    if (parseBusLogTime(text, time.msecs, time.nanos))
        return true;
    // Qt reads ISO 8601 to the millisecond: the digits past the seconds are
    // taken off here and read to the nanosecond.
    std::string rest = text;
    qint32 fraction = 0;
    const std::size_t t = text.find('T');
    const std::size_t dot = t == std::string::npos ? t : text.find_first_of(".,", t);
    if (dot != std::string::npos) {
        std::size_t end = dot + 1;
        for (qint32 scale = 100000000; end < text.size() && text[end] >= '0' && text[end] <= '9'; ++end, scale /= 10) {
            if (end - dot > 9)
                return false;
            fraction += (text[end] - '0') * scale;
        }
        if (end == dot + 1)
            return false;
        rest = text.substr(0, dot) + text.substr(end);
    }
    QDateTime parsed = QDateTime::fromString(QString::fromStdString(rest), Qt::ISODate);
    if (!parsed.isValid())
        return false;
    if (parsed.timeSpec() == Qt::LocalTime)   // no offset given: the log's own zone, UTC
        parsed.setTimeSpec(Qt::UTC);
    time.msecs = parsed.toMSecsSinceEpoch() + fraction / 1000000;
    time.nanos = fraction % 1000000;
    return time.msecs >= 0 && time.msecs <= maxBusLogMsecs;
}

bool parseTimeArgument(const std::string &text, qint64 &msecs)
{
    LogTime time;
    if (!parseTimeArgument(text, time))
        return false;
    msecs = time.msecs;
    return true;
}

} // namespace vorlink
