#include "requestmessages.h"

#include <QtTest>

using namespace Kelda;

namespace {

const QByteArray Rid = QByteArrayLiteral("11111111-2222-3333-4444-555555555555");
#define NS " xmlns:m=\"http://kelda.archive/8SP/KELDA\""
#define GUID "<m:Guid>g-1</m:Guid>"
#define APP "<m:Application>viewer</m:Application>"

QString T(const char *text)
{
    return QString::fromUtf8(text);
}

// Every message gets a Guid and an Application, so that a command writing one it has no place for shows up.
template <typename Message> Message Filled()
{
    Message message;
    message.SetRequestId(QString::fromLatin1(Rid));
    message.SetGuid(T("g-1"));
    message.SetApplication(T("viewer"));
    return message;
}

// The first word of a row's name is the command; children are the command element's content.
void Row(const char *name, const KeldaClientSOAPMessage &message, const QByteArray &children,
         const QByteArray &requestId = Rid)
{
    const QByteArray command = QByteArray(name).split(' ').first();
    const QByteArray body =
        children.isEmpty() ? "<m:" + command + NS "/>" : "<m:" + command + NS ">" + children + "</m:" + command + ">";
    const QByteArray document = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                                "<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\">"
                                "<s:Header><s:Version>1.0</s:Version><s:RequestId>" +
        requestId + "</s:RequestId></s:Header><s:Body>" + body + "</s:Body></s:Envelope>\n";
    QTest::newRow(name) << message.ToXml() << document;
}

} // namespace

class TestRequestMessages : public QObject
{
    Q_OBJECT

private slots:
    void toXml_data();
    void toXml();
    void freshMessage();
};

