#include "replytimes.h"

#include <ctime>
#include <utility>

namespace Kelda {

namespace {

// Two digits of text from position at; -1 for anything else.
int TwoDigits(const QChar *text, int at)
{
    const int high = text[at].unicode() - '0';
    const int low = text[at + 1].unicode() - '0';
    if (high < 0 || high > 9 || low < 0 || low > 9)
        return -1;
    return high * 10 + low;
}

// The C library's zone refresh and reentrant local time, as each platform
// names them.
void RefreshZone()
{
#ifdef Q_OS_WIN
    _tzset();
#else
    tzset();
#endif
}

bool LocalFields(time_t instant, tm *fields)
{
#ifdef Q_OS_WIN
    return localtime_s(fields, &instant) == 0;
#else
    return localtime_r(&instant, fields) != nullptr;
#endif
}

constexpr qint64 SecondsPerDay = 24 * 60 * 60;
constexpr qint64 EpochJulianDay = 2440588;

// The wall clock as seconds since 1970-01-01 00:00 of the same clock.
qint64 WallSeconds(QDate date, QTime time)
{
    return (date.toJulianDay() - EpochJulianDay) * SecondsPerDay + time.msecsSinceStartOfDay() / 1000;
}

} // namespace

bool SplitReplyDateTime(QStringView text, QDate *date, QTime *time)
{
    if (text.size() != 19)
        return false;
    const QChar *c = text.data();
    if (c[4] != QLatin1Char('-') || c[7] != QLatin1Char('-') || c[10] != QLatin1Char(' ') ||
        c[13] != QLatin1Char(':') || c[16] != QLatin1Char(':'))
        return false;
    const int century = TwoDigits(c, 0);
    const int yearInCentury = TwoDigits(c, 2);
    const int month = TwoDigits(c, 5);
    const int day = TwoDigits(c, 8);
    const int hour = TwoDigits(c, 11);
    const int minute = TwoDigits(c, 14);
    const int second = TwoDigits(c, 17);
    if (century < 0 || yearInCentury < 0 || month < 0 || day < 0 || hour < 0 || minute < 0 || second < 0)
        return false;
    *date = QDate(century * 100 + yearInCentury, month, day);
    *time = QTime(hour, minute, second);
    return date->isValid() && time->isValid();
}

ReplyTimes::ReplyTimes()
{
    RefreshZone();
}

QDateTime ReplyTimes::Read(QStringView text, TimeColumn column)
{
    QString &shown = m_shown[column - FirstTimeColumn];
    shown.clear();
    QDate date;
    QTime time;
    if (!SplitReplyDateTime(text, &date, &time))
        return QDateTime();
    if (date.year() > 1970 && date.year() < 2037 && HasWallClock(WallSeconds(date, time))) {
        shown = text.toString();
        return QDateTime();
    }
    return Build(date, time);
}

void ReplyTimes::FillRow(QStringList &table, int row)
{
    for (int i = 0; i < TimeColumnCount; ++i) {
        if (!m_shown[i].isNull())
            table[row + FirstTimeColumn + i] = std::exchange(m_shown[i], QString());
    }
}

// True only when some instant shows the wall clock. Tries that instant at the
// offset of the last time, then at the offset found there; a time that two
// tries miss is built instead, so they decide the speed, never the result.
bool ReplyTimes::HasWallClock(qint64 wall)
{
    time_t instant = wall - m_offset;
    for (int attempt = 0; attempt < 2; ++attempt) {
        tm fields;
        if (!LocalFields(instant, &fields))
            return false;
        const qint64 seen = WallSeconds(QDate(fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday),
                                        QTime(fields.tm_hour, fields.tm_min, fields.tm_sec));
        m_offset = seen - instant;
        if (seen == wall)
            return true;
        instant = wall - m_offset;
    }
    return false;
}

// The rest, built one by one; many groups share a far life cycle time, so a
// small direct-mapped table keeps the recent ones.
QDateTime ReplyTimes::Build(QDate date, QTime time)
{
    const qint64 key = WallSeconds(date, time);
    if (m_slots.empty())
        m_slots.resize(SlotCount);
    // Whole days are multiples of 2^7 seconds: mix the bits before taking
    // the slot (Fibonacci hashing).
    const quint64 mixed = static_cast<quint64>(key) * Q_UINT64_C(0x9E3779B97F4A7C15);
    Slot &slot = m_slots[mixed >> (64 - SlotBits)];
    if (!slot.used || slot.key != key)
        slot = Slot{key, true, QDateTime(date, time)};
    return slot.value;
}

} // namespace Kelda
