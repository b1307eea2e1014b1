#include "commanddescriptors.h"
#include "commandrequest.h"
#include "errorhandler.h"
#include "replyparser.h"
#include "replywriter.h"
#include "request.h"
#include "requestmessages.h"

#include <QtTest>

using namespace Kelda;

namespace {

// The table with one change, to see that the build checks notice it.
struct Table
{
    CommandDescriptor entries[CommandCount];
};

constexpr Table CopyOfTable()
{
    Table copy{};
    for (int i = 0; i < CommandCount; ++i)
        copy.entries[i] = CommandDescriptors[i];
    return copy;
}

constexpr Table Swapped(int a, int b)
{
    Table table = CopyOfTable();
    const CommandDescriptor first = table.entries[a];
    table.entries[a] = table.entries[b];
    table.entries[b] = first;
    return table;
}

constexpr Table WithReply(int at, QLatin1String reply)
{
    Table table = CopyOfTable();
    table.entries[at].reply = reply;
    return table;
}

constexpr Table WithoutFailureTrace(int at)
{
    Table table = CopyOfTable();
    table.entries[at].errorTrace = QLatin1String();
    return table;
}

constexpr int AddFile = int(ReplyKind::AddFile);
constexpr int DeleteFile = int(ReplyKind::DeleteFile);

static_assert(FirstOutOfOrder(Swapped(AddFile, DeleteFile).entries) == AddFile);
static_assert(FirstDuplicateElement(WithReply(DeleteFile, Tag::AddFileReply).entries) == DeleteFile);
static_assert(FirstIncomplete(WithReply(AddFile, Tag::DeleteFileReply).entries) == AddFile);
static_assert(FirstIncomplete(WithoutFailureTrace(DeleteFile).entries) == DeleteFile);

// A command whose reply lists records, as a next command might.
constexpr QLatin1String Digest = Latin1Literal("Digest");
constexpr CommandDescriptor Checksums =
    Describe(ReplyKind::Count, Exchange::Command, Effect::Reads)
        .Sends(Latin1Literal("ListChecksums"), {Field::Guid})
        .Receives(Latin1Literal("ListChecksumsReply"), {Tag::Files, Tag::File, EndOf(Tag::Files)}, ResultKind::Records)
        .Record(Tag::File, {Tag::FileId, Tag::FileName, Digest})
        .FailureTraced("Error while listing checksums: %1 (%2)")
        .Signals("listChecksumsReply", "ListChecksumsSg");

static_assert(IsComplete(Checksums));
static_assert(RecordColumn(Checksums, Digest) == 2 && RecordColumn(Checksums, Tag::Path) == -1);
static_assert(!IsComplete(Checksums.Receives(Checksums.reply, {Tag::Files, EndOf(Tag::Files)}, ResultKind::Records)),
              "a record that the reply cannot hold");
static_assert(!IsComplete(Checksums.Receives(Latin1Literal("ChecksumsReply"), {Tag::File}, ResultKind::Records)),
              "a reply not named after its request");
static_assert(!IsComplete(Checksums.Traced("%1 %2", {Tag::Guid})), "a send trace without a field for each place");
static_assert(!IsComplete(Checksums.FailureTraced("Error while listing checksums: %1")),
              "a failure trace without a place for the code");

const QString Rid = QStringLiteral("r-1");

QString T(const char *text)
{
    return QString::fromUtf8(text);
}

QByteArray Message(const QByteArray &children)
{
    return "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\"><s:Body>"
           "<m:ListChecksumsReply xmlns:m=\"http://kelda.archive/8SP/KELDA\">" +
        children + "</m:ListChecksumsReply></s:Body></s:Envelope>";
}

// What the server's writer makes of two records and a status.
QByteArray Written(int error)
{
    ReplyWriter writer(Checksums.reply, Rid);
    writer.writeStartElement(Tag::Files);
    writer.writeRecord(Checksums, {QStringLiteral("1"), QStringLiteral("a.bin"), QStringLiteral("d1")});
    writer.writeRecord(Checksums, {QStringLiteral("2"), QStringLiteral("b.bin")});
    writer.writeEndElement();
    writer.writeStatus(error, QString());
    return writer.finish();
}

ParsedReply ParseChecksums(const QByteArray &message)
{
    QXmlStreamReader reader(message);
    while (!reader.atEnd() && !(reader.isStartElement() && reader.name() == Checksums.reply))
        reader.readNext();
    return ParseReply(Checksums, reader, Rid);
}

const QByteArray MessageRid = QByteArrayLiteral("11111111-2222-3333-4444-555555555555");
#define NS " xmlns:m=\"http://kelda.archive/8SP/KELDA\""
#define GUID "<m:Guid>g-1</m:Guid>"
#define APP "<m:Application>viewer</m:Application>"

// Every message gets a Guid and an Application, so that a command writing one it has no place for shows up.
template <typename Message> Message Filled()
{
    Message message;
    message.SetRequestId(QString::fromLatin1(MessageRid));
    message.SetGuid(T("g-1"));
    message.SetApplication(T("viewer"));
    return message;
}

// The first word of a row's name is the command; children are the command element's content.
void Row(const char *name, const KeldaClientSOAPMessage &message, const QByteArray &children,
         const QByteArray &requestId = MessageRid)
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

// The command table's build checks and records, every request as the server
// reads it, and the exact document each request message writes.
class TestCommandDescriptors : public QObject
{
    Q_OBJECT

private slots:
    void records_data();
    void records();
    void requestsReadByTheServer_data();
    void requestsReadByTheServer();
    void toXml_data();
    void toXml();
    void freshMessage();
};

void TestCommandDescriptors::records_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QStringList>("values");
    QTest::addColumn<int>("lastError");
    QTest::addColumn<QString>("error");

