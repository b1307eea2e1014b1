#include "filequery.h"
#include "modalwaiter.h"
#include "querydialog.h"

#include <QCheckBox>
#include <QPushButton>
#include <QtTest>

using namespace Kelda;

Q_DECLARE_METATYPE(Kelda::FileQuery)

namespace {

// Every field of a query, one line each, so that a mismatch names its field.
QStringList describe(const FileQuery &query)
{
    const auto time = [](const QDateTime &t) { return t.isNull() ? QStringLiteral("null") : t.toUTC().toString(Qt::ISODate); };
    QStringList types;
    for (int i = 0; i < query.GetFileTypeListSize(); ++i)
        types.append(QString::number(query.GetFileTypeAt(i)));
    return {QStringLiteral("backup ") + time(query.GetBackupTimeMin()) + QLatin1Char(' ') + time(query.GetBackupTimeMax()),
            QStringLiteral("creation ") + time(query.GetCreationTimeMin()) + QLatin1Char(' ') + time(query.GetCreationTimeMax()),
            QStringLiteral("modification ") + time(query.GetModificationTimeMin()) + QLatin1Char(' ')
                + time(query.GetModificationTimeMax()),
            QStringLiteral("life cycle ") + time(query.GetLifeCycleTimeMin()) + QLatin1Char(' ') + time(query.GetLifeCycleTimeMax()),
            QStringLiteral("types ") + types.join(QLatin1Char(',')),
            QStringLiteral("location %1 lock %2").arg(query.GetLocationState()).arg(query.GetLockState()),
            QStringLiteral("texts ") + QStringList{query.GetCommentSearchText(), query.GetCreatorSearchText(),
                                                   query.GetDetailSearchText(), query.GetFileGroupSearchText(),
                                                   query.GetTeamMembershipSearchText(), query.GetVersionSearchText()}
                                           .join(QLatin1Char('|')),
            QStringLiteral("lock user ") + query.GetLockUser(),
            QStringLiteral("application ") + query.GetReferencingApplication()};
}

QDateTime at(int day, int hour)
{
    return QDateTime(QDate(2026, 3, day), QTime(hour, 30));
}

void setRanges(FileQuery &query)
{
    query.SetCreationTimeMin(at(1, 8));
    query.SetCreationTimeMax(at(2, 9));
    query.SetModificationTimeMin(at(3, 10));
    query.SetModificationTimeMax(at(4, 11));
    query.SetLifeCycleTimeMin(at(5, 12));
    query.SetLifeCycleTimeMax(at(6, 13));
}

void clearRanges(FileQuery &query)
{
    for (auto set : {&FileQuery::SetCreationTimeMin, &FileQuery::SetCreationTimeMax,
                     &FileQuery::SetModificationTimeMin, &FileQuery::SetModificationTimeMax,
                     &FileQuery::SetLifeCycleTimeMin, &FileQuery::SetLifeCycleTimeMax})
        (query.*set)(QDateTime());
}

void checkRanges(QDialog *dialog, bool on)
{
    for (const char *label : {"Creation time", "Modification time", "Life cycle"}) {
        for (QCheckBox *box : dialog->findChildren<QCheckBox *>()) {
            if (box->text() == QLatin1String(label))
                box->setChecked(on);
        }
    }
}

} // namespace

// The query dialog driven as its file select dialog drives it: Edit with a
// query, the user accepts or cancels, the query comes back.
class QueryDialogTest : public QObject
{
    Q_OBJECT

private slots:
    void roundTrip_data();
    void roundTrip();
    void defaultWindowAndReset();
};

