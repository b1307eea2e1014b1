#include "fileselectdialog.h"
#include "grouptable.h"
#include "keldaclient.h"
#include "keldafile.h"
#include "modalwaiter.h"
#include "querydialog.h"
#include "scriptedpeer.h"
#include "trace.h"

#include <QComboBox>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QTreeView>
#include <QRegularExpression>
#include <QtTest>

using namespace Kelda;

namespace {

const QString kGuidA = QStringLiteral("aaaaaaaa-1111-4c2f-9d3e-5f6a7b8c9d0e");
const QString kGuidB = QStringLiteral("bbbbbbbb-2222-4c2f-9d3e-5f6a7b8c9d0e");
const int kWaitMs = 10000;

// The text of a request's element; for a range, of its bound ("Min"/"Max").
QString requestField(const QByteArray &document, const QString &element, const QString &bound = QString())
{
    const QString pattern = bound.isEmpty()
        ? QStringLiteral("<m:%1>([^<]*)<").arg(element)
        : QStringLiteral("<m:%1>(?:(?!</m:%1>).)*<m:%2>([^<]*)<").arg(element, bound);
    return QRegularExpression(pattern).match(QString::fromUtf8(document)).captured(1);
}

QTreeView *viewOf(QWidget *dialog)
{
    return dialog->findChild<QTreeView *>(QStringLiteral("FileGroupView"));
}

QModelIndex groupRow(QTreeView *view, const QString &guid)
{
    QAbstractItemModel *model = view->model();
    for (int row = 0; row < model->rowCount(); ++row) {
        if (model->index(row, 14).data().toString() == guid)
            return model->index(row, 0);
    }
    return QModelIndex();
}

void click(QTreeView *view, const QModelIndex &index)
{
    view->scrollTo(index);
    QTest::mouseClick(view->viewport(), Qt::LeftButton, Qt::NoModifier, view->visualRect(index).center());
}

// Expands the group, clicks it, then clicks its file row at fileRow when that
// is not negative, and reports whether OK was enabled after each click.
QList<bool> pick(QWidget *dialog, const QString &guid, int fileRow)
{
    QTreeView *view = viewOf(dialog);
    auto *ok = dialog->findChild<QPushButton *>(QStringLiteral("OkButton"));
    QList<bool> enabled;
    if (!QTest::qWaitFor([&] { return groupRow(view, guid).isValid(); }, kWaitMs))
        return enabled;
    const QModelIndex group = groupRow(view, guid);
    view->expand(group);
    click(view, group);
    enabled.append(ok->isEnabled());
    if (fileRow >= 0 && view->model()->rowCount(group) > fileRow) {
        click(view, view->model()->index(fileRow, 0, group));
        enabled.append(ok->isEnabled());
    }
    return enabled;
}

} // namespace

// The select dialog against a scripted peer: the queries of quick mode, the
// choice of a file, hidden columns, and how query errors are shown.
class FileSelectDialogTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void quickQuery_data();
    void quickQuery();
    void selectedFile_data();
    void selectedFile();
    void keyboardMoves_data();
    void keyboardMoves();
    void openFromTheArchive_data();
    void openFromTheArchive();
    void queryErrors_data();
    void queryErrors();

private:
    ScriptedPeer *m_peer = nullptr;
    KeldaClient *m_client = nullptr;
};

void FileSelectDialogTest::initTestCase()
{
    ErrorHandler::Instance()->SetLevel(0);
    m_peer = new ScriptedPeer;
    m_client = new KeldaClient(QStringLiteral("127.0.0.1"), m_peer->port(), QStringLiteral("app"),
                               QStringLiteral("user"), QStringLiteral("team"));
    QSignalSpy connected(m_client, &KeldaClient::connected);
    QVERIFY(connected.wait(kWaitMs));
}

void FileSelectDialogTest::cleanupTestCase()
{
    delete m_client;
    delete m_peer;
}

void FileSelectDialogTest::init()
{
    m_peer->setReplyChildren(QStringLiteral("QueryFileGroups"),
                             GroupTable::queryReply(
                                 {{QStringLiteral("first"), kGuidA}, {QStringLiteral("second"), kGuidB}}));
    m_peer->setReplyChildren(QStringLiteral("GetFileList"),
                             GroupTable::fileListReply({{4, QStringLiteral("a.bin")}, {9, QStringLiteral("b.bin")}}));
}

void FileSelectDialogTest::quickQuery_data()
{
    QTest::addColumn<int>("typeIndex");
    QTest::addColumn<int>("timeIndex");
    QTest::addColumn<QString>("fileType");
    QTest::addColumn<QString>("range");

    QTest::newRow("as constructed") << 0 << 0 << QStringLiteral("8") << QStringLiteral("CreationTime");
    QTest::newRow("other type") << 1 << 0 << QStringLiteral("11") << QStringLiteral("CreationTime");
    QTest::newRow("modification time") << 1 << 1 << QStringLiteral("11") << QStringLiteral("ModificationTime");
}

