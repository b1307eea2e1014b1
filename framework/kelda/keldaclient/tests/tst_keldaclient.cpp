#include "filequery.h"
#include "keldaclient.h"
#include "scriptedpeer.h"
#include "trace.h"

#include <QDir>
#include <QElapsedTimer>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QtTest>

#include <atomic>
#include <functional>
#include <memory>

using namespace Kelda;

using BlockingCall = std::function<QVariant(KeldaClient &)>;
using AsyncCall = std::function<QString(KeldaClient &)>;
Q_DECLARE_METATYPE(BlockingCall)
Q_DECLARE_METATYPE(AsyncCall)

namespace {

const QString kGuid = QStringLiteral("0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e");
const int kSignalWaitMs = 10000;

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
// ways a connection or a reply can go wrong.
class KeldaClientTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void handshake();
    void blockingOperations_data();
    void blockingOperations();
    void asyncOperations_data();
    void asyncOperations();
    void errorState_data();
    void errorState();
    void identityReachesRequests();
    void requestFileByUrl_data();
    void requestFileByUrl();
    void addFileSendsTheFileName_data();
    void addFileSendsTheFileName();
    void createFileGroupMakesTheLocalDirectoryFirst();
    void isValidUrl_data();
    void isValidUrl();
    void peerClosingEndsABlockingCallAtOnce();
    void malformedReplyLosesOnlyItself();
    void serverInitiatedMessages();
    void destructionDoesNotWaitForAHungSender();

private:
    // The request id of a command as the peer received it: the only way to
    // match the signal of an operation that returns no id.
    QString sentRequestId(const QString &command);

    QTemporaryDir m_basePath;
    ScriptedPeer *m_peer = nullptr;
    KeldaClient *m_client = nullptr;
    QStringList m_traces;
};

