#include "filequery.h"

#include <QtTest>

using namespace Kelda;

class TestFileQuery : public QObject
{
    Q_OBJECT

private slots:
    void inRange_data();
    void inRange();
    void resetEmptiesEverything();
    void validDateTime_data();
    void validDateTime();
};

void TestFileQuery::inRange_data()
{
    QTest::addColumn<QDateTime>("min");
    QTest::addColumn<QDateTime>("max");
    QTest::addColumn<QDateTime>("time");
    QTest::addColumn<bool>("expected");

    auto at = [](int hour) { return QDateTime(QDate(2018, 9, 19), QTime(hour, 0)); };
    const QDateTime open;
    QTest::newRow("open, null time") << open << open << open << true;
    QTest::newRow("lower only, equal") << at(10) << open << at(10) << true;
    QTest::newRow("lower only, before") << at(10) << open << at(9) << false;
    QTest::newRow("lower only, null time") << at(10) << open << open << false;
    QTest::newRow("upper only, equal") << open << at(10) << at(10) << true;
    QTest::newRow("upper only, after") << open << at(10) << at(11) << false;
    QTest::newRow("swapped, between") << at(12) << at(10) << at(11) << false;
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
}

void TestFileQuery::resetEmptiesEverything()
{
    FileQuery query;
    query.SetBackupTimeMin(QDateTime::currentDateTime());
    query.SetCreationTimeMax(QDateTime::currentDateTime());
    query.SetLifeCycleTimeMin(QDateTime::currentDateTime());
    query.SetModificationTimeMax(QDateTime::currentDateTime());
    query.AddFileType(FT_Image);
    query.SetLocationState(LS_Tovin);
    query.SetLockState(LOCK_Write);
    for (auto set :
         {&FileQuery::SetCommentSearchText, &FileQuery::SetCreatorSearchText, &FileQuery::SetDetailSearchText,
          &FileQuery::SetFileGroupSearchText, &FileQuery::SetLockUser, &FileQuery::SetReferencingApplication,
          &FileQuery::SetTeamMembershipSearchText, &FileQuery::SetVersionSearchText})
        (query.*set)(QStringLiteral("x"));
    query.Reset();

    QVERIFY(query.IsBackupTimeInRange(QDateTime()) && query.IsCreationTimeInRange(QDateTime()) &&
            query.IsLifeCycleInRange(QDateTime()) && query.IsModificationTimeInRange(QDateTime()));
    QCOMPARE(query.GetFileTypeListSize(), 0);
    QCOMPARE(query.GetLocationState(), LS_Undefined);
    QCOMPARE(query.GetLockState(), LOCK_Undefined);
    for (const QString &text : {query.GetCommentSearchText(), query.GetCreatorSearchText(), query.GetDetailSearchText(),
                                query.GetFileGroupSearchText(), query.GetLockUser(), query.GetReferencingApplication(),
                                query.GetTeamMembershipSearchText(), query.GetVersionSearchText()})
        QVERIFY(text.isEmpty() && !text.isNull());
}

void TestFileQuery::validDateTime_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QDateTime>("expected");

    const QDateTime withMs(QDate(2018, 9, 19), QTime(10, 0, 1, 250));
    const QDateTime withoutMs(QDate(2018, 9, 19), QTime(10, 0));
    QTest::newRow("blank, milliseconds") << "2018-09-19 10:00:01.250" << withMs;
    QTest::newRow("T, milliseconds") << "2018-09-19T10:00:01.250" << withMs;
    QTest::newRow("blank") << "2018-09-19 10:00:00" << withoutMs;
    QTest::newRow("T") << "2018-09-19T10:00:00" << withoutMs;
    QTest::newRow("zone designator") << "2018-09-19T10:00:00Z" << QDateTime();
    QTest::newRow("impossible date") << "2018-02-30 10:00:00" << QDateTime();
}

void TestFileQuery::validDateTime()
{
    QFETCH(QString, text);
    const QDateTime result = FileQuery::getValidDateTimeFromString(text);
    QTEST(result, "expected");
    QVERIFY(!result.isValid() || result.timeSpec() == Qt::LocalTime);
}

QTEST_GUILESS_MAIN(TestFileQuery)
#include "tst_filequery.moc"
