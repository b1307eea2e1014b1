#include "replyparser.h"

#include "errorhandler.h"
#include "keldaerror.h"

#include <QtTest>

#include <ctime>

using namespace Kelda;

namespace {

const QByteArray Rid = "11111111-2222-3333-4444-555555555555";
const QString Uri = QStringLiteral("http://kelda.archive/8SP/KELDA");
const int NoStore = -1000;

#define NS " xmlns:m=\"http://kelda.archive/8SP/KELDA\""

// The body elements in dispatch order, with the trace of a failed reply.
const char *const Replies[][2] = {
    {"CreateFileGroupReply", "Error while creating file group: %1 (%2)"},
    {"AddFileReply", "Error while adding file: %1 (%2)"},
    {"DeleteFileReply", "Error while deleting file group: %1 (%2)"},
    {"RequestFileReply", "Error while requesting file: %1 (%2)"},
    {"CloseFileReply", "Error while closing file: %1 (%2)"},
    {"MoveToNasReply", "Error while moving to NAS: %1 (%2)"},
    {"AddReferenceReply", "Error while adding reference: %1 (%2)"},
    {"RemoveReferenceReply", "Error while removing reference: %1 (%2)"},
    {"RemoveAllReferencesReply", "Error while removing all references: %1 (%2)"},
    {"QueryMetaDataReply", ""},
    {"GetApplicationListReply", "Error while getting application list: %1 (%2)"},
    {"GetFileListReply", "Error while getting file list: %1 (%2)"},
    {"GetUserListReply", "Error while getting user list: %1 (%2)"},
    {"QueryFileGroupsReply", "Error while getting user list: %1 (%2)"},
    {"GetBasePathReply", "Error while getting base path: %1 (%2)"},
    {"CopyForeignFileGroupProgress", "Error while getting progress: %1 (%2)"},
    {"ExportArchiveReply", "Error while exporting archive: %1 (%2)"},
    {"ImportArchiveReply", "Error while importing archive: %1 (%2)"},
    {"CreateTovinFileGroupReply", "Error while creating file group: %1 (%2)"},
    {"RegisterConverterReply", "Error while getting register converter reply: %1 (%2)"},
    {"ConvertFileGroup", ""},
    {"DeleteFileGroupReply", "Error while getting delete filegroup reply: %1 (%2)"},
    {"QueryLocationStateProgressReply", "Error while getting QueryLocationStateProgress reply: %1 (%2)"},
    {"CheckFileGroupExistsReply", "Error while getting QueryLocationStateProgress reply: %1 (%2)"},
    {"GetRemoteStorageLocationReply", "Error while getting RemoteStorageLocation reply: %1 (%2)"},
    {"GetTovinFilegroupGuidReply", "Error while getting GetTovinFilegroupGuid reply: %1 (%2)"},
    {"QueryDiskSpaceReply", ""},
};

QString T(const char *text)
{
    return QString::fromUtf8(text);
}

QByteArray Message(const QByteArray &body, bool withHeader = true)
{
    const QByteArray header = "<s:Header><s:Version>1.0</s:Version><s:RequestId>" + Rid + "</s:RequestId></s:Header>";
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\">"
        + (withHeader ? header : QByteArray()) + "<s:Body>" + body + "</s:Body></s:Envelope>\n";
}

QByteArray Reply(const QByteArray &name, const QByteArray &children)
{
    return Message("<m:" + name + NS ">" + children + "</m:" + name + ">");
}

// The members of any result, in signal argument order.
QVariantList Arguments(const ReplyResult &result)
{
    struct Visitor
    {
        QVariantList operator()(std::monostate) const { return {}; }
        QVariantList operator()(const StatusResult &r) const { return {r.requestId, r.error, r.errorString}; }
        QVariantList operator()(const TextResult &r) const { return {r.requestId, r.text, r.error, r.errorString}; }
        QVariantList operator()(const ListResult &r) const { return {r.requestId, r.list, r.error, r.errorString}; }
        QVariantList operator()(const TableResult &r) const { return {r.requestId, r.table, r.columnCount, r.error}; }
        QVariantList operator()(const FileIdResult &r) const { return {r.requestId, r.fileId}; }
        QVariantList operator()(const CreatedGroupResult &r) const { return {r.guid, r.path}; }
        QVariantList operator()(const BasePathResult &r) const { return {r.path}; }
        QVariantList operator()(const MetaDataResult &r) const { return {r.requestId, r.error, r.errorString}; }
        QVariantList operator()(const ExistsResult &r) const { return {r.requestId, r.exists, r.error, r.errorString}; }
        QVariantList operator()(const CopyProgressResult &r) const { return {r.requestId, r.progress}; }
        QVariantList operator()(const LocationStateProgressResult &r) const
        {
            return {r.requestId, r.locationState, r.progress, r.error, r.errorString};
        }
        QVariantList operator()(const RemoteStorageLocationResult &r) const
        {
            return {r.requestId, r.remoteIp, r.attachmentUrl, r.error, r.errorString};
        }
        QVariantList operator()(const ConvertRequestResult &r) const { return {r.guid, int(r.fileType), r.path}; }
    };
    return std::visit(Visitor(), result);
}

// Failure traces (the test's default mask) go to the lists instead of the sink.
struct TraceCapture
{
    TraceCapture()
    {
        ErrorHandler::Instance()->SetTraceHook([this](const QString &text, const char *source, int) {
            texts << text;
            sources << QString::fromLatin1(source);
        });
    }
    ~TraceCapture() { ErrorHandler::Instance()->SetTraceHook({}); }
    QStringList texts;
    QStringList sources;
};

} // namespace