void KeldaClientTest::init()
{
    QVERIFY(m_basePath.isValid());
    m_traces.clear();
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
    ErrorHandler::Instance()->SetTraceHook(
        [this](const QString &text, const char *, int) { m_traces.append(text); });
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

void KeldaClientTest::handshake()
{
    QVERIFY(m_client->IsConnected());
    QCOMPARE(m_client->getBasePath(), m_basePath.path());
    QCOMPARE(m_client->GetHost(), QStringLiteral("127.0.0.1"));
    QCOMPARE(m_client->GetPort(), m_peer->port());
    QCOMPARE(m_peer->requests(QStringLiteral("GetBasePath")).size(), 1);
    QVERIFY(!m_traces.contains(QStringLiteral("Directory does not exist: ") + m_basePath.path()));
}

void KeldaClientTest::blockingOperations_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("children");
    QTest::addColumn<BlockingCall>("call");
    QTest::addColumn<QVariant>("expected");

    QTest::newRow("RequestFile") << QStringLiteral("RequestFile")
                                 << QStringLiteral("<m:Path>/a/b.bin</m:Path><m:Error>0</m:Error>")
                                 << BlockingCall([](KeldaClient &c) {
                                        return QVariant(c.RequestFile(3, kGuid, LOCK_Read));
                                    })
                                 << QVariant(QStringLiteral("/a/b.bin"));
    QTest::newRow("AddFile") << QStringLiteral("AddFile") << QStringLiteral("<m:FileId>17</m:FileId>")
                             << BlockingCall([](KeldaClient &c) {
                                    return QVariant(c.AddFile(QStringLiteral("/x/a.bin"), kGuid));
                                })
                             << QVariant(17u);
    QTest::newRow("GetUserList") << QStringLiteral("GetUserList")
                                 << QStringLiteral("<m:Users><m:User>ann</m:User><m:User>bob</m:User></m:Users>")
                                 << BlockingCall([](KeldaClient &c) { return QVariant(c.GetUserList()); })
                                 << QVariant(QStringList{QStringLiteral("ann"), QStringLiteral("bob")});
    QTest::newRow("GetApplicationList")
        << QStringLiteral("GetApplicationList")
        << QStringLiteral("<m:Applications><m:Application>viewer</m:Application></m:Applications>")
        << BlockingCall([](KeldaClient &c) { return QVariant(c.GetApplicationList()); })
        << QVariant(QStringList{QStringLiteral("viewer")});
    QTest::newRow("GetFileList") << QStringLiteral("GetFileList")
                                 << QStringLiteral("<m:Files><m:File><m:FileId>1</m:FileId><m:FileName>a</m:FileName>"
                                                   "</m:File><m:File><m:FileId>2</m:FileId>"
                                                   "<m:FileName>b</m:FileName></m:File></m:Files>")
                                 << BlockingCall([](KeldaClient &c) { return QVariant(c.GetFileList(kGuid)); })
                                 << QVariant(QStringList{QStringLiteral("1"), QStringLiteral("a"),
                                                         QStringLiteral("2"), QStringLiteral("b")});
    QTest::newRow("QueryFiles") << QStringLiteral("QueryFileGroups") << QString::fromLatin1(kFileGroupChildren)
                                << BlockingCall([](KeldaClient &c) {
                                       unsigned int count = 0;
                                       const QStringList table = c.QueryFiles(FileQuery(), count);
                                       return QVariant(QStringList{QString::number(count),
                                                                   QString::number(table.size()), table.value(16),
                                                                   table.value(24), table.value(31)});
                                   })
                                << QVariant(QStringList{QStringLiteral("16"), QStringLiteral("32"),
                                                        QStringLiteral("scan"), QStringLiteral("ann"),
                                                        QStringLiteral("g-1")});
    QTest::newRow("CreateFileGroup") << QStringLiteral("CreateFileGroup")
                                     << QStringLiteral("<m:Guid>%1</m:Guid><m:Path>p</m:Path>").arg(kGuid)
                                     << BlockingCall([](KeldaClient &c) {
                                            QString localPath;
                                            return QVariant(c.CreateFileGroup(QStringLiteral("1.0"),
                                                                              QDateTime::currentDateTime(),
                                                                              QString(), QString(), FT_Image, 0,
                                                                              QStringLiteral("grp"), localPath,
                                                                              kGuid));
                                        })
                                     << QVariant(kGuid);
    QTest::newRow("CreateFileGroup refused")
        << QStringLiteral("CreateFileGroup") << QStringLiteral("<m:Error>36</m:Error>")
        << BlockingCall([](KeldaClient &c) {
               QString localPath;
               return QVariant(c.CreateFileGroup(QString(), QDateTime(), QString(), QString(), FT_Image, 0,
                                                 QStringLiteral("grp"), localPath, kGuid));
           })
        << QVariant(QString());
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

    const QString status = QStringLiteral("<m:Error>0</m:Error>");
    const QVariantList ok{0, QString()};
    auto row = [](const char *name) -> QTestData & { return QTest::newRow(name); };

    row("RequestFileAsync") << QStringLiteral("RequestFile") << QStringLiteral("<m:Path>/p</m:Path>")
                            << AsyncCall([](KeldaClient &c) { return c.RequestFileAsync(2, kGuid, LOCK_Write); })
                            << QByteArray(SIGNAL(RequestFileSg(QString, QString, int, QString)))
                            << QVariantList{QStringLiteral("/p"), 0, QString()};
    row("AddFileAsync") << QStringLiteral("AddFile") << QStringLiteral("<m:FileId>9</m:FileId>")
                        << AsyncCall([](KeldaClient &c) { return c.AddFileAsync(QStringLiteral("a"), kGuid, 9); })
                        << QByteArray(SIGNAL(AddFileSg(QString, unsigned int))) << QVariantList{9u};
    row("CreateFileGroupAsync") << QStringLiteral("CreateFileGroup")
                                << QStringLiteral("<m:Guid>%1</m:Guid><m:Path>/srv/p</m:Path>").arg(kGuid)
                                << AsyncCall([](KeldaClient &c) {
                                       QString localPath;
                                       return c.CreateFileGroupAsync(QString(), QDateTime(), QString(), QString(),
                                                                     FT_Image, 0, QStringLiteral("n"), localPath,
                                                                     kGuid);
                                   })
                                << QByteArray(SIGNAL(CreateFileGroupSg(QString, QString)))
                                << QVariantList{QStringLiteral("/srv/p")};
    // Returns the GUID, not the request id; the reply carries both.
    row("CreateTovinFileGroupAsync") << QStringLiteral("CreateTovinFileGroup")
                                     << QStringLiteral("<m:Guid>%1</m:Guid><m:Error>0</m:Error>").arg(kGuid)
                                     << AsyncCall([this](KeldaClient &c) {
                                            QString localPath;
                                            const QString guid = c.CreateTovinFileGroupAsync(
                                                QStringLiteral("t"), QStringLiteral("r"), QString(), QString(),
                                                QString(), FT_Image, localPath, kGuid);
                                            return guid == kGuid ? sentRequestId(QStringLiteral("CreateTovinFileGroup"))
                                                                 : QString();
                                        })
                                     << QByteArray(SIGNAL(CreateTovinFileGroupSg(QString, QString, int, QString)))
                                     << QVariantList{kGuid, 0, QString()};
    // Operations that return nothing are matched by the id their request carried.
    auto sent = [this](const QString &command, std::function<void(KeldaClient &)> operation) {
        return AsyncCall([this, command, operation](KeldaClient &c) {
            operation(c);
            return sentRequestId(command);
        });
    };
    row("CloseFile") << QStringLiteral("CloseFile") << status
                     << sent(QStringLiteral("CloseFile"), [](KeldaClient &c) { c.CloseFile(5, kGuid); })
                     << QByteArray(SIGNAL(CloseFileSg(QString, int, QString))) << ok;
    row("AddReference") << QStringLiteral("AddReference") << status
                        << sent(QStringLiteral("AddReference"), [](KeldaClient &c) { c.AddReference(kGuid); })
                        << QByteArray(SIGNAL(AddReferenceSg(QString, int, QString))) << ok;
    row("RemoveReference") << QStringLiteral("RemoveReference") << status
                           << sent(QStringLiteral("RemoveReference"), [](KeldaClient &c) { c.RemoveReference(kGuid); })
                           << QByteArray(SIGNAL(RemoveReferenceSg(QString, int, QString))) << ok;
    row("RemoveAllReferences") << QStringLiteral("RemoveAllReferences") << status
                               << sent(QStringLiteral("RemoveAllReferences"),
                                       [](KeldaClient &c) { c.RemoveAllReferences(kGuid); })
                               << QByteArray(SIGNAL(RemoveAllReferenceSg(QString, int, QString))) << ok;
    row("GetUserListAsync") << QStringLiteral("GetUserList")
                            << QStringLiteral("<m:Users><m:User>ann</m:User></m:Users>")
                            << AsyncCall([](KeldaClient &c) { return c.GetUserListAsync(); })
                            << QByteArray(SIGNAL(GetUserListSg(QString, QStringList, int, QString)))
                            << QVariantList{QStringList{QStringLiteral("ann")}, 0, QString()};
    row("GetApplicationListAsync") << QStringLiteral("GetApplicationList")
                                   << QStringLiteral("<m:Applications><m:Application>viewer</m:Application>"
                                                     "</m:Applications>")
                                   << AsyncCall([](KeldaClient &c) { return c.GetApplicationListAsync(); })
                                   << QByteArray(SIGNAL(GetApplicationListSg(QString, QStringList, int, QString)))
                                   << QVariantList{QStringList{QStringLiteral("viewer")}, 0, QString()};
    // The record must survive the queued hop to the client's thread.
    static const bool comparable = QMetaType::registerEqualsComparator<FileGroupData>();
    Q_UNUSED(comparable)
    FileGroupData metaData;
    metaData.setGuid(QStringLiteral("g-1"));
    metaData.setFileGroupName(QStringLiteral("scan"));
    row("QueryMetaDataAsync")
        << QStringLiteral("QueryMetaData")
        << QStringLiteral("<m:Guid>g-1</m:Guid><m:FileGroupName>scan</m:FileGroupName>")
        << AsyncCall([](KeldaClient &c) { return c.QueryMetaDataAsync(kGuid, QStringLiteral("app")); })
        << QByteArray(SIGNAL(QueryMetaDataSg(QString, Kelda::FileGroupData, int, QString)))
        << QVariantList{QVariant::fromValue(metaData), 0,
                        QStringLiteral("the filegroup meta data request returned the error: No error")};
    row("GetFileListAsync") << QStringLiteral("GetFileList")
                            << QStringLiteral("<m:Files><m:File><m:FileId>4</m:FileId><m:FileName>x</m:FileName>"
                                              "</m:File></m:Files>")
                            << AsyncCall([](KeldaClient &c) { return c.GetFileListAsync(kGuid); })
                            << QByteArray(SIGNAL(GetFileListSg(QString, QStringList, int, QString)))
                            << QVariantList{QStringList{QStringLiteral("4"), QStringLiteral("x")}, 0, QString()};
    row("DeleteFileName") << QStringLiteral("DeleteFile") << status
                          << AsyncCall([](KeldaClient &c) { return c.DeleteFileName(3, kGuid); })
                          << QByteArray(SIGNAL(DeleteFileNameSg(QString, int, QString))) << ok;
    row("MoveToNas") << QStringLiteral("MoveToNas") << status
                     << AsyncCall([](KeldaClient &c) { return c.MoveToNas(kGuid); })
                     << QByteArray(SIGNAL(MoveToNasSg(QString, int, QString))) << ok;
    row("DeleteFileGroupAsync") << QStringLiteral("DeleteFileGroup") << status
                                << AsyncCall([](KeldaClient &c) { return c.DeleteFileGroupAsync(kGuid); })
                                << QByteArray(SIGNAL(deleteFileGroupSg(QString, int, QString))) << ok;
    row("ExportArchiveAsync") << QStringLiteral("ExportArchive") << status
                              << AsyncCall([](KeldaClient &c) {
                                     return c.ExportArchiveAsync({kGuid}, QStringLiteral("/arch"));
                                 })
                              << QByteArray(SIGNAL(exportArchiveSg(QString, int, QString))) << ok;
    row("ImportArchiveAsync") << QStringLiteral("ImportArchive") << status
                              << AsyncCall([](KeldaClient &c) {
                                     return c.ImportArchiveAsync({QStringLiteral("/arch")});
                                 })
                              << QByteArray(SIGNAL(importArchiveSg(QString, int, QString))) << ok;
    row("QueryFilesAsync") << QStringLiteral("QueryFileGroups") << QStringLiteral("<m:Error>0</m:Error>")
                           << AsyncCall([](KeldaClient &c) {
                                  unsigned int count = 0;
                                  return c.QueryFilesAsync(FileQuery(), count);
                              })
                           << QByteArray(SIGNAL(queryFileGroupsSg(QString, QStringList, int, int, QString)))
                           << QVariantList{[] {
                                               QStringList headers;
                                               FileGroupData::GetHeaders(headers);
                                               return headers;
                                           }(),
                                           16, 0, QString()};
    row("QueryLocationStateProgress")
        << QStringLiteral("QueryLocationStateProgress")
        << QStringLiteral("<m:LocationState>2</m:LocationState><m:CopyProgress>0.5</m:CopyProgress>")
        << AsyncCall([](KeldaClient &c) { return c.QueryLocationStateProgress(kGuid); })
        << QByteArray(SIGNAL(queryLocationStateProgressSg(QString, int, double, int, QString)))
        << QVariantList{2, 0.5, 0, QString()};
    row("CheckFileGroupExists") << QStringLiteral("CheckFileGroupExists") << QStringLiteral("<m:Exists>true</m:Exists>")
                                << AsyncCall([](KeldaClient &c) { return c.CheckFileGroupExists(kGuid); })
                                << QByteArray(SIGNAL(checkFileGroupExistsSg(QString, bool, int, QString)))
                                << QVariantList{true, 0, QString()};
    row("GetRemoteStorageLocationAsync")
        << QStringLiteral("GetRemoteStorageLocation")
        << QStringLiteral("<m:RemoteIp>10.1.2.3</m:RemoteIp><m:AttachmentUrl>u</m:AttachmentUrl>")
        << AsyncCall([](KeldaClient &c) { return c.GetRemoteStorageLocationAsync(kGuid); })
        << QByteArray(SIGNAL(getRemoteStorageLocationSg(QString, QString, QString, int, QString)))
        << QVariantList{QStringLiteral("10.1.2.3"), QStringLiteral("u"), 0, QString()};
    row("GetTovinFilegroupGuidAsync")
        << QStringLiteral("GetTovinFilegroupGuid") << QStringLiteral("<m:Guid>%1</m:Guid>").arg(kGuid)
        << AsyncCall([](KeldaClient &c) { return c.GetTovinFilegroupGuidAsync(QStringLiteral("t"), QStringLiteral("7")); })
        << QByteArray(SIGNAL(getTovinFilegroupGuidSg(QString, QString, int, QString)))
        << QVariantList{kGuid, 0, QString()};
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

void KeldaClientTest::identityReachesRequests()
{
    const QString lockIdentity = QStringLiteral("127.0.0.1|app|user");
    m_client->RequestFile(1, kGuid, LOCK_Read);
    m_client->CloseFile(5, kGuid);
    m_client->AddReference(kGuid);
    m_client->MoveToNasSync(kGuid);
    QString localPath;
    m_client->CreateFileGroup(QString(), QDateTime(), QString(), QString(), FT_Image, 0, QStringLiteral("g"),
                              localPath, kGuid);

    QCOMPARE(field(m_peer->requests(QStringLiteral("RequestFile")).value(0).document, QStringLiteral("UserName")),
             lockIdentity);
    QTRY_COMPARE(m_peer->requests(QStringLiteral("CloseFile")).size(), 1);
    const QByteArray close = m_peer->requests(QStringLiteral("CloseFile")).value(0).document;
    QCOMPARE(field(close, QStringLiteral("UserName")), lockIdentity);
    QCOMPARE(field(close, QStringLiteral("FileId")), QStringLiteral("-1"));
    QTRY_COMPARE(m_peer->requests(QStringLiteral("AddReference")).size(), 1);
    QCOMPARE(field(m_peer->requests(QStringLiteral("AddReference")).value(0).document, QStringLiteral("Application")),
             QStringLiteral("app"));
    QCOMPARE(field(m_peer->requests(QStringLiteral("MoveToNas")).value(0).document, QStringLiteral("UserName")),
             QStringLiteral("user"));
    const QByteArray create = m_peer->requests(QStringLiteral("CreateFileGroup")).value(0).document;
    QCOMPARE(field(create, QStringLiteral("TeamMembership")), QStringLiteral("team"));
    QCOMPARE(field(create, QStringLiteral("UserName")), QStringLiteral("user"));

    m_client->SetUser(QStringLiteral("eve"));
    m_client->SetApplication(QStringLiteral("tool"));
    m_client->RequestFile(1, kGuid, LOCK_Read);
    QCOMPARE(field(m_peer->requests(QStringLiteral("RequestFile")).value(1).document, QStringLiteral("UserName")),
             QStringLiteral("127.0.0.1|tool|eve"));
}

void KeldaClientTest::requestFileByUrl_data()
{
    QTest::addColumn<QUrl>("url");
    QTest::addColumn<int>("lock");
    QTest::addColumn<QString>("fileId");
    QTest::addColumn<QString>("writeLock");

    QTest::newRow("group only: first file") << KeldaUrl::fromKeldaGuid(kGuid) << int(LOCK_Read) << QStringLiteral("1")
                                            << QStringLiteral("false");
    QTest::newRow("file id, write") << KeldaUrl::fromKeldaIds(kGuid, 7) << int(LOCK_Write) << QStringLiteral("7")
                                    << QStringLiteral("true");
    QTest::newRow("free is not write") << KeldaUrl::fromKeldaIds(kGuid, 7) << int(LOCK_Free) << QStringLiteral("7")
                                       << QStringLiteral("false");
}

void KeldaClientTest::requestFileByUrl()
{
    QFETCH(QUrl, url);
    QFETCH(int, lock);
    QFETCH(QString, fileId);
    QFETCH(QString, writeLock);

    m_client->RequestFile(KeldaUrl(url), LockState(lock));
    const QByteArray request = m_peer->requests(QStringLiteral("RequestFile")).value(0).document;
    QCOMPARE(field(request, QStringLiteral("Guid")), kGuid);
    QCOMPARE(field(request, QStringLiteral("FileId")), fileId);
    QCOMPARE(field(request, QStringLiteral("WriteLock")), writeLock);
}

void KeldaClientTest::addFileSendsTheFileName_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("sent");

    QTest::newRow("slashes") << QStringLiteral("/data/run/a.bin") << QStringLiteral("a.bin");
    QTest::newRow("platform separator") << (QStringLiteral("data") + QDir::separator() + QStringLiteral("a.bin"))
                                        << QStringLiteral("a.bin");
    QTest::newRow("no separator") << QStringLiteral("a.bin") << QStringLiteral("a.bin");
}

