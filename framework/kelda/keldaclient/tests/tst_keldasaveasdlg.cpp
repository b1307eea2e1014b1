#include "filetype.h"
#include "keldasaveasdlg.h"

#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QtTest>

using namespace Kelda;

// The save-as form: its rows, and the full type list with its fallback.
class KeldaSaveAsDlgTest : public QObject
{
    Q_OBJECT

private slots:
    void freshForm();
    void fileType_data();
    void fileType();
};

void KeldaSaveAsDlgTest::freshForm()
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
    const QStringList labels{QStringLiteral("File Type"),  QStringLiteral("File Group Name"),
                             QStringLiteral("File Name"),  QStringLiteral("Version"),
                             QStringLiteral("Life cycle"), QStringLiteral("Comment"),
                             QStringLiteral("Detail")};
    const QStringList fields{QStringLiteral("typeCombo"),     QStringLiteral("groupEdit"),
                             QStringLiteral("nameEdit"),      QStringLiteral("versionEdit"),
                             QStringLiteral("endOfLifeEdit"), QStringLiteral("commentEdit"),
                             QStringLiteral("detailEdit")};
    QCOMPARE(form->rowCount(), labels.size());
    for (int row = 0; row < form->rowCount(); ++row) {
        QCOMPARE(qobject_cast<QLabel *>(form->itemAt(row, QFormLayout::LabelRole)->widget())->text(), labels.at(row));
        QCOMPARE(form->itemAt(row, QFormLayout::FieldRole)->widget()->objectName(), fields.at(row));
    }

    // Every type, not the offered list.
    const auto *types = dialog.findChild<QComboBox *>(QStringLiteral("typeCombo"));
    QCOMPARE(types->count(), 23);
    for (int i = 0; i < types->count(); ++i) {
        QCOMPARE(types->itemData(i).toInt(), i);
        QCOMPARE(types->itemText(i), FileTypeManager::GetText(FileType(i)));
    }
}

void KeldaSaveAsDlgTest::fileType_data()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<int>("selected");

    QTest::newRow("never offered, still listed") << int(FT_PCK) << int(FT_PCK);
    QTest::newRow("last") << int(FT_TrainingCollections) << int(FT_TrainingCollections);
    QTest::newRow("past the end") << 23 << 0;
    QTest::newRow("far off") << 99 << 0;
    QTest::newRow("negative") << -1 << 0;
}

void KeldaSaveAsDlgTest::fileType()
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

QTEST_MAIN(KeldaSaveAsDlgTest)
#include "tst_keldasaveasdlg.moc"
