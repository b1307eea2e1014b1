#include "filequery.h"
#include "keldaclient.h"
#include "keldafile.h"
#include "scriptedpeer.h"
#include "trace.h"
#include "transporttimings.h"

#include <QDir>
#include <QElapsedTimer>
#include <QPointer>
#include <QScopeGuard>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTimer>
#include <QXmlStreamReader>
#include <QtEndian>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

using namespace Kelda;

using BlockingCall = std::function<QVariant(KeldaClient &)>;
using AsyncCall = std::function<QString(KeldaClient &)>;
using Operation = std::function<void(KeldaClient &)>;
Q_DECLARE_METATYPE(BlockingCall)
Q_DECLARE_METATYPE(AsyncCall)
Q_DECLARE_METATYPE(Operation)

namespace {

const QString kGuid = QStringLiteral("0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e");
const int kSignalWaitMs = 10000;
// Short, so that no test sits through a real reconnect interval or stop wait.
const int kReconnectIntervalMs = 100;
const unsigned long kThreadStopWaitMs = 100;

// The text of the first element with this local name in a request.
QString field(const QByteArray &document, const QString &name)
{
    QXmlStreamReader reader(document);
    while (reader.readNextStartElement() || !reader.atEnd()) {
        if (reader.isStartElement() && reader.name() == name)
            return reader.readElementText();
    }
    return QString();
}

const char kFileGroupChildren[] =
    "<m:FileGroup><m:Guid>g-1</m:Guid><m:FileGroupName>scan</m:FileGroupName><m:FileType>8</m:FileType>"
    "<m:Creator>ann</m:Creator></m:FileGroup><m:Error>0</m:Error>";

} // namespace

// The client against a scripted peer on loopback: the handshake, every
// operation in its blocking and asynchronous form, the error state and the
// ways a connection or a reply can go wrong; and KeldaFile's create-new
// constructor when the creation of its group fails.
class KeldaClientTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void handshake();
    void waitForConnected_data();
    void waitForConnected();
    void privateSlotsByName();
    void blockingOperations_data();
    void blockingOperations();
    void asyncOperations_data();
    void asyncOperations();
    void errorState_data();
    void errorState();
    void requestFields_data();
    void requestFields();
    void createFileGroupMakesTheLocalDirectoryFirst();
    void isValidUrl_data();
    void isValidUrl();
    void peerClosingEndsABlockingCallAtOnce();
    void malformedReplyLosesOnlyItself();
    void oversizedFrameClosesTheConnection();
    void serverInitiatedMessages();
    void destructionDoesNotWaitForAHungSender();
    void failedFileCreationSendsNothingMore_data();
    void failedFileCreationSendsNothingMore();

private:
    // The request id of a command as the peer received it: the only way to
    // match the signal of an operation that returns no id.
    QString sentRequestId(const QString &command);

    QTemporaryDir m_basePath;
    ScriptedPeer *m_peer = nullptr;
    KeldaClient *m_client = nullptr;
    // The traces so far; the hook appends from the client's threads.
    QStringList traces() const;

    mutable std::mutex m_tracesMutex;
    QStringList m_traces;
};

void KeldaClientTest::initTestCase()
{
    TransportTimings::SetReconnectIntervalMs(kReconnectIntervalMs);
    TransportTimings::SetThreadStopWaitMs(kThreadStopWaitMs);
}

void KeldaClientTest::init()
{
    QVERIFY(m_basePath.isValid());
    {
        const std::lock_guard<std::mutex> lock(m_tracesMutex);
        m_traces.clear();
    }
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
    ErrorHandler::Instance()->SetTraceHook([this](const QString &text, const char *, int) {
        const std::lock_guard<std::mutex> lock(m_tracesMutex);
        m_traces.append(text);
    });
    m_peer = new ScriptedPeer;
    m_peer->setBasePath(m_basePath.path());
    m_client = new KeldaClient(QStringLiteral("127.0.0.1"), m_peer->port(), QStringLiteral("app"),
                               QStringLiteral("user"), QStringLiteral("team"));
    QSignalSpy connected(m_client, &KeldaClient::connected);
    QVERIFY(connected.wait(kSignalWaitMs));
}

void KeldaClientTest::cleanup()
{
    delete m_client;
    m_client = nullptr;
    delete m_peer;
    m_peer = nullptr;
    ErrorHandler::Instance()->SetTraceHook({});
}

QStringList KeldaClientTest::traces() const
{
    const std::lock_guard<std::mutex> lock(m_tracesMutex);
    return m_traces;
}

void KeldaClientTest::handshake()
{
    QVERIFY(m_client->IsConnected());
    QCOMPARE(m_client->getBasePath(), m_basePath.path());
    QCOMPARE(m_peer->requests(QStringLiteral("GetBasePath")).size(), 1);
    QVERIFY(!traces().contains(QStringLiteral("Directory does not exist: ") + m_basePath.path()));
}