class TestReplyParser : public QObject
{
    Q_OBJECT

private slots:
    void everyReply_data();
    void everyReply();
    void results_data();
    void results();
    void protocolErrors_data();
    void protocolErrors();
    void truncatedReplies_data();
    void truncatedReplies();
    void queryFileGroups();
    void queryMetaData();
};

void TestReplyParser::everyReply_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("trace");
    for (const auto &reply : Replies)
        QTest::newRow(reply[0]) << QByteArray(reply[0]) << int(&reply - Replies) << T(reply[1]);
}

void TestReplyParser::everyReply()
{
    QFETCH(QByteArray, name);
    QFETCH(int, index);
    QFETCH(QString, trace);

    TraceCapture capture;
    ParsedReply parsed = ParseReplyMessage(Reply(name, QByteArray()));
    QVERIFY2(parsed.IsValid(), qPrintable(parsed.error));
    QCOMPARE(parsed.index, index);
    QCOMPARE(parsed.requestId, QString::fromLatin1(Rid));
    const bool noParser = parsed.Kind() == ReplyKind::QueryDiskSpace;
    QCOMPARE(std::holds_alternative<std::monostate>(parsed.result), noParser);
    // A success stores 0; a server request and a reply without parser store nothing.
    const bool stores = !noParser && parsed.Kind() != ReplyKind::ConvertFileGroup;
    QCOMPARE(parsed.lastError.value_or(NoStore), stores ? 0 : NoStore);
    QCOMPARE(capture.texts, QStringList());
    if (trace.isEmpty())
        return;

    parsed = ParseReplyMessage(Reply(name, "<m:ErrorString>disk full</m:ErrorString><m:Error>80</m:Error>"));
    QVERIFY2(parsed.IsValid(), qPrintable(parsed.error));
    QCOMPARE(parsed.lastError.value_or(NoStore), 1);
    QCOMPARE(capture.texts, QStringList{trace.arg(T("disk full(Invalid error code)"), T("80"))});
    QCOMPARE(capture.sources, QStringList{T("framework/kelda/keldaclient/src/commandsender")});
    ErrorHandler::Instance()->SetLevel(0);
    ParseReplyMessage(Reply(name, "<m:Error>5</m:Error>"));
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
    QCOMPARE(capture.texts.size(), 1);
}