    const QString none;
    QTest::newRow("server's writer, a missing field empty")
        << Written(0) << QStringList{T("1"), T("a.bin"), T("d1"), T("2"), T("b.bin"), none} << 0 << none;
    QTest::newRow("fields in any order")
        << Message("<m:Files><m:File><m:Digest>x</m:Digest><m:FileId>3</m:FileId></m:File></m:Files>")
        << QStringList{T("3"), none, T("x")} << 0 << none;
    QTest::newRow("a failure is stored, its records kept")
        << Written(5) << QStringList{T("1"), T("a.bin"), T("d1"), T("2"), T("b.bin"), none} << 5 << none;
    QTest::newRow("a field the record has not")
        << Message("<m:Files><m:File><m:Size>1</m:Size></m:File></m:Files>") << QStringList() << -1
        << T("Expected one of /File, FileId, FileName, Digest, but got Size at line 1, column 179");
}

void TestCommandDescriptors::records()
{
    QFETCH(QByteArray, message);
    QFETCH(QStringList, values);
    QFETCH(int, lastError);
    QFETCH(QString, error);

    QStringList traces;
    ErrorHandler::Instance()->SetTraceHook([&](const QString &text, const char *, int) { traces << text; });
    const ParsedReply parsed = ParseChecksums(message);
    ErrorHandler::Instance()->SetTraceHook({});

    QCOMPARE(parsed.error, error);
    QCOMPARE(parsed.lastError.value_or(-1), lastError);
    QCOMPARE(parsed.requestId, Rid);
    if (!parsed.IsValid())
        return;
    const auto &result = std::get<RecordsResult>(parsed.result);
    QCOMPARE(result.fieldCount, 3);
    QCOMPARE(result.values, values);
    QCOMPARE(result.error, lastError);
    const QStringList failure{T("Error while listing checksums: File group is write locked (5)")};
    QCOMPARE(traces, lastError ? failure : QStringList());
}

void TestCommandDescriptors::requestsReadByTheServer_data()
{
    QTest::addColumn<int>("kind");
    for (const CommandDescriptor &command : CommandDescriptors) {
        if (!command.request.isEmpty())
            QTest::newRow(command.request.data()) << int(command.kind);
    }
}

// Every field the client writes, the server reads under the same name.
void TestCommandDescriptors::requestsReadByTheServer()
{
    QFETCH(int, kind);
    const CommandDescriptor &command = CommandDescriptors[kind];
    CommandRequest request(command.kind);
    for (const RequestField &field : command.fields)
        request.SetTexts(field.name, {QStringLiteral("1"), QStringLiteral("2")});

    const RequestReader::Result read = RequestReader::read(request.ToXml());
    QVERIFY2(read.ok, qPrintable(read.error));
    QCOMPARE(read.request.command, QString(command.request));
    QCOMPARE(read.request.requestId, request.GetRequestId());
    for (const RequestField &field : command.fields) {
        const QString key = field.shape == FieldShape::List ? nestedKey(field.name, field.item)
            : field.shape == FieldShape::TimeRange          ? nestedKey(field.name, Tag::Min)
                                                            : QString(field.name);
        QVERIFY2(read.request.has(key), qPrintable(key));
    }
}

void TestCommandDescriptors::toXml_data()
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

void TestCommandDescriptors::toXml()
{
    QFETCH(QByteArray, actual);
    QFETCH(QByteArray, expected);
    QCOMPARE(actual, expected);
}

void TestCommandDescriptors::freshMessage()
{
    const QueryFileGroupsMessage first;
    QVERIFY(first.GetRequestId() != QueryFileGroupsMessage().GetRequestId());
    // No file type asked for: the list is still written, as an empty-element tag.
    QVERIFY(first.ToXml().contains("</m:FileGroupNameSearchText><m:FileTypeList/><m:LocationState>"));
}

QTEST_GUILESS_MAIN(TestCommandDescriptors)
#include "tst_commanddescriptors.moc"