void KeldaClientTest::waitForConnected_data()
{
    QTest::addColumn<QString>("server");
    QTest::addColumn<int>("msecs");
    QTest::addColumn<bool>("connected");
    QTest::addColumn<bool>("ranEventLoop");

    QTest::newRow("already connected") << QStringLiteral("connected") << kSignalWaitMs << true << false;
    QTest::newRow("connects meanwhile") << QStringLiteral("peer") << kSignalWaitMs << true << true;
    QTest::newRow("no time limit") << QStringLiteral("peer") << -1 << true << true;
    QTest::newRow("nobody listens") << QStringLiteral("nobody") << 100 << false << true;
}

void KeldaClientTest::waitForConnected()
{
    QFETCH(QString, server);
    QFETCH(int, msecs);
    QFETCH(bool, connected);
    QFETCH(bool, ranEventLoop);

    quint16 port = m_peer->port();
    if (server == QLatin1String("nobody")) {
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        port = probe.serverPort();
    }
    std::unique_ptr<KeldaClient> fresh;
    if (server != QLatin1String("connected"))
        fresh = std::make_unique<KeldaClient>(QStringLiteral("127.0.0.1"), port, QStringLiteral("app"),
                                              QStringLiteral("user"), QString());
    KeldaClient *client = fresh ? fresh.get() : m_client;

    // A zero timer fires only if the call runs an event loop.
    QTimer zero;
    zero.setSingleShot(true);
    zero.start(0);
    QCOMPARE(client->WaitForConnected(msecs), connected);
    QCOMPARE(client->IsConnected(), connected);
    QCOMPARE(!zero.isActive(), ranEventLoop);
}

// The private slots left the header but not the meta-object: code that
// names them in a string still reaches them.
void KeldaClientTest::privateSlotsByName()
{
    QSignalSpy created(m_client, &KeldaClient::CreateFileGroupSg);
    QSignalSpy added(m_client, &KeldaClient::AddFileSg);
    QSignalSpy lost(m_client, &KeldaClient::disconnected);
    QVERIFY(QMetaObject::invokeMethod(m_client, "EmitCreateFileGroupSg", Q_ARG(QString, kGuid),
                                      Q_ARG(QString, QStringLiteral("/p"))));
    QVERIFY(QMetaObject::invokeMethod(m_client, "EmitAddFileSg", Q_ARG(QString, QStringLiteral("r")),
                                      Q_ARG(unsigned int, 3u)));
    QVERIFY(QMetaObject::invokeMethod(m_client, "SlotDisconnected"));
    QVERIFY(!m_client->IsConnected());
    QVERIFY(QMetaObject::invokeMethod(m_client, "SlotConnected", Q_ARG(QString, m_basePath.path())));
    QCOMPARE(created.value(0), (QVariantList{kGuid, QStringLiteral("/p")}));
    QCOMPARE(added.value(0), (QVariantList{QStringLiteral("r"), 3u}));
    QCOMPARE(lost.size(), 1);
    QVERIFY(m_client->IsConnected());
}

void KeldaClientTest::blockingOperations_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("children");
    QTest::addColumn<BlockingCall>("call");
    QTest::addColumn<QVariant>("expected");

    auto add = [](const char *name, const QString &command, const QString &children, BlockingCall call,
                  const QVariant &expected) { QTest::newRow(name) << command << children << call << expected; };
    auto create = [](KeldaClient &c) {
        QString localPath;
        return QVariant(c.CreateFileGroup(QStringLiteral("1.0"), QDateTime::currentDateTime(), QString(), QString(),
                                          FT_Image, 0, QStringLiteral("grp"), localPath, kGuid));
    };
    add(
        "RequestFile", QStringLiteral("RequestFile"), QStringLiteral("<m:Path>/a/b.bin</m:Path>"),
        [](KeldaClient &c) { return QVariant(c.RequestFile(3, kGuid, LOCK_Read)); }, QStringLiteral("/a/b.bin"));
    add(
        "AddFile", QStringLiteral("AddFile"), QStringLiteral("<m:FileId>17</m:FileId>"),
        [](KeldaClient &c) { return QVariant(c.AddFile(QStringLiteral("/x/a.bin"), kGuid)); }, 17u);
    add(
        "AddFile refused", QStringLiteral("AddFile"), QStringLiteral("<m:FileId>17</m:FileId><m:Error>26</m:Error>"),
        [](KeldaClient &c) { return QVariant(c.AddFile(QStringLiteral("/x/a.bin"), kGuid)); }, 0u);
    add(
        "GetUserList", QStringLiteral("GetUserList"),
        QStringLiteral("<m:Users><m:User>ann</m:User><m:User>bob</m:User></m:Users>"),
        [](KeldaClient &c) { return QVariant(c.GetUserList()); },
        QStringList{QStringLiteral("ann"), QStringLiteral("bob")});
    add(
        "GetApplicationList", QStringLiteral("GetApplicationList"),
        QStringLiteral("<m:Applications><m:Application>viewer</m:Application></m:Applications>"),
        [](KeldaClient &c) { return QVariant(c.GetApplicationList()); }, QStringList{QStringLiteral("viewer")});
    add(
        "GetFileList", QStringLiteral("GetFileList"),
        QStringLiteral("<m:Files><m:File><m:FileId>1</m:FileId><m:FileName>a</m:FileName></m:File></m:Files>"),
        [](KeldaClient &c) { return QVariant(c.GetFileList(kGuid)); },
        QStringList{QStringLiteral("1"), QStringLiteral("a")});
    // Column count, table size, then name, creator and Guid of the one group.
    add(
        "QueryFiles", QStringLiteral("QueryFileGroups"), QString::fromLatin1(kFileGroupChildren),
        [](KeldaClient &c) {
            unsigned int count = 0;
            const QStringList table = c.QueryFiles(FileQuery(), count);
            return QVariant(QStringList{QString::number(count), QString::number(table.size()), table.value(16),
                                        table.value(24), table.value(31)});
        },
        QStringList{QStringLiteral("16"), QStringLiteral("32"), QStringLiteral("scan"), QStringLiteral("ann"),
                    QStringLiteral("g-1")});
    add("CreateFileGroup", QStringLiteral("CreateFileGroup"), QStringLiteral("<m:Guid>%1</m:Guid>").arg(kGuid), create,
        kGuid);
    add("CreateFileGroup refused", QStringLiteral("CreateFileGroup"), QStringLiteral("<m:Error>36</m:Error>"), create,
        QString());
}