void TestReplyParser::results_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QVariantList>("arguments");
    QTest::addColumn<int>("lastError");

    const QString rid = QString::fromLatin1(Rid);
    const QString e5 = KeldaErrorString::Get(KE_FileGroupWriteLocked);
    const auto row = [](const char *name, const QByteArray &message, const QVariantList &arguments, int lastError) {
        QTest::newRow(name) << message << arguments << lastError;
    };

    row("AddFile", Reply("AddFileReply", "<m:FileId>7</m:FileId><m:Error>0</m:Error>"), {rid, 7u}, 0);
    row("AddFile id not unsigned", Reply("AddFileReply", "<m:FileId>-1</m:FileId>"), {rid, 0u}, 0);
    row("RequestFile reverse order, whitespace, comment",
        Reply("RequestFileReply", "\n <m:ErrorString>srv</m:ErrorString>\n <!-- c --><m:Error>5</m:Error>\t"
                                  "<m:Path>/x</m:Path>\n"),
        {rid, T("/x"), 5, T("srv(%1)").arg(e5)}, 5);
    row("RequestFile repeated child overwrites", Reply("RequestFileReply", "<m:Path>/a</m:Path><m:Path>/b</m:Path>"),
        {rid, T("/b"), 0, QString()}, 0);
    row("CloseFile absent children", Reply("CloseFileReply", ""), {rid, 0, QString()}, 0);
    row("DeleteFile error without text", Reply("DeleteFileReply", "<m:Error>5</m:Error>"), {rid, 5, e5}, 5);
    row("MoveToNas error 80 stored as 1, handed on as 80",
        Reply("MoveToNasReply", "<m:Error>80</m:Error><m:ErrorString>x</m:ErrorString>"),
        {rid, 80, T("x(Invalid error code)")}, 1);
    row("AddReference error 72 stored as 1", Reply("AddReferenceReply", "<m:Error>72</m:Error>"),
        {rid, 72, T("Invalid error code")}, 1);
    row("RemoveReference error 71 kept", Reply("RemoveReferenceReply", "<m:Error>71</m:Error>"),
        {rid, 71, KeldaErrorString::Get(KE_RemoteSystemNotConnected)}, 71);
    row("RemoveAllReferences negative code kept", Reply("RemoveAllReferencesReply", "<m:Error>-3</m:Error>"),
        {rid, -3, T("Invalid error code")}, -3);
    row("ExportArchive bad number reads 0", Reply("ExportArchiveReply", "<m:Error>x1</m:Error>"), {rid, 0, QString()}, 0);
    row("CheckFileGroupExists true", Reply("CheckFileGroupExistsReply", "<m:Exists>true</m:Exists>"),
        {rid, true, 0, QString()}, 0);
    row("CheckFileGroupExists TRUE is false", Reply("CheckFileGroupExistsReply", "<m:Exists>TRUE</m:Exists>"),
        {rid, false, 0, QString()}, 0);
    row("CreateFileGroup", Reply("CreateFileGroupReply", "<m:Path>/p</m:Path><m:Guid>g1</m:Guid>"), {T("g1"), T("/p")}, 0);
    row("CreateTovinFileGroup", Reply("CreateTovinFileGroupReply", "<m:Guid>g2</m:Guid><m:Path>/p</m:Path>"),
        {rid, T("g2"), 0, QString()}, 0);
    row("GetApplicationList with wrapper",
        Reply("GetApplicationListReply", "<m:Applications><m:Application>a</m:Application>"
                                         "<m:Application>b &amp; c</m:Application></m:Applications>"),
        {rid, QStringList{T("a"), T("b & c")}, 0, QString()}, 0);
    row("GetFileList in arrival order",
        Reply("GetFileListReply", "<m:Files><m:File><m:FileId>1</m:FileId><m:FileName>a</m:FileName></m:File>"
                                  "<m:File><m:FileName>b</m:FileName><m:FileId>2</m:FileId></m:File></m:Files>"),
        {rid, QStringList{T("1"), T("a"), T("b"), T("2")}, 0, QString()}, 0);
    row("GetBasePath error", Reply("GetBasePathReply", "<m:Path>/base</m:Path><m:Error>47</m:Error>"), {T("/base")}, 47);
    row("GetRemoteStorageLocation",
        Reply("GetRemoteStorageLocationReply", "<m:AttachmentUrl>u</m:AttachmentUrl><m:RemoteIp>1.2.3.4</m:RemoteIp>"),
        {rid, T("1.2.3.4"), T("u"), 0, QString()}, 0);
    row("QueryLocationStateProgress",
        Reply("QueryLocationStateProgressReply", "<m:LocationState>4</m:LocationState><m:CopyProgress>0.75</m:CopyProgress>"),
        {rid, 4, 0.75, 0, QString()}, 0);
    row("CopyForeignFileGroupProgress",
        Reply("CopyForeignFileGroupProgress", "<m:CopyProgress>0.25</m:CopyProgress><m:Error>3</m:Error>"), {rid, 0.25f}, 3);
    row("ConvertFileGroup", Reply("ConvertFileGroup", "<m:Path>/in</m:Path><m:FileType>5</m:FileType><m:Guid>g4</m:Guid>"),
        {T("g4"), 5, T("/in")}, NoStore);
    row("no header: empty request id",
        Message("<m:DeleteFileGroupReply" NS "><m:Error>0</m:Error></m:DeleteFileGroupReply>", false),
        {QString(), 0, QString()}, 0);
    row("text after the reply is not read", Reply("ImportArchiveReply", "").replace("</s:Body>", "</s:Body>junk"),
        {rid, 0, QString()}, 0);
}

