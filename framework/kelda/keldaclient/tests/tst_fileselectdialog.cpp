#include "clienttreemodel.h"
#include "filegroupcolumns.h"
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

#include <memory>
#include <mutex>

using namespace Kelda;

using Files = QVector<QPair<int, QString>>;

namespace {

const QString kGuidA = QStringLiteral("aaaaaaaa-1111-4c2f-9d3e-5f6a7b8c9d0e");
const QString kGuidB = QStringLiteral("bbbbbbbb-2222-4c2f-9d3e-5f6a7b8c9d0e");
const int kWaitMs = 10000;

const QString kGuid = QStringLiteral("5d1c0e9a-3b2f-4c6d-8e7f-0a1b2c3d4e5f");

QStringList column0(const QAbstractItemModel &model, const QModelIndex &parent, int column = 0)
{
    QStringList texts;
    for (int row = 0; row < model.rowCount(parent); ++row)
        texts.append(model.index(row, column, parent).data().toString());
    return texts;
}

// The tree below item as text: "name(child,child(grandchild))", with a "!"
// after every child whose Parent() is not the item that holds it.
QString shape(const FileGroupTreeItem &item)
{
    QString text = item.Data(0).toString();
    if (item.ChildCount() == 0)
        return text;
    QStringList children;
    for (int row = 0; row < item.ChildCount(); ++row) {
        const FileGroupTreeItem *child = item.Child(row);
        children.append(shape(*child) + (child->Parent() == &item ? QString() : QStringLiteral("!")));
    }
    return text + QLatin1Char('(') + children.join(QLatin1Char(',')) + QLatin1Char(')');
}

// A group "g" with the files "a" and "b", "b" holding "c".
void buildGroup(FileGroupTreeItem &group)
{
    group.SetData(0, QStringLiteral("g"));
    group.InsertChildren(0, 2, 1);
    group.Child(0)->SetData(0, QStringLiteral("a"));
    group.Child(1)->SetData(0, QStringLiteral("b"));
    group.Child(1)->InsertChildren(0, 1, 1);
    group.Child(1)->Child(0)->SetData(0, QStringLiteral("c"));
}

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
// choice of a file, hidden columns, and how query errors are shown. And its
// tree of query results: built from the flat table, files fetched once per
// group through the client, counters sorted as numbers.
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
    void setup_data();
    void setup();
    void fetchMore_data();
    void fetchMore();
    void failedFetchCanBeRetried();
    void sorting_data();
    void sorting();
    void itemCopies_data();
    void itemCopies();
    void itemIsOnePointer();

private:
    ScriptedPeer *m_peer = nullptr;
    KeldaClient *m_client = nullptr;
    QStringList traces() const;

    // Filled on the client's threads.
    mutable std::mutex m_tracesMutex;
    QStringList m_traces;
};

void FileSelectDialogTest::initTestCase()
{
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
    ErrorHandler::Instance()->SetTraceHook([this](const QString &text, const char *, int) {
        const std::lock_guard<std::mutex> lock(m_tracesMutex);
        m_traces.append(text);
    });
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
    ErrorHandler::Instance()->SetTraceHook({});
}

void FileSelectDialogTest::init()
{
    {
        const std::lock_guard<std::mutex> lock(m_tracesMutex);
        m_traces.clear();
    }
    m_peer->setReplyChildren(QStringLiteral("QueryFileGroups"),
                             GroupTable::queryReply(
                                 {{QStringLiteral("first"), kGuidA}, {QStringLiteral("second"), kGuidB}}));
    m_peer->setReplyChildren(QStringLiteral("GetFileList"),
                             GroupTable::fileListReply({{4, QStringLiteral("a.bin")}, {9, QStringLiteral("b.bin")}}));
}