void KeldaClientTest::blockingOperations()
{
    QFETCH(QString, command);
    QFETCH(QString, children);
    QFETCH(BlockingCall, call);
    QFETCH(QVariant, expected);

    m_peer->setReplyChildren(command, children);
    QCOMPARE(call(*m_client), expected);
    QCOMPARE(m_peer->requests(command).size(), 1);
}

void KeldaClientTest::asyncOperations_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("children");
    QTest::addColumn<AsyncCall>("call");
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<QVariantList>("arguments"); // after the request id

    auto add = [](const QString &command, const QString &children, AsyncCall call, const char *signal,
                  const QVariantList &arguments) {
        QTest::newRow(qPrintable(command)) << command << children << call << QByteArray(signal) << arguments;
    };
    // Operations that return nothing are matched by the id their request carried.
    auto sent = [this](const QString &command, std::function<void(KeldaClient &)> operation) {
        return AsyncCall([this, command, operation](KeldaClient &c) {
            operation(c);
            return sentRequestId(command);
        });
    };
    const QString ok = QStringLiteral("<m:Error>0</m:Error>");
    const QVariantList status{0, QString()};

    add(QStringLiteral("RequestFile"), QStringLiteral("<m:Path>/p</m:Path>"),
        [](KeldaClient &c) { return c.RequestFileAsync(2, kGuid, LOCK_Write); },
        SIGNAL(RequestFileSg(QString, QString, int, QString)), {QStringLiteral("/p"), 0, QString()});
    add(QStringLiteral("AddFile"), QStringLiteral("<m:FileId>9</m:FileId>"),
        [](KeldaClient &c) { return c.AddFileAsync(QStringLiteral("a"), kGuid, 9); },
        SIGNAL(AddFileSg(QString, unsigned int)), {9u});
    add(QStringLiteral("CreateFileGroup"), QStringLiteral("<m:Guid>%1</m:Guid><m:Path>/srv/p</m:Path>").arg(kGuid),
        [](KeldaClient &c) {
            QString localPath;
            return c.CreateFileGroupAsync(QString(), QDateTime(), QString(), QString(), FT_Image, 0,
                                          QStringLiteral("n"), localPath, kGuid);
        },
        SIGNAL(CreateFileGroupSg(QString, QString)), {QStringLiteral("/srv/p")});
    // Returns the GUID, not the request id; the reply carries both.
    add(QStringLiteral("CreateTovinFileGroup"), QStringLiteral("<m:Guid>%1</m:Guid>").arg(kGuid),
        [this](KeldaClient &c) {
            QString localPath;
            const QString guid = c.CreateTovinFileGroupAsync(QStringLiteral("t"), QStringLiteral("r"), QString(),
                                                             QString(), QString(), FT_Image, localPath, kGuid);
            return guid == kGuid ? sentRequestId(QStringLiteral("CreateTovinFileGroup")) : QString();
        },
        SIGNAL(CreateTovinFileGroupSg(QString, QString, int, QString)), {kGuid, 0, QString()});
    add(QStringLiteral("CloseFile"), ok,
        sent(QStringLiteral("CloseFile"), [](KeldaClient &c) { c.CloseFile(5, kGuid); }),
        SIGNAL(CloseFileSg(QString, int, QString)), status);
    add(QStringLiteral("AddReference"), ok,
        sent(QStringLiteral("AddReference"), [](KeldaClient &c) { c.AddReference(kGuid); }),
        SIGNAL(AddReferenceSg(QString, int, QString)), status);
    add(QStringLiteral("RemoveReference"), ok,
        sent(QStringLiteral("RemoveReference"), [](KeldaClient &c) { c.RemoveReference(kGuid); }),
        SIGNAL(RemoveReferenceSg(QString, int, QString)), status);
    add(QStringLiteral("RemoveAllReferences"), ok,
        sent(QStringLiteral("RemoveAllReferences"), [](KeldaClient &c) { c.RemoveAllReferences(kGuid); }),
        SIGNAL(RemoveAllReferenceSg(QString, int, QString)), status);
    add(
        QStringLiteral("DeleteFile"), ok, [](KeldaClient &c) { return c.DeleteFileName(3, kGuid); },
        SIGNAL(DeleteFileNameSg(QString, int, QString)), status);
    add(
        QStringLiteral("MoveToNas"), ok, [](KeldaClient &c) { return c.MoveToNas(kGuid); },
        SIGNAL(MoveToNasSg(QString, int, QString)), status);
    add(
        QStringLiteral("DeleteFileGroup"), ok, [](KeldaClient &c) { return c.DeleteFileGroupAsync(kGuid); },
        SIGNAL(deleteFileGroupSg(QString, int, QString)), status);
    add(
        QStringLiteral("ExportArchive"), ok,
        [](KeldaClient &c) { return c.ExportArchiveAsync({kGuid}, QStringLiteral("/arch")); },
        SIGNAL(exportArchiveSg(QString, int, QString)), status);
    add(
        QStringLiteral("ImportArchive"), ok,
        [](KeldaClient &c) { return c.ImportArchiveAsync({QStringLiteral("/arch")}); },
        SIGNAL(importArchiveSg(QString, int, QString)), status);
    add(QStringLiteral("GetUserList"), QStringLiteral("<m:Users><m:User>ann</m:User></m:Users>"),
        [](KeldaClient &c) { return c.GetUserListAsync(); }, SIGNAL(GetUserListSg(QString, QStringList, int, QString)),
        {QStringList{QStringLiteral("ann")}, 0, QString()});
    add(QStringLiteral("GetApplicationList"),
        QStringLiteral("<m:Applications><m:Application>viewer</m:Application></m:Applications>"),
        [](KeldaClient &c) { return c.GetApplicationListAsync(); },
        SIGNAL(GetApplicationListSg(QString, QStringList, int, QString)),
        {QStringList{QStringLiteral("viewer")}, 0, QString()});
    add(QStringLiteral("GetFileList"),
        QStringLiteral("<m:Files><m:File><m:FileId>4</m:FileId><m:FileName>x</m:FileName></m:File></m:Files>"),
        [](KeldaClient &c) { return c.GetFileListAsync(kGuid); },
        SIGNAL(GetFileListSg(QString, QStringList, int, QString)),
        {QStringList{QStringLiteral("4"), QStringLiteral("x")}, 0, QString()});
    QStringList headers;
    FileGroupData::GetHeaders(headers);
    add(QStringLiteral("QueryFileGroups"), ok,
        [](KeldaClient &c) {
            unsigned int count = 0;
            return c.QueryFilesAsync(FileQuery(), count);
        },
        SIGNAL(queryFileGroupsSg(QString, QStringList, int, int, QString)), {headers, 16, 0, QString()});
    // The record must survive the queued hop to the client's thread.
    static const bool comparable = QMetaType::registerEqualsComparator<FileGroupData>();
    Q_UNUSED(comparable)
    FileGroupData metaData;
    metaData.setGuid(QStringLiteral("g-1"));
    metaData.setFileGroupName(QStringLiteral("scan"));
    add(QStringLiteral("QueryMetaData"), QStringLiteral("<m:Guid>g-1</m:Guid><m:FileGroupName>scan</m:FileGroupName>"),
        [](KeldaClient &c) { return c.QueryMetaDataAsync(kGuid, QStringLiteral("app")); },
        SIGNAL(QueryMetaDataSg(QString, Kelda::FileGroupData, int, QString)),
        {QVariant::fromValue(metaData), 0,
         QStringLiteral("the filegroup meta data request returned the error: No error")});
    add(QStringLiteral("QueryLocationStateProgress"),
        QStringLiteral("<m:LocationState>2</m:LocationState><m:CopyProgress>0.5</m:CopyProgress>"),
        [](KeldaClient &c) { return c.QueryLocationStateProgress(kGuid); },
        SIGNAL(queryLocationStateProgressSg(QString, int, double, int, QString)), {2, 0.5, 0, QString()});
    add(QStringLiteral("CheckFileGroupExists"), QStringLiteral("<m:Exists>true</m:Exists>"),
        [](KeldaClient &c) { return c.CheckFileGroupExists(kGuid); },
        SIGNAL(checkFileGroupExistsSg(QString, bool, int, QString)), {true, 0, QString()});
    add(QStringLiteral("GetRemoteStorageLocation"),
        QStringLiteral("<m:RemoteIp>10.1.2.3</m:RemoteIp><m:AttachmentUrl>u</m:AttachmentUrl>"),
        [](KeldaClient &c) { return c.GetRemoteStorageLocationAsync(kGuid); },
        SIGNAL(getRemoteStorageLocationSg(QString, QString, QString, int, QString)),
        {QStringLiteral("10.1.2.3"), QStringLiteral("u"), 0, QString()});
    add(QStringLiteral("GetTovinFilegroupGuid"), QStringLiteral("<m:Guid>%1</m:Guid>").arg(kGuid),
        [](KeldaClient &c) { return c.GetTovinFilegroupGuidAsync(QStringLiteral("t"), QStringLiteral("7")); },
        SIGNAL(getTovinFilegroupGuidSg(QString, QString, int, QString)), {kGuid, 0, QString()});
}