void TestReplyParser::results()
{
    QFETCH(QByteArray, message);
    QFETCH(QVariantList, arguments);
    QFETCH(int, lastError);

    TraceCapture capture;
    const ParsedReply parsed = ParseReplyMessage(message);
    QVERIFY2(parsed.IsValid(), qPrintable(parsed.error));
    QCOMPARE(Arguments(parsed.result), arguments);
    QCOMPARE(parsed.lastError.value_or(NoStore), lastError);
}

void TestReplyParser::protocolErrors_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QString>("error");
    // The reader stands right after this text when it fails (text is read up to
    // and including the next "<"); empty: at the end.
    QTest::addColumn<QByteArray>("failAfter");

    QStringList names;
    for (const auto &reply : Replies)
        names << T(reply[0]);

    QTest::newRow("stray text between children") << Reply("AddFileReply", "<m:FileId>1</m:FileId> x <m:Error>0</m:Error>")
                                                 << T("Unexpected text  x ") << QByteArray("</m:FileId> x <");
    QTest::newRow("unlisted child") << Reply("CloseFileReply", "<m:Bogus/>")
                                    << T("Expected one of /CloseFileReply, Error, ErrorString, but got Bogus")
                                    << QByteArray("<m:Bogus/>");
    QTest::newRow("foreign namespace") << Reply("CloseFileReply", "<x:Error xmlns:x=\"urn:other\">1</x:Error>")
                                       << T("Expected namespace %1, but got urn:other").arg(Uri)
                                       << QByteArray("\"urn:other\">");
    QTest::newRow("unknown reply element") << Reply("FooReply", "")
                                           << T("Expected one of %1, but got FooReply").arg(names.join(T(", ")))
                                           << QByteArray("<m:FooReply" NS ">");
    QTest::newRow("not an envelope")
        << QByteArray("<?xml version=\"1.0\"?>\n<s:Body xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\"/>")
        << T("Expected element Envelope, but got Body") << QByteArray("envelope\"/>");
    QTest::newRow("empty envelope") << QByteArray("<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\"/>")
                                    << T("Expected one of Header, Body, but got end of document") << QByteArray();
    QTest::newRow("premature end") << Reply("AddFileReply", "<m:FileId>1</m:FileId>").left(220)
                                   << T("Premature end of document.") << QByteArray();
    QTest::newRow("element inside a number of a group")
        << Reply("QueryFileGroupsReply", "<m:FileGroup><m:FileType>1<m:x/></m:FileType></m:FileGroup>")
        << T("Expected character data.") << QByteArray("<m:x/>");
    QTest::newRow("query reply whose Files has children")
        << Reply("QueryFileGroupsReply", "<m:FileGroup><m:Guid>g</m:Guid><m:Files><m:File><m:FileId>1</m:FileId>"
                                         "</m:File></m:Files></m:FileGroup>")
        << T("Expected one of /FileGroup, Guid, FileGroupName, FileType, LocationState, BackupTime, CreationTime, "
             "ModificationTime, LifeCycle, Comment, Creator, Detail, TeamMembership, Version, ReservedStorage, "
             "ReferenceCounter, Files, but got File")
        << QByteArray("<m:Files><m:File>");
    QTest::newRow("empty message") << QByteArray() << T("Premature end of document.") << QByteArray();
}