QStringList FileSelectDialogTest::traces() const
{
    const std::lock_guard<std::mutex> lock(m_tracesMutex);
    return m_traces;
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

void FileSelectDialogTest::setup_data()
{
    QTest::addColumn<QStringList>("data");
    QTest::addColumn<int>("columns");
    QTest::addColumn<int>("rows");
    QTest::addColumn<int>("shownColumns");
    QTest::addColumn<QString>("trace");

    const QStringList two =
        GroupTable::table({{QStringLiteral("a"), QStringLiteral("g-a")}, {QStringLiteral("b"), QStringLiteral("g-b")}});
    QTest::newRow("no columns") << two << 0 << 0 << 0
                                << QStringLiteral("ClientTreeModel::SetupModelData: Invalid number of columns (%!)");
    const int columns = FileGroupColumn::Count;
    QTest::newRow("shorter than a row") << QStringList(two.mid(0, 10)) << columns << 0 << 0
                                        << QStringLiteral(
                                               "ClientTreeModel::SetupModelData: Invalid number of rows (%!)");
    QTest::newRow("headers only") << QStringList(two.mid(0, columns)) << columns << 0 << columns - 1 << QString();
    QTest::newRow("two groups") << two << columns << 2 << columns - 1 << QString();
}

void FileSelectDialogTest::setup()
{
    QFETCH(QStringList, data);
    QFETCH(int, columns);
    QFETCH(int, rows);
    QFETCH(int, shownColumns);
    QFETCH(QString, trace);

    ClientTreeModel model(data, columns, nullptr, QString());
    QCOMPARE(model.rowCount(), rows);
    QCOMPARE(model.columnCount(), shownColumns);
    QCOMPARE(traces(), trace.isEmpty() ? QStringList() : QStringList{trace});
    if (shownColumns == 0)
        return;
    // The name column is never shown; the GUID is the last column and the guid.
    QCOMPARE(model.headerData(0, Qt::Horizontal).toString(), data.at(1));
    const int guidColumn = FileGroupColumn::Guid - 1;
    QCOMPARE(model.headerData(guidColumn, Qt::Horizontal).toString(), QStringLiteral("Guid"));
    for (int row = 0; row < rows; ++row) {
        const QModelIndex group = model.index(row, 0);
        const QString guid = data.at(FileGroupColumn::Count * (row + 1) + FileGroupColumn::Guid);
        QCOMPARE(model.GetItem(group)->GetGuid(), guid);
        QCOMPARE(model.index(row, guidColumn).data().toString(), guid);
        QVERIFY(model.hasChildren(group) && model.canFetchMore(group));
    }
    QVERIFY(!model.canFetchMore(QModelIndex()));
}

void FileSelectDialogTest::fetchMore_data()
{
    QTest::addColumn<QString>("filter");
    QTest::addColumn<Files>("files");
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<QList<unsigned int>>("fileIds");

    const Files files{{3, QStringLiteral("a.txt")}, {7, QStringLiteral("b.xml")}, {12, QStringLiteral("c.TXT")}};
    QTest::newRow("no filter: ids plus 1")
        << QString() << files << QStringList{QStringLiteral("a.txt"), QStringLiteral("b.xml"), QStringLiteral("c.TXT")}
        << QList<unsigned int>{4, 8, 13};
    QTest::newRow("one ending, case-sensitive")
        << QStringLiteral("Text (*.txt)") << files << QStringList{QStringLiteral("a.txt")} << QList<unsigned int>{1};
    QTest::newRow("two parts") << QStringLiteral("Text (*.txt);;;;XML (*.xml)") << files
                               << QStringList{QStringLiteral("a.txt"), QStringLiteral("b.xml")}
                               << QList<unsigned int>{1, 1};
    QTest::newRow("several patterns in a part never match")
        << QStringLiteral("Any (*.txt *.xml)") << files << QStringList() << QList<unsigned int>();
    QTest::newRow("empty group") << QString() << Files() << QStringList() << QList<unsigned int>();
}

void FileSelectDialogTest::fetchMore()
{
    QFETCH(QString, filter);
    QFETCH(Files, files);
    QFETCH(QStringList, names);
    QFETCH(QList<unsigned int>, fileIds);

    m_peer->setReplyChildren(QStringLiteral("GetFileList"), GroupTable::fileListReply(files));
    const int sentBefore = m_peer->requests(QStringLiteral("GetFileList")).size();
    ClientTreeModel model(GroupTable::table({{QStringLiteral("n"), kGuid}}), FileGroupColumn::Count, m_client, filter);
    const QModelIndex group = model.index(0, 0);
    model.fetchMore(group);
    model.fetchMore(group);

    const QList<ScriptedPeer::Request> sent = m_peer->requests(QStringLiteral("GetFileList"));
    QCOMPARE(sent.size(), sentBefore + 1);
    QVERIFY(sent.last().document.contains(kGuid.toUtf8()));
    QCOMPARE(column0(model, group), names);
    QList<unsigned int> ids;
    for (int row = 0; row < model.rowCount(group); ++row) {
        ids.append(model.GetItem(model.index(row, 0, group))->GetFileId());
        QCOMPARE(model.parent(model.index(row, 3, group)), group);
    }
    QCOMPARE(ids, fileIds);
    // A group without (matching) files loses its expander.
    QCOMPARE(model.hasChildren(group), !names.isEmpty());
    QVERIFY(!model.canFetchMore(group));
}

void FileSelectDialogTest::failedFetchCanBeRetried()
{
    m_peer->setReplyChildren(QStringLiteral("GetFileList"), GroupTable::fileListReply({}, 2));
    ClientTreeModel model(GroupTable::table({{QStringLiteral("n"), kGuid}}), FileGroupColumn::Count, m_client,
                          QString());
    const QModelIndex group = model.index(0, 0);
    model.fetchMore(group);
    QCOMPARE(model.rowCount(group), 0);
    QVERIFY(model.hasChildren(group));
    QVERIFY(model.canFetchMore(group));
    QVERIFY(traces().contains(QStringLiteral("ClientTreeModel::fetchMore: KeldaError caught: 2")));

    m_peer->setReplyChildren(QStringLiteral("GetFileList"), GroupTable::fileListReply({{1, QStringLiteral("x")}}));
    model.fetchMore(group);
    QCOMPARE(column0(model, group), QStringList{QStringLiteral("x")});
}

void FileSelectDialogTest::sorting_data()
{
    QTest::addColumn<QString>("header");
    QTest::addColumn<QStringList>("sorted");

    // Groups have lock counts and versions 10, 9, 100.
    QTest::newRow("count column as numbers")
        << QStringLiteral("Lock count")
        << QStringList{QStringLiteral("9"), QStringLiteral("10"), QStringLiteral("100")};
    QTest::newRow("other columns as text")
        << QStringLiteral("Version") << QStringList{QStringLiteral("10"), QStringLiteral("100"), QStringLiteral("9")};
}

void FileSelectDialogTest::sorting()
{
    QFETCH(QString, header);
    QFETCH(QStringList, sorted);

    const QStringList counts{QStringLiteral("10"), QStringLiteral("9"), QStringLiteral("100")};
    ClientTreeModel model(GroupTable::table({{QStringLiteral("b"), QStringLiteral("g-0")},
                                             {QStringLiteral("c"), QStringLiteral("g-1")},
                                             {QStringLiteral("a"), QStringLiteral("g-2")}},
                                            counts),
                          FileGroupColumn::Count, nullptr, QString());
    FileGroupSortModel sortModel;
    sortModel.setSourceModel(&model);
    QStringList headers;
    for (int column = 0; column < model.columnCount(); ++column)
        headers.append(model.headerData(column, Qt::Horizontal).toString());
    const int column = headers.indexOf(header);
    sortModel.sort(column, Qt::AscendingOrder);
    QCOMPARE(column0(sortModel, QModelIndex(), column), sorted);
}

void FileSelectDialogTest::itemCopies_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<QString>("copied");
    QTest::newRow("copy construction") << QStringLiteral("construct") << QStringLiteral("g(a,b(c))");
    QTest::newRow("assignment over a tree") << QStringLiteral("assign") << QStringLiteral("g(a,b(c))");
    QTest::newRow("assignment from its own child") << QStringLiteral("own child") << QStringLiteral("b(c)");
    QTest::newRow("assignment to itself") << QStringLiteral("self") << QStringLiteral("g(a,b(c))");
}

