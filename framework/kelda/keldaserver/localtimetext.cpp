#include "localtimetext.h"

#include <QDateTime>

#include <ctime>

namespace Kelda {

namespace {

void putDigits(char *at, int value, int count)
{
    for (int i = count - 1; i >= 0; --i) {
        at[i] = char('0' + value % 10);
        value /= 10;
    }
}

} // namespace

QByteArray localTimeText(qint64 utcMilliseconds)
{
    // Qt gives times before 1970 the zone's standard offset; clients read
    // these texts with Qt, so such times take Qt's own path.
    const time_t clock = time_t(utcMilliseconds / 1000);
    struct tm local = {};
    if (utcMilliseconds < 0 || !localtime_r(&clock, &local) || local.tm_year + 1900 > 9999)
        return QDateTime::fromMSecsSinceEpoch(utcMilliseconds)
            .toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"))
            .toLatin1();
    QByteArray text(19, Qt::Uninitialized);
    char *c = text.data();
    putDigits(c, local.tm_year + 1900, 4);
    c[4] = '-';
    putDigits(c + 5, local.tm_mon + 1, 2);
    c[7] = '-';
    putDigits(c + 8, local.tm_mday, 2);
    c[10] = ' ';
    putDigits(c + 11, local.tm_hour, 2);
    c[13] = ':';
    putDigits(c + 14, local.tm_min, 2);
    c[16] = ':';
    putDigits(c + 17, local.tm_sec, 2);
    return text;
}

} // namespace Kelda