void KeldaClientTest::asyncOperations()
{
    QFETCH(QString, command);
    QFETCH(QString, children);
    QFETCH(AsyncCall, call);
    QFETCH(QByteArray, signal);
    QFETCH(QVariantList, arguments);

    m_peer->setReplyChildren(command, children);
    QSignalSpy spy(m_client, signal.constData());
    QVERIFY(spy.isValid());
    const QString requestId = call(*m_client);
    QCOMPARE(requestId.size(), 36);
    QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 1, kSignalWaitMs);
    QCOMPARE(spy.at(0).at(0).toString(), requestId);
    QCOMPARE(spy.at(0).mid(1), arguments);
}

QString KeldaClientTest::sentRequestId(const QString &command)
{
    if (!QTest::qWaitFor([&] { return !m_peer->requests(command).isEmpty(); }, kSignalWaitMs))
        return QString();
    return m_peer->requests(command).value(0).requestId;
}

void KeldaClientTest::errorState_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("serverText");
    QTest::addColumn<int>("stored");
    QTest::addColumn<QString>("signalled");

    QTest::newRow("success") << 0 << QString() << 0 << QString();
    QTest::newRow("local text") << 5 << QString() << 5 << QStringLiteral("File group is write locked");
    QTest::newRow("server text") << 5 << QStringLiteral("busy") << 5
                                 << QStringLiteral("busy(File group is write locked)");
    QTest::newRow("unknown code clamped") << 80 << QString() << 1 << QStringLiteral("Invalid error code");
}