// A copy owns copies of the children, which name the copy as their parent;
// changing it leaves the original alone.
void FileSelectDialogTest::itemCopies()
{
    QFETCH(QString, how);
    QFETCH(QString, copied);
    FileGroupTreeItem original(QVector<QVariant>(1));
    buildGroup(original);

    FileGroupTreeItem target(QVector<QVariant>{QStringLiteral("old")});
    target.InsertChildren(0, 3, 1);
    FileGroupTreeItem *result = &target;
    std::unique_ptr<FileGroupTreeItem> constructed;
    if (how == QLatin1String("construct")) {
        constructed = std::make_unique<FileGroupTreeItem>(original);
        result = constructed.get();
    } else if (how == QLatin1String("assign")) {
        target = original;
    } else if (how == QLatin1String("own child")) {
        buildGroup(target = FileGroupTreeItem(QVector<QVariant>(1)));
        target = *target.Child(1);
    } else {
        target = original;
        const FileGroupTreeItem &self = target;
        target = self;
    }

    QCOMPARE(shape(*result), copied);
    result->Child(0)->SetData(0, QStringLiteral("changed"));
    QCOMPARE(shape(original), QStringLiteral("g(a,b(c))"));
}

// The exported item keeps its data behind a pointer, so that the data can
// change without breaking applications built against an older library.
void FileSelectDialogTest::itemIsOnePointer()
{
    QCOMPARE(sizeof(FileGroupTreeItem), sizeof(void *));
}

QTEST_MAIN(FileSelectDialogTest)
#include "tst_fileselectdialog.moc"
