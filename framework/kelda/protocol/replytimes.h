#pragma once

#include "filegroupcolumns.h"

#include <QDate>
#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QStringView>
#include <QTime>

#include <vector>

namespace Kelda {

// "yyyy-MM-dd hh:mm:ss" by hand: a reply of many groups holds four per
// group, and the general format parser costs far more than the row they feed.
bool SplitReplyDateTime(QStringView text, QDate *date, QTime *time);

// The times of one reply as its result rows show them.
//
// A row prints a local QDateTime as "yyyy-MM-dd hh:mm:ss", which gives back
// the reply's own text whenever the local zone has that wall-clock time. But
// every way of making a local QDateTime runs mktime(), and with glibc and no
// TZ set each mktime() checks the zone file with a system call: the largest
// single cost of a large reply. localtime_r() makes no such check: a time
// whose wall clock it finds at some instant goes into the row as sent. Only
// the rest are built: texts in any other form, times in a clock change's gap
// (QDateTime holds them invalid: an empty cell), and years outside 1971 to
// 2036: near the ends of the 32-bit time_t range QDateTime has rules of its
// own (from 2038 on, the clock changes of a year with the same calendar).
class ReplyTimes
{
public:
    using TimeColumn = FileGroupColumn::Column;

    // localtime_r() uses the zone of the last check; this reply sees the
    // current one, as mktime() would.
    ReplyTimes();

    // The record's value of the time in column. A time that the row can show
    // as sent is kept for FillRow() instead and left invalid.
    QDateTime Read(QStringView text, TimeColumn column);

    // Writes the kept times into the row that starts at index row.
    void FillRow(QStringList &table, int row);

private:
    // The columns of a result row that hold a group's times, side by side.
    static constexpr TimeColumn FirstTimeColumn = FileGroupColumn::BackupTime;
    static constexpr int TimeColumnCount = FileGroupColumn::LifeCycle - FirstTimeColumn + 1;

    bool HasWallClock(qint64 wall);
    QDateTime Build(QDate date, QTime time);

    static constexpr int SlotBits = 12;
    static constexpr int SlotCount = 1 << SlotBits;
    struct Slot
    {
        qint64 key = 0;
        bool used = false;
        QDateTime value;
    };

    QString m_shown[TimeColumnCount];
    qint64 m_offset = 0;
    std::vector<Slot> m_slots;
};

} // namespace Kelda