void KeldaClientTest::addFileSendsTheFileName()
{
    QFETCH(QString, path);
    QFETCH(QString, sent);

    m_peer->setReplyChildren(QStringLiteral("AddFile"), QStringLiteral("<m:FileId>3</m:FileId>"));
    QCOMPARE(m_client->AddFile(path, kGuid), 3u);
    const QByteArray request = m_peer->requests(QStringLiteral("AddFile")).value(0).document;
    QCOMPARE(field(request, QStringLiteral("FileName")), sent);
    QCOMPARE(field(request, QStringLiteral("FileId")), QStringLiteral("0"));
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
    QTest::newRow("server error") << KeldaUrl::fromKeldaGuid(kGuid) << QStringLiteral("<m:Error>2</m:Error>")
                                  << false;
    QTest::newRow("not a kelda url") << QUrl(QStringLiteral("file:///tmp/a")) << files << false;
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
    QCOMPARE(std::count_if(m_traces.cbegin(), m_traces.cend(),
                           [&](const QString &t) { return t.startsWith(prefix); }),
             1);
    // The connection survives the broken reply.
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
    QVERIFY(m_traces.contains(QStringLiteral("CommandSender::SlotHandleXmlReply: Unknown command: 26")));
}

void KeldaClientTest::destructionDoesNotWaitForAHungSender()
{
    // The sender's thread hangs in the trace of a broken reply until the test
    // lets it go.
    auto release = std::make_shared<QSemaphore>();
    auto hung = std::make_shared<std::atomic<bool>>(false);
    ErrorHandler::Instance()->SetTraceHook([release, hung](const QString &text, const char *, int) {
        if (QThread::currentThread()->objectName() == QLatin1String("commandSenderThread")
            && text.startsWith(QLatin1String("CommandSender::HandleXmlError"))) {
            *hung = true;
            release->acquire();
        }
    });
    m_peer->setReplyChildren(QStringLiteral("GetUserList"), QStringLiteral("<m:Bogus/>"));
    m_client->GetUserListAsync();
    QTRY_VERIFY_WITH_TIMEOUT(hung->load(), kSignalWaitMs);

    QElapsedTimer clock;
    clock.start();
    delete m_client;
    m_client = nullptr;
    const qint64 elapsed = clock.elapsed();
    release->release();
    QVERIFY2(elapsed >= 900 && elapsed < 10000, qPrintable(QString::number(elapsed)));
}

QTEST_GUILESS_MAIN(KeldaClientTest)
#include "tst_keldaclient.moc"