void TestReplyParser::protocolErrors()
{
    QFETCH(QByteArray, message);
    QFETCH(QString, error);
    QFETCH(QByteArray, failAfter);

    const int offset = failAfter.isEmpty() ? message.size() : message.indexOf(failAfter) + failAfter.size();
    const int column = offset - (message.lastIndexOf('\n', offset - 1) + 1);
    const int line = message.left(offset).count('\n') + 1;

    TraceCapture capture;
    const ParsedReply parsed = ParseReplyMessage(message);
    QCOMPARE(parsed.error, error + T(" at line %1, column %2").arg(line).arg(column));
    QVERIFY(std::holds_alternative<std::monostate>(parsed.result));
    QVERIFY(!parsed.lastError.has_value());
    QCOMPARE(capture.texts, QStringList());
}

void TestReplyParser::truncatedReplies_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QByteArray>("replyEnd");

    QTest::newRow("AddFile")
        << Reply("AddFileReply", "<m:FileId>7</m:FileId><m:Error>3</m:Error><m:ErrorString>a&amp;b</m:ErrorString>")
        << QByteArray("</m:AddFileReply>");
    QTest::newRow("QueryFileGroups")
        << Reply("QueryFileGroupsReply", "<m:FileGroup><m:Guid>g</m:Guid><m:CreationTime>2020-01-02 03:04:05"
                                         "</m:CreationTime><m:Files/></m:FileGroup><m:FileGroup><m:FileType>2"
                                         "</m:FileType></m:FileGroup><m:Error>0</m:Error>")
        << QByteArray("</m:QueryFileGroupsReply>");
}

// A reply cut anywhere before its end tag fails with a positioned error and
// yields nothing; cut later, it is complete.
void TestReplyParser::truncatedReplies()
{
    QFETCH(QByteArray, message);
    QFETCH(QByteArray, replyEnd);

    TraceCapture capture;
    const int complete = message.indexOf(replyEnd) + replyEnd.size();
    const QRegularExpression position(T(" at line \\d+, column \\d+$"));
    for (int size = 0; size < message.size(); ++size) {
        const ParsedReply parsed = ParseReplyMessage(message.left(size));
        QCOMPARE(parsed.IsValid(), size >= complete);
        if (size < complete) {
            QVERIFY2(parsed.error.contains(position), qPrintable(parsed.error));
            QVERIFY(std::holds_alternative<std::monostate>(parsed.result));
            QVERIFY(!parsed.lastError.has_value());
        }
    }
}