// Quick mode queries again on every change, always for central groups only.
void FileSelectDialogTest::quickQuery()
{
    QFETCH(int, typeIndex);
    QFETCH(int, timeIndex);
    QFETCH(QString, fileType);
    QFETCH(QString, range);

    FileSelectDialog dialog(m_client, nullptr, QStringLiteral("t"), QStringLiteral("Open"), false,
                            {FT_ScanRecording, FT_Image});
    dialog.findChild<QComboBox *>(QStringLiteral("TypeComboBox"))->setCurrentIndex(typeIndex);
    dialog.findChild<QComboBox *>(QStringLiteral("TimeComboBox"))->setCurrentIndex(timeIndex);

    const QByteArray sent = m_peer->requests(QStringLiteral("QueryFileGroups")).last().document;
    QCOMPARE(requestField(sent, QStringLiteral("LocationState")), QStringLiteral("2"));
    QCOMPARE(requestField(sent, QStringLiteral("FileType")), fileType);
    const QString other =
        range == QLatin1String("CreationTime") ? QStringLiteral("ModificationTime") : QStringLiteral("CreationTime");
    QVERIFY(!requestField(sent, range, QStringLiteral("Min")).isEmpty());
    QVERIFY(!requestField(sent, range, QStringLiteral("Max")).isEmpty());
    QVERIFY(requestField(sent, other, QStringLiteral("Min")).isEmpty());
    QCOMPARE(viewOf(&dialog)->model()->rowCount(), 2);
}

void FileSelectDialogTest::selectedFile_data()
{
    QTest::addColumn<int>("fileRow");
    QTest::addColumn<QList<bool>>("okEnabled");
    QTest::addColumn<QUrl>("url");

    QTest::newRow("group row only: cancel") << -1 << QList<bool>{false} << KeldaUrl::fromKeldaIds(QString(), 0);
    // The second file, id 9, comes back as stored: plus 1.
    QTest::newRow("file row") << 1 << QList<bool>{false, true} << KeldaUrl::fromKeldaIds(kGuidB, 10);
}

// GetSelectedFile runs the quick dialog with every offered type; only a file
// row enables OK, and a cancel still sets the URL.
void FileSelectDialogTest::selectedFile()
{
    QFETCH(int, fileRow);
    QFETCH(QList<bool>, okEnabled);
    QFETCH(QUrl, url);

    QList<bool> enabled;
    QStringList shownHeaders;
    whenModal<FileSelectDialog>([&](FileSelectDialog *dialog) {
        QTreeView *view = viewOf(dialog);
        for (int column = 0; column < view->model()->columnCount(); ++column) {
            if (!view->isColumnHidden(column))
                shownHeaders.append(view->model()->headerData(column, Qt::Horizontal).toString());
        }
        enabled = pick(dialog, kGuidB, fileRow);
        auto *ok = dialog->findChild<QPushButton *>(QStringLiteral("OkButton"));
        ok->isEnabled() ? ok->click() : dialog->reject();
    });
    KeldaUrl chosen(QStringLiteral("kelda:///stale/1"));
    QCOMPARE(m_client->GetSelectedFile(nullptr, QStringLiteral("Pick"), chosen), okEnabled.size() == 2);
    QCOMPARE(enabled, okEnabled);
    QCOMPARE(QUrl(chosen), url);
    QCOMPARE(shownHeaders,
             (QStringList{QStringLiteral("File type"), QStringLiteral("Backup time"),
                          QStringLiteral("Modification time"), QStringLiteral("Creator"), QStringLiteral("Detail"),
                          QStringLiteral("Team")}));
}

void FileSelectDialogTest::keyboardMoves_data()
{
    QTest::addColumn<int>("startRow");
    QTest::addColumn<int>("key");
    QTest::addColumn<bool>("picked");
    QTest::addColumn<QUrl>("url");

    // A start row of -1 is the group itself; its files are 4 and 9, stored plus 1.
    QTest::newRow("file, up to its group") << 0 << int(Qt::Key_Up) << false << KeldaUrl::fromKeldaIds(QString(), 0);
    QTest::newRow("group, down to a file") << -1 << int(Qt::Key_Down) << true << KeldaUrl::fromKeldaIds(kGuidB, 5);
    QTest::newRow("file, down to the next") << 0 << int(Qt::Key_Down) << true << KeldaUrl::fromKeldaIds(kGuidB, 10);
}

