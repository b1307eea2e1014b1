#include "requestmessages.h"

#include <QtTest>

#include <ctime>

using namespace Kelda;

namespace {

const QString Rid = QStringLiteral("11111111-2222-3333-4444-555555555555");

#define NS " xmlns:m=\"http://kelda.archive/8SP/KELDA\""
#define GUID "<m:Guid>g-1</m:Guid>"

QString T(const char *text)
{
    return QString::fromUtf8(text);
}

QByteArray Document(const QByteArray &body, const QByteArray &requestId = Rid.toLatin1())
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\">"
           "<s:Header><s:Version>1.0</s:Version><s:RequestId>"
        + requestId + "</s:RequestId></s:Header><s:Body>" + body + "</s:Body></s:Envelope>\n";
}

void Row(const char *name, KeldaClientSOAPMessage &message, const QByteArray &body)
{
    message.SetRequestId(Rid);
    QTest::newRow(name) << message.ToXml() << Document(body);
}

template<typename Message>
Message WithGuid()
{
    Message message;
    message.SetGuid(T("g-1"));
    return message;
}

} // namespace

class TestRequestMessages : public QObject
{
    Q_OBJECT

private slots:
    void toXml_data();
    void toXml();
    void requestIds();
};

void TestRequestMessages::toXml_data()
{
    QTest::addColumn<QByteArray>("actual");
    QTest::addColumn<QByteArray>("expected");

    AddFileMessage addFile = WithGuid<AddFileMessage>();
    addFile.SetRequestId(Rid);
    addFile.SetFileName(T("a.bin"));
    addFile.SetFileId(7);
    QTest::newRow("AddFile, whole document")
        << addFile.ToXml()
        << QByteArray("<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                      "<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\">"
                      "<s:Header><s:Version>1.0</s:Version>"
                      "<s:RequestId>11111111-2222-3333-4444-555555555555</s:RequestId></s:Header>"
                      "<s:Body><m:AddFile xmlns:m=\"http://kelda.archive/8SP/KELDA\"><m:Guid>g-1</m:Guid>"
                      "<m:FileName>a.bin</m:FileName><m:FileId>7</m:FileId></m:AddFile></s:Body></s:Envelope>\n");
    addFile.SetFileName(T("a&b<c>\"d\"  "));
    addFile.SetFileId(static_cast<int>(4294967295u));
    Row("AddFile escaped, id -1", addFile,
        "<m:AddFile" NS ">" GUID "<m:FileName>a&amp;b&lt;c&gt;&quot;d&quot;  </m:FileName>"
        "<m:FileId>-1</m:FileId></m:AddFile>");
    addFile.Clear();
    QTest::newRow("AddFile cleared: empty request id")
        << addFile.ToXml()
        << Document("<m:AddFile" NS "><m:Guid></m:Guid><m:FileName></m:FileName><m:FileId>0</m:FileId></m:AddFile>",
                    QByteArray());

    AddReferenceMessage addReference = WithGuid<AddReferenceMessage>();
    addReference.SetApplication(T("viewer"));
    Row("AddReference", addReference,
        "<m:AddReference" NS ">" GUID "<m:Application>viewer</m:Application></m:AddReference>");

    CheckFileGroupExistsMessage exists = WithGuid<CheckFileGroupExistsMessage>();
    Row("CheckFileGroupExists", exists, "<m:CheckFileGroupExists" NS ">" GUID "</m:CheckFileGroupExists>");

    CloseFileMessage closeFile = WithGuid<CloseFileMessage>();
    closeFile.SetUserName(T("10.0.0.1|viewer|anna"));
    Row("CloseFile sends -1", closeFile,
        "<m:CloseFile" NS ">" GUID "<m:FileId>-1</m:FileId><m:UserName>10.0.0.1|viewer|anna</m:UserName></m:CloseFile>");

    ConvertFileGroupReplyMessage convert = WithGuid<ConvertFileGroupReplyMessage>();
    convert.SetError(0);
    convert.SetErrorString(T("done"));
    Row("ConvertFileGroupReply", convert,
        "<m:ConvertFileGroupReply" NS ">" GUID "<m:Error>0</m:Error><m:ErrorString>done</m:ErrorString>"
        "</m:ConvertFileGroupReply>");
    convert.Clear();
    Row("ConvertFileGroupReply cleared reports failure", convert,
        "<m:ConvertFileGroupReply" NS "><m:Guid></m:Guid><m:Error>1</m:Error><m:ErrorString></m:ErrorString>"
        "</m:ConvertFileGroupReply>");

    CreateTovinFileGroupMessage tovin = WithGuid<CreateTovinFileGroupMessage>();
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
        "<m:CreateTovinFileGroup" NS "><m:TovinId>T1</m:TovinId><m:SubSystemName>IpAddress</m:SubSystemName>"
        "<m:RecordId>R9</m:RecordId><m:FileGroupVersion>2</m:FileGroupVersion><m:Detail>d</m:Detail>"
        "<m:Comment>c</m:Comment><m:FileType>19</m:FileType><m:TeamMembership>team</m:TeamMembership>"
        "<m:UserName>anna</m:UserName>" GUID "<m:Path>/x/</m:Path></m:CreateTovinFileGroup>");

    CreateFileGroupMessage create;
    create.SetGroupGuid(T("g-1"));
    create.SetComment(T("c"));
    create.SetDetail(T("d"));
    create.SetFileGroupName(T("name"));
    create.SetFileType(FT_AudioRecording);
    // Local time is UTC+1 (see main).
    create.SetLifeCycle(QDateTime(QDate(2024, 3, 1), QTime(12, 0, 0, 5)));
    create.SetReservedStorage(Q_UINT64_C(5000000000));
    create.SetTeamMembership(T("team"));
    create.SetUserName(T("anna"));
    create.SetFileGroupVersion(T("1.0"));
    create.SetPath(T("/p"));
    QTest::newRow("CreateFileGroup identified by its guid")
        << create.ToXml()
        << Document("<m:CreateFileGroup" NS "><m:Comment>c</m:Comment>" GUID "<m:Detail>d</m:Detail>"
                    "<m:FileGroupName>name</m:FileGroupName><m:FileType>10</m:FileType>"
                    "<m:LifeCycle>2024-03-01 11:00:00.005</m:LifeCycle><m:ReservedStorage>5000000000</m:ReservedStorage>"
                    "<m:TeamMembership>team</m:TeamMembership><m:UserName>anna</m:UserName>"
                    "<m:FileGroupVersion>1.0</m:FileGroupVersion><m:Path>/p</m:Path></m:CreateFileGroup>",
                    "g-1");

    DeleteFileGroupMessage deleteGroup = WithGuid<DeleteFileGroupMessage>();
    deleteGroup.SetShallowDelete(true);
    Row("DeleteFileGroup", deleteGroup,
        "<m:DeleteFileGroup" NS ">" GUID "<m:ShallowDelete>true</m:ShallowDelete></m:DeleteFileGroup>");

    DeleteFileMessage deleteFile = WithGuid<DeleteFileMessage>();
    deleteFile.SetFileId(3);
    Row("DeleteFile", deleteFile, "<m:DeleteFile" NS ">" GUID "<m:FileId>3</m:FileId></m:DeleteFile>");

    ExportArchiveMessage exportArchive;
    exportArchive.SetPath(T("/a.tar"));
    Row("ExportArchive no guids", exportArchive, "<m:ExportArchive" NS "><m:Path>/a.tar</m:Path></m:ExportArchive>");
    exportArchive.SetGuids({T("g1"), T("g2")});
    Row("ExportArchive", exportArchive,
        "<m:ExportArchive" NS "><m:Path>/a.tar</m:Path><m:Guid>g1</m:Guid><m:Guid>g2</m:Guid></m:ExportArchive>");

    GetTovinFilegroupGuidMessage tovinGuid;
    tovinGuid.SetTovinId(T("T1"));
    tovinGuid.SetRecordId(T("rec-7"));
    Row("GetTovinFilegroupGuid ids as text", tovinGuid,
        "<m:GetTovinFilegroupGuid" NS "><m:Guid>T1</m:Guid><m:FileId>rec-7</m:FileId></m:GetTovinFilegroupGuid>");

    GetApplicationListMessage applications;
    Row("GetApplicationList", applications, "<m:GetApplicationList" NS "/>");
    GetBasePathMessage basePath;
    Row("GetBasePath", basePath, "<m:GetBasePath" NS "/>");
    GetUserListMessage users;
    Row("GetUserList", users, "<m:GetUserList" NS "/>");
    GetFileListMessage files = WithGuid<GetFileListMessage>();
    Row("GetFileList", files, "<m:GetFileList" NS ">" GUID "</m:GetFileList>");

    GetRemoteStorageLocationMessage remote = WithGuid<GetRemoteStorageLocationMessage>();
    remote.SetFileId(2);
    Row("GetRemoteStorageLocation", remote,
        "<m:GetRemoteStorageLocation" NS ">" GUID "<m:FileId>2</m:FileId></m:GetRemoteStorageLocation>");

    ImportArchiveMessage importArchive;
    Row("ImportArchive no paths", importArchive, "<m:ImportArchive" NS "/>");
    importArchive.SetPaths({T("/a"), T("/b")});
    Row("ImportArchive", importArchive,
        "<m:ImportArchive" NS "><m:Path>/a</m:Path><m:Path>/b</m:Path></m:ImportArchive>");

    MoveToNasMessage moveToNas = WithGuid<MoveToNasMessage>();
    moveToNas.SetUserName(T("anna"));
    Row("MoveToNas", moveToNas, "<m:MoveToNas" NS ">" GUID "<m:UserName>anna</m:UserName></m:MoveToNas>");

    QueryFileGroupsMessage query;
    Row("QueryFileGroups default", query,
        "<m:QueryFileGroups" NS "><m:Application></m:Application><m:CommentSearchText></m:CommentSearchText>"
        "<m:DetailSearchText></m:DetailSearchText><m:FileGroupNameSearchText></m:FileGroupNameSearchText>"
        "<m:FileTypeList/><m:LocationState>0</m:LocationState><m:LockState>0</m:LockState><m:LockUser></m:LockUser>"
        "<m:BackupTime><m:Min></m:Min><m:Max></m:Max></m:BackupTime>"
        "<m:CreationTime><m:Min></m:Min><m:Max></m:Max></m:CreationTime>"
        "<m:LifeCycle><m:Min></m:Min><m:Max></m:Max></m:LifeCycle>"
        "<m:ModificationTime><m:Min></m:Min><m:Max></m:Max></m:ModificationTime>"
        "<m:ReferencingApplication></m:ReferencingApplication><m:TeamSearchText></m:TeamSearchText>"
        "<m:User></m:User><m:VersionSearchText></m:VersionSearchText></m:QueryFileGroups>");
    FileQuery criteria;
    criteria.SetCommentSearchText(T("c"));
    criteria.SetDetailSearchText(T("d"));
    criteria.SetFileGroupSearchText(T("n"));
    criteria.AddFileType(FT_Image);
    criteria.AddFileType(FT_RAD);
    criteria.SetLocationState(LS_Central);
    criteria.SetLockState(LOCK_Write);
    criteria.SetLockUser(T("lu"));
    criteria.SetBackupTimeMin(QDateTime(QDate(2024, 1, 1), QTime(0, 30)));
    criteria.SetCreationTimeMax(QDateTime(QDate(2024, 6, 30), QTime(12, 0), Qt::UTC));
    criteria.SetLifeCycleTimeMin(QDateTime(QDate(2024, 2, 2), QTime(12, 0)));
    criteria.SetModificationTimeMax(QDateTime(QDate(2024, 2, 3), QTime(23, 59, 59, 999)));
    criteria.SetReferencingApplication(T("ra"));
    criteria.SetTeamMembershipSearchText(T("t"));
    criteria.SetCreatorSearchText(T("u"));
    criteria.SetVersionSearchText(T("v"));
    query.SetQuery(criteria);
    Row("QueryFileGroups filled, bounds in UTC", query,
        "<m:QueryFileGroups" NS "><m:Application></m:Application><m:CommentSearchText>c</m:CommentSearchText>"
        "<m:DetailSearchText>d</m:DetailSearchText><m:FileGroupNameSearchText>n</m:FileGroupNameSearchText>"
        "<m:FileTypeList><m:FileType>11</m:FileType><m:FileType>17</m:FileType></m:FileTypeList>"
        "<m:LocationState>2</m:LocationState><m:LockState>3</m:LockState><m:LockUser>lu</m:LockUser>"
        "<m:BackupTime><m:Min>2023-12-31 23:30:00.000</m:Min><m:Max></m:Max></m:BackupTime>"
        "<m:CreationTime><m:Min></m:Min><m:Max>2024-06-30 12:00:00.000</m:Max></m:CreationTime>"
        "<m:LifeCycle><m:Min>2024-02-02 11:00:00.000</m:Min><m:Max></m:Max></m:LifeCycle>"
        "<m:ModificationTime><m:Min></m:Min><m:Max>2024-02-03 22:59:59.999</m:Max></m:ModificationTime>"
        "<m:ReferencingApplication>ra</m:ReferencingApplication><m:TeamSearchText>t</m:TeamSearchText>"
        "<m:User>u</m:User><m:VersionSearchText>v</m:VersionSearchText></m:QueryFileGroups>");

    QueryLocationStateProgressMessage progress = WithGuid<QueryLocationStateProgressMessage>();
    Row("QueryLocationStateProgress", progress,
        "<m:QueryLocationStateProgress" NS ">" GUID "</m:QueryLocationStateProgress>");

    QueryMetaDataMessage metaData = WithGuid<QueryMetaDataMessage>();
    metaData.SetApplication(T("viewer"));
    Row("QueryMetaData", metaData,
        "<m:QueryMetaData" NS ">" GUID "<m:Application>viewer</m:Application></m:QueryMetaData>");

    RegisterConverterMessage converter;
    converter.SetConverterId(T("conv"));
    converter.SetFileTypes({FT_ScanRecording, FT_IfRecording, FT_AudioRecording});
    Row("RegisterConverter", converter,
        "<m:RegisterConverter" NS "><m:ConverterId>conv</m:ConverterId><m:FileType>8</m:FileType>"
        "<m:FileType>9</m:FileType><m:FileType>10</m:FileType></m:RegisterConverter>");

    RemoveAllReferencesMessage removeAll = WithGuid<RemoveAllReferencesMessage>();
    removeAll.SetApplication(T("viewer"));
    Row("RemoveAllReferences", removeAll,
        "<m:RemoveAllReferences" NS ">" GUID "<m:Application>viewer</m:Application></m:RemoveAllReferences>");

    RemoveReferenceMessage remove = WithGuid<RemoveReferenceMessage>();
    remove.SetApplication(T("viewer"));
    Row("RemoveReference", remove,
        "<m:RemoveReference" NS ">" GUID "<m:Application>viewer</m:Application></m:RemoveReference>");

    RequestFileMessage requestFile = WithGuid<RequestFileMessage>();
    requestFile.SetFileId(1);
    requestFile.SetWriteLock(true);
    requestFile.SetUserName(T("10.0.0.1|viewer|anna"));
    Row("RequestFile", requestFile,
        "<m:RequestFile" NS ">" GUID "<m:FileId>1</m:FileId><m:WriteLock>true</m:WriteLock>"
        "<m:UserName>10.0.0.1|viewer|anna</m:UserName></m:RequestFile>");
}

void TestRequestMessages::toXml()
{
    QFETCH(QByteArray, actual);
    QFETCH(QByteArray, expected);
    QCOMPARE(actual, expected);
}

void TestRequestMessages::requestIds()
{
    const GetBasePathMessage first;
    const GetBasePathMessage second;
    QCOMPARE(first.GetRequestId().size(), 36);
    QVERIFY(first.GetRequestId() != second.GetRequestId());
    QVERIFY(first.ToXml().contains("<s:RequestId>" + first.GetRequestId().toLatin1() + "</s:RequestId>"));
}

int main(int argc, char *argv[])
{
    // One hour east of UTC, no daylight saving: fixes the UTC conversion.
    qputenv("TZ", "KLT-1");
    tzset();
    QCoreApplication app(argc, argv);
    TestRequestMessages test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_requestmessages.moc"
