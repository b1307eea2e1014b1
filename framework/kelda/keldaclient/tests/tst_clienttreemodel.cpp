#include "clienttreemodel.h"
#include "filegroupcolumns.h"
#include "grouptable.h"
#include "keldaclient.h"
#include "scriptedpeer.h"
#include "trace.h"

#include <QSignalSpy>
#include <QtTest>

#include <memory>
#include <mutex>

using namespace Kelda;

using Files = QVector<QPair<int, QString>>;

namespace {

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

} // namespace

// The tree of query results: built from the flat table, files fetched once
// per group through a client on a scripted peer, counters sorted as numbers.
class ClientTreeModelTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
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

void ClientTreeModelTest::initTestCase()
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
    QVERIFY(connected.wait(10000));
}

void ClientTreeModelTest::cleanupTestCase()
{
    delete m_client;
    delete m_peer;
    ErrorHandler::Instance()->SetTraceHook({});
}

void ClientTreeModelTest::init()
{
    const std::lock_guard<std::mutex> lock(m_tracesMutex);
    m_traces.clear();
}

QStringList ClientTreeModelTest::traces() const
{
    const std::lock_guard<std::mutex> lock(m_tracesMutex);
    return m_traces;
}

void ClientTreeModelTest::setup_data()
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

void ClientTreeModelTest::setup()
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

void ClientTreeModelTest::fetchMore_data()
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

void ClientTreeModelTest::fetchMore()
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

void ClientTreeModelTest::failedFetchCanBeRetried()
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

void ClientTreeModelTest::sorting_data()
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

void ClientTreeModelTest::sorting()
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

void ClientTreeModelTest::itemCopies_data()
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
void ClientTreeModelTest::itemCopies()
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
void ClientTreeModelTest::itemIsOnePointer()
{
    QCOMPARE(sizeof(FileGroupTreeItem), sizeof(void *));
}

QTEST_MAIN(ClientTreeModelTest)
#include "tst_clienttreemodel.moc"