void TestReplyParser::queryFileGroups()
{
    const QDateTime creation(QDate(2020, 1, 2), QTime(3, 4, 5));
    FileGroupData full;
    full.setGuid(T("g1"));
    full.setFileGroupName(T("first"));
    full.setFileType(FT_Image);
    full.setLocationState(LS_Central);
    full.setBackupTime(QDateTime(QDate(2021, 12, 31), QTime(23, 59, 59)));
    full.setCreationTime(creation);
    full.setModificationTime(creation.addDays(1));
    full.setLifeCycle(QDateTime(QDate(2030, 6, 1), QTime(0, 0)));
    full.setComment(T("c"));
    full.setCreator(T("anna"));
    full.setDetail(T("d"));
    full.setTeamMembership(T("t"));
    full.setVersion(T("2"));
    full.setReservedStorage(-4);
    full.setReferenceCounter(3);
    // Times in any other form, and impossible dates, are invalid.
    FileGroupData sparse;
    sparse.setGuid(T("g2"));
    // The first group's creation time again; numbers read as QString::toInt reads them.
    FileGroupData third;
    third.setGuid(T("g3"));
    third.setCreationTime(creation);
    third.setModificationTime(creation.addSecs(1));

    TraceCapture capture;
    const ParsedReply parsed = ParseReplyMessage(Reply(
        "QueryFileGroupsReply",
        "<m:FileGroup><m:Files/><m:ReferenceCounter> 3 </m:ReferenceCounter><m:ReservedStorage>-4</m:ReservedStorage>"
        "<m:Version>2</m:Version><m:TeamMembership>t</m:TeamMembership><m:Detail>d</m:Detail><m:Creator>anna</m:Creator>"
        "<m:Comment>c</m:Comment><m:LifeCycle>2030-06-01 00:00:00</m:LifeCycle>"
        "<m:ModificationTime>2020-01-03 03:04:05</m:ModificationTime><m:CreationTime>2020-01-02 03:04:05</m:CreationTime>"
        "<m:BackupTime>2021-12-31 23:59:59</m:BackupTime><m:LocationState>2</m:LocationState><m:FileType>11</m:FileType>"
        "<m:FileGroupName>first</m:FileGroupName><m:Guid>g1</m:Guid></m:FileGroup>\n<m:Error>5</m:Error>\n"
        "<m:FileGroup><m:Guid>g2</m:Guid><m:CreationTime>2020-02-30 03:04:05</m:CreationTime>"
        "<m:BackupTime>2020-01-02T03:04:05</m:BackupTime></m:FileGroup>"
        "<m:FileGroup><m:Guid>g3</m:Guid><m:CreationTime>2020-01-02 03:04:05</m:CreationTime>"
        "<m:ModificationTime>2020-01-02 03:04:06</m:ModificationTime><m:FileType>1,000</m:FileType></m:FileGroup>"));
    QVERIFY2(parsed.IsValid(), qPrintable(parsed.error));
    const TableResult &result = std::get<TableResult>(parsed.result);

    QStringList expected;
    FileGroupData::GetHeaders(expected);
    QCOMPARE(result.columnCount, expected.size());
    full.ToStringList(expected);
    sparse.ToStringList(expected);
    third.ToStringList(expected);
    QCOMPARE(result.table, expected);
    QCOMPARE(result.error, 5);
    QCOMPARE(capture.texts, QStringList{T("Error while getting user list: File group is write locked (5)")});

    const ParsedReply empty = ParseReplyMessage(Reply("QueryFileGroupsReply", ""));
    QCOMPARE(std::get<TableResult>(empty.result).table.size(), result.columnCount);
}

void TestReplyParser::queryMetaData()
{
    TraceCapture capture;
    ParsedReply parsed = ParseReplyMessage(Reply(
        "QueryMetaDataReply",
        "<m:FileGroup><m:Guid>g1</m:Guid><m:FileGroupName>n</m:FileGroupName></m:FileGroup><m:ErrorString>x</m:ErrorString>"));
    QVERIFY2(parsed.IsValid(), qPrintable(parsed.error));
    MetaDataResult result = std::get<MetaDataResult>(parsed.result);
    QCOMPARE(result.requestId, QString::fromLatin1(Rid));
    QCOMPARE(result.metaData.getGuid(), T("g1"));
    QCOMPARE(result.metaData.getFileGroupName(), T("n"));
    QCOMPARE(result.error, 0);
    QCOMPARE(result.errorString, T("the filegroup meta data request returned the error: No error"));

    parsed = ParseReplyMessage(Reply("QueryMetaDataReply", "<m:Error>80</m:Error>"));
    result = std::get<MetaDataResult>(parsed.result);
    QCOMPARE(result.error, 80);
    QCOMPARE(result.errorString, T("the filegroup meta data request returned the error: Invalid error code"));
    QCOMPARE(parsed.lastError.value_or(NoStore), 1);
    QCOMPARE(capture.texts, QStringList());
}

int main(int argc, char *argv[])
{
    qputenv("TZ", "KLT-1");
    tzset();
    QCoreApplication app(argc, argv);
    TestReplyParser test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_replyparser.moc"