void QueryDialogTest::roundTrip_data()
{
    QTest::addColumn<FileQuery>("query");
    QTest::addColumn<bool>("rangesOn");
    QTest::addColumn<bool>("useUtc");
    QTest::addColumn<bool>("accept");
    QTest::addColumn<FileQuery>("expected");

    FileQuery full;
    setRanges(full);
    full.SetBackupTimeMin(at(7, 14));
    full.SetCommentSearchText(QStringLiteral("  note "));
    full.SetCreatorSearchText(QStringLiteral("ann"));
    full.SetDetailSearchText(QStringLiteral("d"));
    full.SetFileGroupSearchText(QStringLiteral("scan*"));
    full.SetTeamMembershipSearchText(QStringLiteral("blue"));
    full.SetVersionSearchText(QStringLiteral("2"));
    full.AddFileType(FT_Image);
    full.AddFileType(FT_ScanRecording);
    full.SetLocationState(LS_UnknownFileGroup);
    full.SetLockState(LOCK_Write);
    full.SetLockUser(QStringLiteral("bob"));
    full.SetReferencingApplication(QStringLiteral("viewer"));

    // Texts come back trimmed and types in the offered order; the backup
    // range is not the dialog's.
    FileQuery read = full;
    read.SetCommentSearchText(QStringLiteral("note"));
    read.ClearFileTypeList();
    read.AddFileType(FT_ScanRecording);
    read.AddFileType(FT_Image);
    QTest::newRow("every control") << full << true << false << true << read;
    QTest::newRow("edits in UTC") << full << true << true << true << read;

    FileQuery open = read;
    clearRanges(open);
    QTest::newRow("unchecked ranges are open") << full << false << false << true << open;
    QTest::newRow("cancel keeps the query") << full << false << false << false << full;

    FileQuery strangers = full;
    strangers.SetLockUser(QStringLiteral("zed"));
    strangers.SetReferencingApplication(QStringLiteral("None of these"));
    strangers.ClearFileTypeList();
    strangers.AddFileType(FT_PCK);
    strangers.AddFileType(FT_AudioRecording);
    FileQuery none = read;
    none.SetLockUser(QString());
    none.SetReferencingApplication(QString());
    none.ClearFileTypeList();
    none.AddFileType(FT_AudioRecording);
    QTest::newRow("unknown names select None; an unoffered type is dropped")
        << strangers << true << false << true << none;
}

void QueryDialogTest::roundTrip()
{
    QFETCH(FileQuery, query);
    QFETCH(bool, rangesOn);
    QFETCH(bool, useUtc);
    QFETCH(bool, accept);
    QFETCH(FileQuery, expected);

    QueryDialog dialog;
    dialog.SetLockUsers({QStringLiteral("ann"), QStringLiteral("bob")});
    dialog.SetRefApplications({QStringLiteral("viewer")});
    whenModal<QueryDialog>([rangesOn, accept](QueryDialog *shown) {
        checkRanges(shown, rangesOn);
        accept ? shown->accept() : shown->reject();
    });
    QCOMPARE(dialog.Edit(query, useUtc), accept);
    QCOMPARE(describe(query), describe(expected));
}

// The default window starts two days before construction and ends on the first
// whole-day step that is not before now; "Reset" restores it.
void QueryDialogTest::defaultWindowAndReset()
{
    const QDateTime before = QDateTime::currentDateTime();
    QueryDialog dialog;
    const QDateTime after = QDateTime::currentDateTime();

    FileQuery query;
    setRanges(query);
    whenModal<QueryDialog>([](QueryDialog *shown) {
        checkRanges(shown, true);
        shown->findChild<QPushButton *>(QStringLiteral("ResetButton"))->click();
        shown->accept();
    });
    QVERIFY(dialog.Edit(query, false));

    const QDateTime min = query.GetCreationTimeMin();
    const QDateTime max = query.GetModificationTimeMax();
    QVERIFY2(min.secsTo(before.addDays(-2)) <= 60 && after.addDays(-2).secsTo(min) <= 60,
             qPrintable(min.toString(Qt::ISODate)));
    QVERIFY2(max.secsTo(after) <= 60 && after.secsTo(max) < 86400, qPrintable(max.toString(Qt::ISODate)));
    QCOMPARE(max.time(), min.time());
    QCOMPARE(query.GetLifeCycleTimeMin(), min);
    QCOMPARE(query.GetCreationTimeMax(), max);
}

QTEST_MAIN(QueryDialogTest)
#include "tst_querydialog.moc"
