#include "filetype.h"
#include "keldasaveasdlg.h"

#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QtTest>

#include <functional>

using namespace Kelda;

struct Field
{
    std::function<QVariant(const KeldaSaveAsDlg &)> get;
    std::function<void(KeldaSaveAsDlg &, const QVariant &)> set;
    std::function<bool(const KeldaSaveAsDlg &)> enabled;
    std::function<void(KeldaSaveAsDlg &, bool)> setEnabled;
};
Q_DECLARE_METATYPE(Field)

// The save-as form: its rows, the full type list with its fallback, and the
// getter, setter and enabled pair of every field reaching its own widget.
class KeldaSaveAsDlgTest : public QObject
{
    Q_OBJECT

private slots:
    void freshForm();
    void fileType_data();
    void fileType();
    void fields_data();
    void fields();
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
    const QStringList labels{QStringLiteral("File Type"), QStringLiteral("File Group Name"), QStringLiteral("File Name"),
                             QStringLiteral("Version"), QStringLiteral("Life cycle"), QStringLiteral("Comment"),
                             QStringLiteral("Detail")};
    const QStringList fields{QStringLiteral("typeCombo"), QStringLiteral("groupEdit"), QStringLiteral("nameEdit"),
                             QStringLiteral("versionEdit"), QStringLiteral("endOfLifeEdit"),
                             QStringLiteral("commentEdit"), QStringLiteral("detailEdit")};
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

void KeldaSaveAsDlgTest::fields_data()
{
    QTest::addColumn<Field>("field");
    QTest::addColumn<QVariant>("value");

    const auto text = [](QString (KeldaSaveAsDlg::*get)() const, void (KeldaSaveAsDlg::*set)(const QString &),
                         bool (KeldaSaveAsDlg::*enabled)() const, void (KeldaSaveAsDlg::*setEnabled)(bool)) {
        return Field{[get](const KeldaSaveAsDlg &d) { return QVariant((d.*get)()); },
                     [set](KeldaSaveAsDlg &d, const QVariant &v) { (d.*set)(v.toString()); },
                     [enabled](const KeldaSaveAsDlg &d) { return (d.*enabled)(); },
                     [setEnabled](KeldaSaveAsDlg &d, bool on) { (d.*setEnabled)(on); }};
    };
    using D = KeldaSaveAsDlg;
    QTest::newRow("groupName") << text(&D::groupName, &D::setGroupName, &D::groupNameEnabled, &D::setGroupNameEnabled)
                               << QVariant(QStringLiteral("scan 7"));
    QTest::newRow("fileName") << text(&D::fileName, &D::setFileName, &D::fileNameEnabled, &D::setFileNameEnabled)
                              << QVariant(QStringLiteral("a.bin"));
    QTest::newRow("version") << text(&D::version, &D::setVersion, &D::versionEnabled, &D::setVersionEnabled)
                             << QVariant(QStringLiteral("1.2"));
    QTest::newRow("comment") << text(&D::comment, &D::setComment, &D::commentEnabled, &D::setCommentEnabled)
                             << QVariant(QStringLiteral("c"));
    QTest::newRow("detail") << text(&D::detail, &D::setDetail, &D::detailEnabled, &D::setDetailEnabled)
                            << QVariant(QStringLiteral("d"));
    QTest::newRow("endOfLife") << Field{[](const D &d) { return QVariant(d.endOfLife()); },
                                       [](D &d, const QVariant &v) { d.setEndOfLife(v.toDateTime()); },
                                       [](const D &d) { return d.endOfLifeEnabled(); },
                                       [](D &d, bool on) { d.setEndOfLifeEnabled(on); }}
                               << QVariant(QDateTime(QDate(2030, 1, 2), QTime(3, 4)));
}

// Each field is set alone, so a getter that reads another field's widget
// shows as a mismatch.
void KeldaSaveAsDlgTest::fields()
{
    QFETCH(Field, field);
    QFETCH(QVariant, value);

    KeldaSaveAsDlg dialog;
    QVERIFY(field.enabled(dialog));
    field.set(dialog, value);
    QCOMPARE(field.get(dialog), value);
    for (const QString &other : {dialog.groupName(), dialog.fileName(), dialog.version(), dialog.comment(),
                                 dialog.detail()}) {
        QVERIFY(other.isEmpty() || QVariant(other) == value);
    }
    field.setEnabled(dialog, false);
    QVERIFY(!field.enabled(dialog));
    const int disabled = int(!dialog.groupNameEnabled()) + int(!dialog.fileNameEnabled())
                         + int(!dialog.versionEnabled()) + int(!dialog.commentEnabled())
                         + int(!dialog.detailEnabled()) + int(!dialog.endOfLifeEnabled());
    QCOMPARE(disabled, 1);
}

QTEST_MAIN(KeldaSaveAsDlgTest)
#include "tst_keldasaveasdlg.moc"