// OK follows the current row however it moves; an accept that bypasses OK
// still yields nothing for a group row.
void FileSelectDialogTest::keyboardMoves()
{
    QFETCH(int, startRow);
    QFETCH(int, key);
    QFETCH(bool, picked);
    QFETCH(QUrl, url);

    bool okEnabled = false;
    whenModal<FileSelectDialog>([&](FileSelectDialog *dialog) {
        pick(dialog, kGuidB, startRow);
        QTest::keyClick(viewOf(dialog), Qt::Key(key));
        okEnabled = dialog->findChild<QPushButton *>(QStringLiteral("OkButton"))->isEnabled();
        dialog->accept();
    });
    KeldaUrl chosen;
    QCOMPARE(m_client->GetSelectedFile(nullptr, QStringLiteral("Pick"), chosen), picked);
    QCOMPARE(okEnabled, picked);
    QCOMPARE(QUrl(chosen), url);
}

void FileSelectDialogTest::openFromTheArchive_data()
{
    QTest::addColumn<bool>("asFile");
    QTest::addColumn<QVector<FileType>>("types");

    const QVector<FileType> one{FT_ScanRecording};
    QTest::newRow("GetOpenUrl") << false << one;
    QTest::newRow("GetOpenFile") << true << one;
    QTest::newRow("GetOpenUrl, no types") << false << QVector<FileType>();
    QTest::newRow("GetOpenFile, no types") << true << QVector<FileType>();
}

// Each helper has a client of its own, which connects before the dialog
// shows. No types means every offered one.
void FileSelectDialogTest::openFromTheArchive()
{
    QFETCH(bool, asFile);
    QFETCH(QVector<FileType>, types);

    QVector<FileType> offered;
    whenModal<FileSelectDialog>([&offered](FileSelectDialog *dialog) {
        const auto *combo = dialog->findChild<QComboBox *>(QStringLiteral("TypeComboBox"));
        for (int i = 0; i < combo->count(); ++i)
            offered.append(FileType(combo->itemData(i).toInt()));
        pick(dialog, kGuidA, 0);
        dialog->findChild<QPushButton *>(QStringLiteral("OkButton"))->click();
    });
    QString name;
    if (asFile) {
        const boost::shared_ptr<KeldaFile> file =
            KeldaFileDialog::GetOpenFile(nullptr, QStringLiteral("Open"), QString(), QString(), nullptr, types);
        QVERIFY(file);
        name = file->GetName();
    } else {
        name = KeldaFileDialog::GetOpenUrl(nullptr, QStringLiteral("Open"), QString(), QString(), nullptr, types)
                   .toString();
    }
    QCOMPARE(name, QStringLiteral("kelda:///%1/5").arg(kGuidA));
    const QVector<FileType> expected = types.isEmpty() ? FileTypeManager::Instance()->GetTypes() : types;
    QCOMPARE(offered, expected);
    const QByteArray sent = m_peer->requests(QStringLiteral("QueryFileGroups")).last().document;
    QCOMPARE(requestField(sent, QStringLiteral("FileType")), QString::number(expected.first()));
}

void FileSelectDialogTest::queryErrors_data()
{
    QTest::addColumn<bool>("queryMode");
    QTest::addColumn<int>("rowsAfter");

    QTest::newRow("quick query keeps the old rows") << false << 2;
    QTest::newRow("query dialog empties the tree") << true << 0;
}

void FileSelectDialogTest::queryErrors()
{
    QFETCH(bool, queryMode);
    QFETCH(int, rowsAfter);

    FileSelectDialog dialog(m_client, nullptr, QStringLiteral("t"), QStringLiteral("Open"), queryMode,
                            {FT_ScanRecording});
    const auto query = [&] {
        if (!queryMode) {
            auto *time = dialog.findChild<QComboBox *>(QStringLiteral("TimeComboBox"));
            time->setCurrentIndex(1 - time->currentIndex());
            return;
        }
        whenModal<QueryDialog>([](QueryDialog *edit) { edit->accept(); });
        dialog.OpenQueryDialog();
    };
    query();
    QCOMPARE(viewOf(&dialog)->model()->rowCount(), 2);

    m_peer->setReplyChildren(QStringLiteral("QueryFileGroups"), GroupTable::queryReply({}, KE_QueryFilesFailed));
    QString title;
    QString text;
    whenModal<QMessageBox>([&](QMessageBox *box) {
        title = box->windowTitle();
        text = box->text();
        box->accept();
    });
    query();
    QTRY_COMPARE_WITH_TIMEOUT(text, KeldaErrorString::Get(KE_QueryFilesFailed), kWaitMs);
    QCOMPARE(title, QStringLiteral("Error"));
    QCOMPARE(viewOf(&dialog)->model()->rowCount(), rowsAfter);
}

QTEST_MAIN(FileSelectDialogTest)
#include "tst_fileselectdialog.moc"