void KeldaClientTest::errorState()
{
    QFETCH(int, code);
    QFETCH(QString, serverText);
    QFETCH(int, stored);
    QFETCH(QString, signalled);

    QString children = QStringLiteral("<m:Path>/p</m:Path><m:Error>%1</m:Error>").arg(code);
    if (!serverText.isEmpty())
        children += QStringLiteral("<m:ErrorString>%1</m:ErrorString>").arg(serverText);
    m_peer->setReplyChildren(QStringLiteral("RequestFile"), children);
    QSignalSpy spy(m_client, &KeldaClient::RequestFileSg);
    m_client->RequestFile(1, kGuid, LOCK_Read);
    QVERIFY(spy.size() == 1 || spy.wait(kSignalWaitMs));
    QCOMPARE(spy.at(0).at(2).toInt(), code);
    QCOMPARE(spy.at(0).at(3).toString(), signalled);
    QCOMPARE(int(m_client->GetError()), stored);
    QCOMPARE(m_client->GetErrorString(), KeldaErrorString::Get(KeldaError(stored)));
}

void KeldaClientTest::requestFields_data()
{
    QTest::addColumn<Operation>("operation");
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("element");
    QTest::addColumn<QString>("expected");

    auto add = [](const char *name, Operation operation, const char *command, const char *element,
                  const QString &expected) {
        QTest::newRow(name) << operation << QString::fromLatin1(command) << QString::fromLatin1(element) << expected;
    };
    const QString lockIdentity = QStringLiteral("127.0.0.1|app|user");
    auto requestFile = [](KeldaClient &c) { c.RequestFile(1, kGuid, LOCK_Read); };
    auto closeFile = [](KeldaClient &c) { c.CloseFile(5, kGuid); };
    auto create = [](KeldaClient &c) {
        QString localPath;
        c.CreateFileGroup(QString(), QDateTime(), QString(), QString(), FT_Image, 0, QStringLiteral("g"), localPath,
                          kGuid);
    };
    add("lock identity of RequestFile", requestFile, "RequestFile", "UserName", lockIdentity);
    add("lock identity of CloseFile", closeFile, "CloseFile", "UserName", lockIdentity);
    add("CloseFile closes by lock identity", closeFile, "CloseFile", "FileId", QStringLiteral("-1"));
    add(
        "application of AddReference", [](KeldaClient &c) { c.AddReference(kGuid); }, "AddReference", "Application",
        QStringLiteral("app"));
    add(
        "user of MoveToNas", [](KeldaClient &c) { c.MoveToNasSync(kGuid); }, "MoveToNas", "UserName",
        QStringLiteral("user"));
    add("team of CreateFileGroup", create, "CreateFileGroup", "TeamMembership", QStringLiteral("team"));
    add("user of CreateFileGroup", create, "CreateFileGroup", "UserName", QStringLiteral("user"));
    add(
        "identity set later",
        [](KeldaClient &c) {
            c.SetUser(QStringLiteral("eve"));
            c.SetApplication(QStringLiteral("tool"));
            c.RequestFile(1, kGuid, LOCK_Read);
        },
        "RequestFile", "UserName", QStringLiteral("127.0.0.1|tool|eve"));
    add(
        "group URL requests the first file",
        [](KeldaClient &c) { c.RequestFile(KeldaUrl(KeldaUrl::fromKeldaGuid(kGuid)), LOCK_Read); }, "RequestFile",
        "FileId", QStringLiteral("1"));
    add(
        "file URL", [](KeldaClient &c) { c.RequestFile(KeldaUrl(KeldaUrl::fromKeldaIds(kGuid, 7)), LOCK_Read); },
        "RequestFile", "FileId", QStringLiteral("7"));
    add(
        "write lock", [](KeldaClient &c) { c.RequestFile(1, kGuid, LOCK_Write); }, "RequestFile", "WriteLock",
        QStringLiteral("true"));
    add(
        "free is no write lock", [](KeldaClient &c) { c.RequestFile(1, kGuid, LOCK_Free); }, "RequestFile", "WriteLock",
        QStringLiteral("false"));
    add(
        "AddFile sends the file name", [](KeldaClient &c) { c.AddFile(QStringLiteral("/data/run/a.bin"), kGuid); },
        "AddFile", "FileName", QStringLiteral("a.bin"));
    add(
        "AddFile without separator", [](KeldaClient &c) { c.AddFile(QStringLiteral("a.bin"), kGuid); }, "AddFile",
        "FileName", QStringLiteral("a.bin"));
    add(
        "AddFile asks for a new id", [](KeldaClient &c) { c.AddFile(QStringLiteral("a.bin"), kGuid); }, "AddFile",
        "FileId", QStringLiteral("0"));
}

