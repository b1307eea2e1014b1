#include "filequery.h"
#include "filetype.h"
#include "keldasaveasdlg.h"
#include "modalwaiter.h"
#include "querydialog.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QPushButton>
#include <QtTest>

using namespace Kelda;

Q_DECLARE_METATYPE(Kelda::FileQuery)

namespace {

// Every field of a query, one line each, so that a mismatch names its field.
QStringList describe(const FileQuery &query)
{
    const auto range = [](const char *name, const QDateTime &min, const QDateTime &max) {
        const auto text = [](const QDateTime &t) {
            return t.isNull() ? QStringLiteral("-") : t.toUTC().toString(Qt::ISODate);
        };
        return QStringLiteral("%1 %2 %3").arg(QLatin1String(name), text(min), text(max));
    };
    QStringList types;
    for (int i = 0; i < query.GetFileTypeListSize(); ++i)
        types.append(QString::number(query.GetFileTypeAt(i)));
    return {range("backup", query.GetBackupTimeMin(), query.GetBackupTimeMax()),
            range("creation", query.GetCreationTimeMin(), query.GetCreationTimeMax()),
            range("modification", query.GetModificationTimeMin(), query.GetModificationTimeMax()),
            range("life cycle", query.GetLifeCycleTimeMin(), query.GetLifeCycleTimeMax()),
            types.join(QLatin1Char(',')),
            QStringLiteral("location %1 lock %2").arg(query.GetLocationState()).arg(query.GetLockState()),
            QStringList{query.GetCommentSearchText(), query.GetCreatorSearchText(), query.GetDetailSearchText(),
                        query.GetFileGroupSearchText(), query.GetTeamMembershipSearchText(),
                        query.GetVersionSearchText(), query.GetLockUser(), query.GetReferencingApplication()}
                .join(QLatin1Char('|'))};
}

// Sets the creation, modification and life cycle bounds to March days 1 to
// 6 at 8:30, 9:30, ...; or clears them.
void setRanges(FileQuery &query, bool set = true)
{
    int day = 0;
    for (auto setter :
         {&FileQuery::SetCreationTimeMin, &FileQuery::SetCreationTimeMax, &FileQuery::SetModificationTimeMin,
          &FileQuery::SetModificationTimeMax, &FileQuery::SetLifeCycleTimeMin, &FileQuery::SetLifeCycleTimeMax}) {
        ++day;
        (query.*setter)(set ? QDateTime(QDate(2026, 3, day), QTime(7 + day, 30)) : QDateTime());
    }
}

void checkRanges(QDialog *dialog, bool on)
{
    const QStringList ranges{QStringLiteral("Creation time"), QStringLiteral("Modification time"),
                             QStringLiteral("Life cycle")};
    for (QCheckBox *box : dialog->findChildren<QCheckBox *>()) {
        if (ranges.contains(box->text()))
            box->setChecked(on);
    }
}

} // namespace

// The query dialog driven as its file select dialog drives it: Edit with a
// query, the user accepts or cancels, the query comes back. And the save-as
// form: its rows, and the full type list with its fallback.
class QueryDialogTest : public QObject
{
    Q_OBJECT

private slots:
    void roundTrip_data();
    void roundTrip();
    void defaultWindowAndReset();
    void saveAsForm();
    void saveAsFileType_data();
    void saveAsFileType();
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
    full.SetBackupTimeMin(QDateTime(QDate(2026, 3, 7), QTime(14, 30)));
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
    setRanges(open, false);
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
// whole-day step that is not before now; "Reset" restores it. Two days on from
// the start lie behind now once the dialog places the end, so the end is up to
// a whole day after now: exactly one when no millisecond passed in between.
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
    QVERIFY2(max.secsTo(after) <= 60 && after.secsTo(max) <= 86400, qPrintable(max.toString(Qt::ISODate)));
    QCOMPARE(max.time(), min.time());
    QCOMPARE(query.GetLifeCycleTimeMin(), min);
    QCOMPARE(query.GetCreationTimeMax(), max);
}

void QueryDialogTest::saveAsForm()
{
    const QDateTime before = QDateTime::currentDateTime();
    KeldaSaveAsDlg dialog;
    const QDateTime after = QDateTime::currentDateTime();

    QCOMPARE(dialog.fileType(), 0);
    QVERIFY(!dialog.fileTypeEnabled());
    QVERIFY(dialog.isModal());
    QCOMPARE(dialog.windowTitle(), QStringLiteral("Save As..."));
    // The edit may drop what its format does not show.
    QVERIFY(dialog.endOfLife().secsTo(before.addMonths(1)) < 60);
    QVERIFY(dialog.endOfLife() <= after.addMonths(1));

    const auto *form = dialog.findChild<QFormLayout *>(QStringLiteral("formLayout"));
    QVERIFY(form);
    const QStringList rows = QStringLiteral("File Type:typeCombo|File Group Name:groupEdit|File Name:nameEdit|"
                                            "Version:versionEdit|Life cycle:endOfLifeEdit|Comment:commentEdit|"
                                            "Detail:detailEdit")
                                 .split(QLatin1Char('|'));
    QCOMPARE(form->rowCount(), rows.size());
    for (int row = 0; row < form->rowCount(); ++row)
        QCOMPARE(qobject_cast<QLabel *>(form->itemAt(row, QFormLayout::LabelRole)->widget())->text() +
                     QLatin1Char(':') + form->itemAt(row, QFormLayout::FieldRole)->widget()->objectName(),
                 rows.at(row));

    // Every type, not the offered list.
    const auto *types = dialog.findChild<QComboBox *>(QStringLiteral("typeCombo"));
    QCOMPARE(types->count(), 23);
    for (int i = 0; i < types->count(); ++i) {
        QCOMPARE(types->itemData(i).toInt(), i);
        QCOMPARE(types->itemText(i), FileTypeManager::GetText(FileType(i)));
    }
}

void QueryDialogTest::saveAsFileType_data()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<int>("selected");

    QTest::newRow("never offered, still listed") << int(FT_PCK) << int(FT_PCK);
    QTest::newRow("last") << int(FT_TrainingCollections) << int(FT_TrainingCollections);
    QTest::newRow("past the end") << 23 << 0;
    QTest::newRow("far off") << 99 << 0;
    QTest::newRow("negative") << -1 << 0;
}

void QueryDialogTest::saveAsFileType()
{
    QFETCH(int, value);
    QFETCH(int, selected);

    KeldaSaveAsDlg dialog;
    dialog.setFileType(int(FT_Image));
    dialog.setFileType(value);
    QCOMPARE(dialog.fileType(), selected);
    dialog.setFileTypeEnabled(true);
    QVERIFY(dialog.fileTypeEnabled());
}

QTEST_MAIN(QueryDialogTest)
#include "tst_querydialog.moc"
