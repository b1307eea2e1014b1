#include "filequery.h"

#include <QtTest>

using namespace Kelda;

namespace {

QDateTime at(int hour)
{
    return QDateTime(QDate(2018, 9, 19), QTime(hour, 0));
}

using Setter = void (FileQuery::*)(const QDateTime &);
using Test = bool (FileQuery::*)(const QDateTime &) const;

struct RangeAccess
{
    Setter setMin;
    Setter setMax;
    Test isInRange;
};

const RangeAccess kRanges[] = {
    {&FileQuery::SetBackupTimeMin, &FileQuery::SetBackupTimeMax, &FileQuery::IsBackupTimeInRange},
    {&FileQuery::SetCreationTimeMin, &FileQuery::SetCreationTimeMax, &FileQuery::IsCreationTimeInRange},
    {&FileQuery::SetLifeCycleTimeMin, &FileQuery::SetLifeCycleTimeMax, &FileQuery::IsLifeCycleInRange},
    {&FileQuery::SetModificationTimeMin, &FileQuery::SetModificationTimeMax, &FileQuery::IsModificationTimeInRange},
};

void verifyEmpty(const FileQuery &query)
{
    for (const RangeAccess &range : kRanges) {
        QVERIFY((query.*range.isInRange)(QDateTime()));
        QVERIFY((query.*range.isInRange)(at(1)));
    }
    QCOMPARE(query.GetFileTypeListSize(), 0);
    QVERIFY(!query.IsFileTypeListed(FT_Unknown));
    QCOMPARE(query.GetLocationState(), LS_Undefined);
    QCOMPARE(query.GetLockState(), LOCK_Undefined);
    for (const QString &text : {query.GetCommentSearchText(), query.GetCreatorSearchText(),
                                query.GetDetailSearchText(), query.GetFileGroupSearchText(),
                                query.GetLockUser(), query.GetReferencingApplication(),
                                query.GetTeamMembershipSearchText(), query.GetVersionSearchText()})
        QVERIFY(text.isEmpty() && !text.isNull());
}

} // namespace

class TestFileQuery : public QObject
{
    Q_OBJECT

private slots:
    void inRange_data();
    void inRange();
    void eachRangeIsItsOwn();
    void freshAndResetQueries();
    void copiesAreIndependent();
    void validDateTime_data();
    void validDateTime();
};

void TestFileQuery::inRange_data()
{
    QTest::addColumn<QDateTime>("min");
    QTest::addColumn<QDateTime>("max");
    QTest::addColumn<QDateTime>("time");
    QTest::addColumn<bool>("expected");

    const QDateTime open;
    QTest::newRow("open, null time") << open << open << QDateTime() << true;
    QTest::newRow("lower only, equal") << at(10) << open << at(10) << true;
    QTest::newRow("lower only, before") << at(10) << open << at(9) << false;
    QTest::newRow("upper only, equal") << open << at(10) << at(10) << true;
    QTest::newRow("upper only, after") << open << at(10) << at(11) << false;
    QTest::newRow("both, at lower") << at(10) << at(12) << at(10) << true;
    QTest::newRow("both, at upper") << at(10) << at(12) << at(12) << true;
    QTest::newRow("both, above") << at(10) << at(12) << at(13) << false;
    QTest::newRow("swapped, between") << at(12) << at(10) << at(11) << false;
    QTest::newRow("lower only, null time") << at(10) << open << QDateTime() << false;
    QTest::newRow("same instant, other zone")
        << at(10) << open << QDateTime(QDate(2018, 9, 19), QTime(10, 0)).toUTC() << true;
}

void TestFileQuery::inRange()
{
    QFETCH(QDateTime, min);
    QFETCH(QDateTime, max);
    QFETCH(QDateTime, time);
    TimeRange range;
    range.SetMin(min);
    range.SetMax(max);
    QTEST(range.IsInRange(time), "expected");
    QCOMPARE(range.GetMin(), min);
    QCOMPARE(range.GetMax(), max);
}

void TestFileQuery::eachRangeIsItsOwn()
{
    for (const RangeAccess &bounded : kRanges) {
        FileQuery query;
        (query.*bounded.setMin)(at(10));
        (query.*bounded.setMax)(at(12));
        for (const RangeAccess &range : kRanges)
            QCOMPARE((query.*range.isInRange)(at(9)), &range != &bounded);
    }
}

void TestFileQuery::freshAndResetQueries()
{
    FileQuery query;
    query.SetCreationTimeMin(at(5));
    query.SetModificationTimeMax(at(5));
    query.AddFileType(FT_Image);
    query.AddFileType(FT_Image);
    QCOMPARE(query.GetFileTypeListSize(), 2);
    QCOMPARE(query.GetFileTypeAt(1), FT_Image);
    QVERIFY(query.IsFileTypeListed(FT_Image));
    QVERIFY(!query.IsFileTypeListed(FT_RAD));
    query.SetLocationState(LS_Tovin);
    query.SetLockState(LOCK_Write);
    query.SetCommentSearchText(QStringLiteral("c"));
    query.SetLockUser(QStringLiteral("u"));
    query.SetVersionSearchText(QStringLiteral("v"));

    verifyEmpty(FileQuery());
    query.Reset();
    verifyEmpty(query);
}

void TestFileQuery::copiesAreIndependent()
{
    FileQuery original;
    original.SetBackupTimeMin(at(4));
    original.AddFileType(FT_CND);
    FileQuery copy(original);
    copy.SetBackupTimeMin(at(6));
    copy.ClearFileTypeList();
    copy.SetDetailSearchText(QStringLiteral("d"));
    QCOMPARE(original.GetBackupTimeMin(), at(4));
    QCOMPARE(original.GetFileTypeListSize(), 1);
    QCOMPARE(original.GetDetailSearchText(), QString());
}

void TestFileQuery::validDateTime_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QDateTime>("expected");

    const QDateTime withMs(QDate(2018, 9, 19), QTime(10, 0, 1, 250));
    QTest::newRow("blank, milliseconds") << "2018-09-19 10:00:01.250" << withMs;
    QTest::newRow("T, milliseconds") << "2018-09-19T10:00:01.250" << withMs;
    QTest::newRow("blank") << "2018-09-19 10:00:00" << at(10);
    QTest::newRow("T") << "2018-09-19T10:00:00" << at(10);
    QTest::newRow("zone designator") << "2018-09-19T10:00:00Z" << QDateTime();
    QTest::newRow("impossible date") << "2018-02-30 10:00:00" << QDateTime();
}

void TestFileQuery::validDateTime()
{
    QFETCH(QString, text);
    QFETCH(QDateTime, expected);
    const QDateTime result = FileQuery::getValidDateTimeFromString(text);
    QCOMPARE(result, expected);
    QCOMPARE(result.isValid(), expected.isValid());
    if (result.isValid())
        QCOMPARE(result.timeSpec(), Qt::LocalTime);
}

QTEST_GUILESS_MAIN(TestFileQuery)
#include "tst_filequery.moc"