void KeldaClientTest::requestFields()
{
    QFETCH(Operation, operation);
    QFETCH(QString, command);
    QFETCH(QString, element);
    QFETCH(QString, expected);

    operation(*m_client);
    QTRY_COMPARE_WITH_TIMEOUT(m_peer->requests(command).size(), 1, kSignalWaitMs);
    QCOMPARE(field(m_peer->requests(command).last().document, element), expected);
}

void KeldaClientTest::createFileGroupMakesTheLocalDirectoryFirst()
{
    QString localPath;
    const QString guid = m_client->CreateFileGroupAsync(QStringLiteral("1"), QDateTime(), QString(), QString(),
                                                        FT_Image, 0, QStringLiteral("scan"), localPath);
    QCOMPARE(guid.size(), 36);
    QVERIFY(!guid.contains(QLatin1Char('{')));
    QVERIFY2(QDir(localPath).exists(), qPrintable(localPath));
    QVERIFY(localPath.startsWith(QDir(m_basePath.path()).absolutePath()));
    QVERIFY(localPath.endsWith(guid + QStringLiteral("/scan/")));

    QTRY_COMPARE(m_peer->requests(QStringLiteral("CreateFileGroup")).size(), 1);
    const ScriptedPeer::Request request = m_peer->requests(QStringLiteral("CreateFileGroup")).first();
    QCOMPARE(request.requestId, guid);
    QCOMPARE(field(request.document, QStringLiteral("Guid")), guid);
    QCOMPARE(field(request.document, QStringLiteral("Path")), localPath);
}

void KeldaClientTest::isValidUrl_data()
{
    QTest::addColumn<QUrl>("url");
    QTest::addColumn<QString>("reply");
    QTest::addColumn<bool>("valid");

    const QString files = QStringLiteral("<m:Files><m:File><m:FileId>1</m:FileId><m:FileName>a</m:FileName></m:File>"
                                         "<m:File><m:FileId>2</m:FileId><m:FileName>b</m:FileName></m:File>"
                                         "</m:Files>");
    QTest::newRow("held file") << KeldaUrl::fromKeldaIds(kGuid, 2) << files << true;
    QTest::newRow("file not held") << KeldaUrl::fromKeldaIds(kGuid, 5) << files << false;
    QTest::newRow("group only") << KeldaUrl::fromKeldaGuid(kGuid) << files << true;
    QTest::newRow("server error") << KeldaUrl::fromKeldaGuid(kGuid) << QStringLiteral("<m:Error>2</m:Error>") << false;
}

void KeldaClientTest::isValidUrl()
{
    QFETCH(QUrl, url);
    QFETCH(QString, reply);
    QFETCH(bool, valid);

    m_peer->setReplyChildren(QStringLiteral("GetFileList"), reply);
    QCOMPARE(m_client->IsValidURL(KeldaUrl(url)), valid);
}

