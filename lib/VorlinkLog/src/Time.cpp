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

void appendIsoTime(qint64 msecs, std::string &out)
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
    out.append(text, sizeof text - 1);
}

bool parseTimeArgument(const std::string &text, qint64 &msecs)
{
    if (parseBusLogTime(text, msecs))
        return true;
    QDateTime time = QDateTime::fromString(QString::fromStdString(text), Qt::ISODateWithMs);
    if (!time.isValid())
        return false;
    if (time.timeSpec() == Qt::LocalTime)   // no offset given: the log's own zone, UTC
        time.setTimeSpec(Qt::UTC);
    msecs = time.toMSecsSinceEpoch();
    return msecs >= 0 && msecs <= maxBusLogMsecs;
}

} // namespace vorlink