void TestRequestMessages::toXml_data()
{
    QTest::addColumn<QByteArray>("actual");
    QTest::addColumn<QByteArray>("expected");

    auto addFile = Filled<AddFileMessage>();
    addFile.SetFileName(T("a&b<c>\"d\"  "));
    addFile.SetFileId(static_cast<int>(4294967295u));
    Row("AddFile escaped, id -1", addFile,
        GUID "<m:FileName>a&amp;b&lt;c&gt;&quot;d&quot;  </m:FileName><m:FileId>-1</m:FileId>");
    Row("AddReference", Filled<AddReferenceMessage>(), GUID APP);
    Row("CheckFileGroupExists", Filled<CheckFileGroupExistsMessage>(), GUID);
    auto closeFile = Filled<CloseFileMessage>();
    closeFile.SetUserName(T("10.0.0.1|viewer|anna"));
    Row("CloseFile sends -1", closeFile, GUID "<m:FileId>-1</m:FileId><m:UserName>10.0.0.1|viewer|anna</m:UserName>");
    auto convert = Filled<ConvertFileGroupReplyMessage>();
    convert.SetError(0);
    convert.SetErrorString(T("done"));
    Row("ConvertFileGroupReply", convert, GUID "<m:Error>0</m:Error><m:ErrorString>done</m:ErrorString>");
    convert.Clear();
    Row("ConvertFileGroupReply cleared: failure, no request id", convert,
        "<m:Guid></m:Guid><m:Error>1</m:Error><m:ErrorString></m:ErrorString>", QByteArray());

    auto tovin = Filled<CreateTovinFileGroupMessage>();
    tovin.SetTovinId(T("T1"));
    tovin.SetSubSystemName(T("IpAddress"));
    tovin.SetRecordId(T("R9"));
    tovin.SetFileGroupVersion(T("2"));
    tovin.SetDetail(T("d"));
    tovin.SetComment(T("c"));
    tovin.SetFileType(FT_Tovin_IqRecording);
    tovin.SetTeamMembership(T("team"));
    tovin.SetUserName(T("anna"));
    tovin.SetPath(T("/x/"));
    Row("CreateTovinFileGroup", tovin,
        "<m:TovinId>T1</m:TovinId><m:SubSystemName>IpAddress</m:SubSystemName><m:RecordId>R9</m:RecordId>"
        "<m:FileGroupVersion>2</m:FileGroupVersion><m:Detail>d</m:Detail><m:Comment>c</m:Comment>"
        "<m:FileType>19</m:FileType><m:TeamMembership>team</m:TeamMembership><m:UserName>anna</m:UserName>" GUID
        "<m:Path>/x/</m:Path>");

    auto create = Filled<CreateFileGroupMessage>();
    create.SetGroupGuid(T("g-2"));
    create.SetComment(T("c"));
    create.SetDetail(T("d"));
    create.SetFileGroupName(T("name"));
    create.SetFileType(FT_AudioRecording);
    create.SetLifeCycle(QDateTime(QDate(2024, 3, 1), QTime(12, 0, 0, 5), Qt::OffsetFromUTC, 3600));
    create.SetReservedStorage(Q_UINT64_C(5000000000));
    create.SetTeamMembership(T("team"));
    create.SetUserName(T("anna"));
    create.SetFileGroupVersion(T("1.0"));
    create.SetPath(T("/p"));
    Row("CreateFileGroup identified by its guid", create,
        "<m:Comment>c</m:Comment><m:Guid>g-2</m:Guid><m:Detail>d</m:Detail><m:FileGroupName>name</m:FileGroupName>"
        "<m:FileType>10</m:FileType><m:LifeCycle>2024-03-01 11:00:00.005</m:LifeCycle>"
        "<m:ReservedStorage>5000000000</m:ReservedStorage><m:TeamMembership>team</m:TeamMembership>"
        "<m:UserName>anna</m:UserName><m:FileGroupVersion>1.0</m:FileGroupVersion><m:Path>/p</m:Path>",
        "g-2");
    auto deleteGroup = Filled<DeleteFileGroupMessage>();
    deleteGroup.SetShallowDelete(true);
    Row("DeleteFileGroup", deleteGroup, GUID "<m:ShallowDelete>true</m:ShallowDelete>");
    auto deleteFile = Filled<DeleteFileMessage>();
    deleteFile.SetFileId(3);
    Row("DeleteFile", deleteFile, GUID "<m:FileId>3</m:FileId>");
    auto exportArchive = Filled<ExportArchiveMessage>();
    exportArchive.SetPath(T("/a.tar"));
    exportArchive.SetGuids({T("g1"), T("g2")});
    Row("ExportArchive", exportArchive, "<m:Path>/a.tar</m:Path><m:Guid>g1</m:Guid><m:Guid>g2</m:Guid>");
    auto tovinGuid = Filled<GetTovinFilegroupGuidMessage>();
    tovinGuid.SetTovinId(T("T1"));
    tovinGuid.SetRecordId(T("rec-7"));
    Row("GetTovinFilegroupGuid ids as text", tovinGuid, "<m:Guid>T1</m:Guid><m:FileId>rec-7</m:FileId>");
    Row("GetApplicationList", Filled<GetApplicationListMessage>(), {});
    Row("GetBasePath", Filled<GetBasePathMessage>(), {});
    Row("GetUserList", Filled<GetUserListMessage>(), {});
    Row("GetFileList", Filled<GetFileListMessage>(), GUID);
    auto remote = Filled<GetRemoteStorageLocationMessage>();
    remote.SetFileId(2);
    Row("GetRemoteStorageLocation", remote, GUID "<m:FileId>2</m:FileId>");
    auto importArchive = Filled<ImportArchiveMessage>();
    importArchive.SetPaths({T("/a"), T("/b")});
    Row("ImportArchive", importArchive, "<m:Path>/a</m:Path><m:Path>/b</m:Path>");
    auto moveToNas = Filled<MoveToNasMessage>();
    moveToNas.SetUserName(T("anna"));
    Row("MoveToNas", moveToNas, GUID "<m:UserName>anna</m:UserName>");

    FileQuery criteria;
    criteria.SetCommentSearchText(T("c"));
    criteria.SetDetailSearchText(T("d"));
    criteria.SetFileGroupSearchText(T("n"));
    criteria.AddFileType(FT_Image);
    criteria.AddFileType(FT_RAD);
    criteria.SetLocationState(LS_Central);
    criteria.SetLockState(LOCK_Write);
    criteria.SetLockUser(T("lu"));
    criteria.SetBackupTimeMin(QDateTime(QDate(2024, 1, 1), QTime(0, 30), Qt::OffsetFromUTC, 3600));
    criteria.SetCreationTimeMax(QDateTime(QDate(2024, 6, 30), QTime(12, 0), Qt::UTC));
    criteria.SetLifeCycleTimeMin(QDateTime(QDate(2024, 2, 2), QTime(12, 0), Qt::OffsetFromUTC, 3600));
    criteria.SetModificationTimeMax(QDateTime(QDate(2024, 2, 3), QTime(23, 59, 59, 999), Qt::OffsetFromUTC, 3600));
    criteria.SetReferencingApplication(T("ra"));
    criteria.SetTeamMembershipSearchText(T("t"));
    criteria.SetCreatorSearchText(T("u"));
    criteria.SetVersionSearchText(T("v"));
    auto query = Filled<QueryFileGroupsMessage>();
    query.SetQuery(criteria);
    Row("QueryFileGroups bounds in UTC", query,
        APP "<m:CommentSearchText>c</m:CommentSearchText><m:DetailSearchText>d</m:DetailSearchText>"
            "<m:FileGroupNameSearchText>n</m:FileGroupNameSearchText>"
            "<m:FileTypeList><m:FileType>11</m:FileType><m:FileType>17</m:FileType></m:FileTypeList>"
            "<m:LocationState>2</m:LocationState><m:LockState>3</m:LockState><m:LockUser>lu</m:LockUser>"
            "<m:BackupTime><m:Min>2023-12-31 23:30:00.000</m:Min><m:Max></m:Max></m:BackupTime>"
            "<m:CreationTime><m:Min></m:Min><m:Max>2024-06-30 12:00:00.000</m:Max></m:CreationTime>"
            "<m:LifeCycle><m:Min>2024-02-02 11:00:00.000</m:Min><m:Max></m:Max></m:LifeCycle>"
            "<m:ModificationTime><m:Min></m:Min><m:Max>2024-02-03 22:59:59.999</m:Max></m:ModificationTime>"
            "<m:ReferencingApplication>ra</m:ReferencingApplication><m:TeamSearchText>t</m:TeamSearchText>"
            "<m:User>u</m:User><m:VersionSearchText>v</m:VersionSearchText>");

    Row("QueryLocationStateProgress", Filled<QueryLocationStateProgressMessage>(), GUID);
    Row("QueryMetaData", Filled<QueryMetaDataMessage>(), GUID APP);
    auto converter = Filled<RegisterConverterMessage>();
    converter.SetConverterId(T("conv"));
    converter.SetFileTypes({FT_ScanRecording, FT_IfRecording, FT_AudioRecording});
    Row("RegisterConverter", converter,
        "<m:ConverterId>conv</m:ConverterId><m:FileType>8</m:FileType><m:FileType>9</m:FileType>"
        "<m:FileType>10</m:FileType>");
    Row("RemoveAllReferences", Filled<RemoveAllReferencesMessage>(), GUID APP);
    Row("RemoveReference", Filled<RemoveReferenceMessage>(), GUID APP);
    auto requestFile = Filled<RequestFileMessage>();
    requestFile.SetFileId(1);
    requestFile.SetWriteLock(true);
    requestFile.SetUserName(T("10.0.0.1|viewer|anna"));
    Row("RequestFile", requestFile,
        GUID "<m:FileId>1</m:FileId><m:WriteLock>true</m:WriteLock><m:UserName>10.0.0.1|viewer|anna</m:UserName>");
}

void TestRequestMessages::toXml()
{
    QFETCH(QByteArray, actual);
    QFETCH(QByteArray, expected);
    QCOMPARE(actual, expected);
}

void TestRequestMessages::freshMessage()
{
    const QueryFileGroupsMessage first;
    QVERIFY(first.GetRequestId() != QueryFileGroupsMessage().GetRequestId());
    // No file type asked for: the list is still written, as an empty-element tag.
    QVERIFY(first.ToXml().contains("</m:FileGroupNameSearchText><m:FileTypeList/><m:LocationState>"));
}

QTEST_GUILESS_MAIN(TestRequestMessages)
#include "tst_requestmessages.moc"