void KeldaClientTest::peerClosingEndsABlockingCallAtOnce()
{
    QSignalSpy disconnected(m_client, &KeldaClient::disconnected);
    m_peer->setDisconnectOn(QStringLiteral("GetUserList"));
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(m_client->GetUserList(), QStringList());
    QVERIFY2(clock.elapsed() < 30000, "the blocking call ran into its time limit");
    QVERIFY(disconnected.size() == 1 || disconnected.wait(kSignalWaitMs));
    QVERIFY(!m_client->IsConnected());

    // The next connection repeats the handshake and announces itself again.
    QSignalSpy connected(m_client, &KeldaClient::connected);
    QVERIFY(connected.wait(kSignalWaitMs));
    QCOMPARE(m_peer->requests(QStringLiteral("GetBasePath")).size(), 2);
    QVERIFY(m_client->IsConnected());
}

void KeldaClientTest::malformedReplyLosesOnlyItself()
{
    auto replies = std::make_shared<std::atomic<int>>(0);
    m_peer->setAnswer(QStringLiteral("GetUserList"), [replies](const ScriptedPeer::Request &request) {
        const QString children = (*replies)++ == 0 ? QStringLiteral("<m:Bogus/>")
                                                   : QStringLiteral("<m:Users><m:User>ann</m:User></m:Users>");
        return ScriptedPeer::replyDocument(request.requestId, QStringLiteral("GetUserListReply"), children);
    });
    QSignalSpy spy(m_client, &KeldaClient::GetUserListSg);
    const QString broken = m_client->GetUserListAsync();
    const QString good = m_client->GetUserListAsync();
    QVERIFY(spy.wait(kSignalWaitMs));
    QCOMPARE(spy.size(), 1);
    QCOMPARE(spy.at(0).at(0).toString(), good);
    QCOMPARE(spy.at(0).at(1).toStringList(), QStringList{QStringLiteral("ann")});
    QVERIFY(broken != good);
    const QString prefix = QStringLiteral("CommandSender::HandleXmlError: XML parse error from 127.0.0.1 :");
    const QStringList seen = traces();
    QCOMPARE(std::count_if(seen.cbegin(), seen.cend(), [&](const QString &t) { return t.startsWith(prefix); }), 1);
    // The connection survives the broken reply.
    QCOMPARE(m_client->GetUserList(), QStringList{QStringLiteral("ann")});
}

// A frame announced beyond the limit is refused before its bytes are
// collected: the call waiting for it ends at once, and the client reconnects.
void KeldaClientTest::oversizedFrameClosesTheConnection()
{
    QByteArray frame(4, '\0');
    qToLittleEndian<quint32>(0x7FFFFFF0u, frame.data());
    frame += QByteArray(1 << 20, 'x');
    m_peer->setRawReply(QStringLiteral("GetUserList"), frame);
    QSignalSpy connected(m_client, &KeldaClient::connected);
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(m_client->GetUserList(), QStringList());
    QVERIFY2(clock.elapsed() < 30000, "the blocking call ran into its time limit");
    QVERIFY(!m_client->IsConnected());
    const QStringList seen = traces();
    QVERIFY(std::any_of(seen.cbegin(), seen.cend(), [](const QString &t) {
        return t.startsWith(QLatin1String("CommandSenderSocket: message of 2147483632 bytes"));
    }));

    m_peer->setRawReply(QStringLiteral("GetUserList"), QByteArray());
    m_peer->setReplyChildren(QStringLiteral("GetUserList"), QStringLiteral("<m:Users><m:User>ann</m:User></m:Users>"));
    QVERIFY(connected.wait(kSignalWaitMs));
    QCOMPARE(m_client->GetUserList(), QStringList{QStringLiteral("ann")});
}

void KeldaClientTest::serverInitiatedMessages()
{
    // The server may speak first. A conversion request and a reply the client
    // has no reader for are not relayed, but the connection goes on.
    m_peer->send(ScriptedPeer::replyDocument(QStringLiteral("r-0"), QStringLiteral("QueryDiskSpaceReply"),
                                             QStringLiteral("<m:Error>0</m:Error>")));
    m_peer->send(ScriptedPeer::replyDocument(QString(), QStringLiteral("ConvertFileGroup"),
                                             QStringLiteral("<m:Guid>%1</m:Guid><m:FileType>8</m:FileType>"
                                                            "<m:Path>/in</m:Path>")
                                                 .arg(kGuid)));
    m_peer->send(ScriptedPeer::replyDocument(QStringLiteral("r-1"), QStringLiteral("CopyForeignFileGroupProgress"),
                                             QStringLiteral("<m:CopyProgress>0.25</m:CopyProgress>")));
    QSignalSpy progress(m_client, &KeldaClient::copyForeignFileGroupProgess);
    QVERIFY(progress.wait(kSignalWaitMs));
    QCOMPARE(progress.at(0).at(0).toString(), QStringLiteral("r-1"));
    QCOMPARE(progress.at(0).at(1).toFloat(), 0.25f);
    QCOMPARE(m_client->GetUserList(), QStringList());
    QVERIFY(traces().contains(QStringLiteral("CommandSender::SlotHandleXmlReply: Unknown command: 26")));
}

void KeldaClientTest::destructionDoesNotWaitForAHungSender()
{
    // The sender's thread hangs in the trace of a broken reply until the test
    // lets it go, or until long after any stop wait.
    auto release = std::make_shared<QSemaphore>();
    auto releasedInTime = std::make_shared<std::atomic<int>>(-1);
    auto hungThread = std::make_shared<std::atomic<QThread *>>(nullptr);
    ErrorHandler::Instance()->SetTraceHook([=](const QString &text, const char *, int) {
        if (QThread::currentThread()->objectName() == QLatin1String("commandSenderThread") &&
            text.startsWith(QLatin1String("CommandSender::HandleXmlError"))) {
            *hungThread = QThread::currentThread();
            *releasedInTime = release->tryAcquire(1, kSignalWaitMs) ? 1 : 0;
        }
    });
    m_peer->setReplyChildren(QStringLiteral("GetUserList"), QStringLiteral("<m:Bogus/>"));
    m_client->GetUserListAsync();
    QTRY_VERIFY_WITH_TIMEOUT(hungThread->load(), kSignalWaitMs);
    // The thread object lives until the thread has ended.
    const QPointer<QThread> senderThread = hungThread->load();

    delete m_client;
    m_client = nullptr;
    // Still hung: the client did not wait for its sender's thread to end.
    QCOMPARE(releasedInTime->load(), -1);
    release->release();
    QTRY_COMPARE_WITH_TIMEOUT(releasedInTime->load(), 1, kSignalWaitMs);
    // Once let go, the abandoned thread ends and deletes itself.
    QTRY_VERIFY_WITH_TIMEOUT(senderThread.isNull(), kSignalWaitMs);
}

void KeldaClientTest::failedFileCreationSendsNothingMore_data()
{
    QTest::addColumn<QString>("failure");
    QTest::addColumn<int>("error");

    QTest::newRow("reply came too late") << QStringLiteral("late") << int(KE_ReplyTimeout);
    QTest::newRow("connection lost") << QStringLiteral("disconnect") << int(KE_ReplyTimeout);
    QTest::newRow("refused") << QStringLiteral("<m:Error>36</m:Error>") << 36;
}

// Without a group there is nothing to add a file to and nothing to move.
void KeldaClientTest::failedFileCreationSendsNothingMore()
{
    QFETCH(QString, failure);
    QFETCH(int, error);
    // Short, so that a reply held back ends the blocking call quickly.
    const unsigned int replyTimeLimitMs = TransportTimings::ReplyTimeLimitMs();
    TransportTimings::SetReplyTimeLimitMs(200);
    const auto restoreLimit =
        qScopeGuard([replyTimeLimitMs] { TransportTimings::SetReplyTimeLimitMs(replyTimeLimitMs); });

    // The client sends nothing else while a reply is outstanding, so the late
    // reply is held back only until the file is gone.
    auto lateReply = std::make_shared<QSemaphore>();
    const auto releaseLateReply = qScopeGuard([lateReply] { lateReply->release(); });
    const QString command = QStringLiteral("CreateFileGroup");
    if (failure == QLatin1String("late")) {
        m_peer->setAnswer(command, [lateReply](const ScriptedPeer::Request &request) {
            lateReply->tryAcquire(1, kSignalWaitMs);
            return ScriptedPeer::replyDocument(request.requestId, QStringLiteral("CreateFileGroupReply"),
                                               QStringLiteral("<m:Error>0</m:Error>"));
        });
    } else if (failure == QLatin1String("disconnect")) {
        m_peer->setDisconnectOn(command);
    } else {
        m_peer->setReplyChildren(command, failure);
    }
    const QString source = QDir(m_basePath.path()).filePath(QStringLiteral("scan.bin"));
    QFile file(source);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("bytes") == 5);
    file.close();

    unsigned int days = 1;
    auto stored = std::make_unique<KeldaFile>(m_client, source, QStringLiteral("1"), days, QString(), QString(),
                                              FT_ScanRecording, 0);
    QCOMPARE(int(stored->GetError()), error);
    QCOMPARE(stored->GetGuid(), QString());
    QCOMPARE(stored->GetFileId(), 0u);
    stored.reset();
    lateReply->release();

    // Requests leave one at a time, in order: once the peer has this one, it
    // has everything sent before.
    QVERIFY(m_client->WaitForConnected(kSignalWaitMs));
    m_client->GetUserListAsync();
    QTRY_COMPARE_WITH_TIMEOUT(m_peer->requests(QStringLiteral("GetUserList")).size(), 1, kSignalWaitMs);
    QCOMPARE(m_peer->requests(command).size(), 1);
    QCOMPARE(m_peer->requests(QStringLiteral("AddFile")).size(), 0);
    QCOMPARE(m_peer->requests(QStringLiteral("MoveToNas")).size(), 0);
}

QTEST_GUILESS_MAIN(KeldaClientTest)
#include "tst_keldaclient.moc"
