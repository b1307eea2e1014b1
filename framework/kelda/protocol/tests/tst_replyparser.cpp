#include "replyparser.h"

#include "errorhandler.h"
#include "replystream.h"
#include "filegroupcolumns.h"
#include "keldaerror.h"

#include <QtTest>

#include <ctime>

using namespace Kelda;

namespace {

const QByteArray Rid = "11111111-2222-3333-4444-555555555555";
const int NoStore = -1000;

#define NS " xmlns:m=\"http://kelda.archive/8SP/KELDA\""

// The body elements in dispatch order, with what a failure's trace was doing; none: no trace.
const char *const Replies[][2] = {
    {"CreateFileGroupReply", "creating file group"},
    {"AddFileReply", "adding file"},
    {"DeleteFileReply", "deleting file group"},
    {"RequestFileReply", "requesting file"},
    {"CloseFileReply", "closing file"},
    {"MoveToNasReply", "moving to NAS"},
    {"AddReferenceReply", "adding reference"},
    {"RemoveReferenceReply", "removing reference"},
    {"RemoveAllReferencesReply", "removing all references"},
    {"QueryMetaDataReply", ""},
    {"GetApplicationListReply", "getting application list"},
    {"GetFileListReply", "getting file list"},
    {"GetUserListReply", "getting user list"},
    {"QueryFileGroupsReply", "getting user list"},
    {"GetBasePathReply", "getting base path"},
    {"CopyForeignFileGroupProgress", "getting progress"},
    {"ExportArchiveReply", "exporting archive"},
    {"ImportArchiveReply", "importing archive"},
    {"CreateTovinFileGroupReply", "creating file group"},
    {"RegisterConverterReply", "getting register converter reply"},
    {"ConvertFileGroup", ""},
    {"DeleteFileGroupReply", "getting delete filegroup reply"},
    {"QueryLocationStateProgressReply", "getting QueryLocationStateProgress reply"},
    {"CheckFileGroupExistsReply", "getting QueryLocationStateProgress reply"},
    {"GetRemoteStorageLocationReply", "getting RemoteStorageLocation reply"},
    {"GetTovinFilegroupGuidReply", "getting GetTovinFilegroupGuid reply"},
    {"QueryDiskSpaceReply", ""},
    {"GetFileChecksumsReply", "getting file checksums"},
    {"VerifyFileGroupReply", "verifying file group"},
};

QString T(const char *text)
{
    return QString::fromUtf8(text);
}

QByteArray Message(const QByteArray &body, bool withHeader = true)
{
    const QByteArray header = "<s:Header><s:Version>1.0</s:Version><s:RequestId>" + Rid + "</s:RequestId></s:Header>";
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<s:Envelope "
           "xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\">" +
        (withHeader ? header : QByteArray()) + "<s:Body>" + body + "</s:Body></s:Envelope>\n";
}

QByteArray Reply(const QByteArray &name, const QByteArray &children)
{
    return Message("<m:" + name + NS ">" + children + "</m:" + name + ">");
}

// The members of a result, in signal argument order; {} where no row looks.
struct ArgumentsOf
{
    QVariantList operator()(const StatusResult &r) const { return {r.requestId, r.error, r.errorString}; }
    QVariantList operator()(const TextResult &r) const { return {r.requestId, r.text, r.error, r.errorString}; }
    QVariantList operator()(const ListResult &r) const { return {r.requestId, r.list, r.error, r.errorString}; }
    QVariantList operator()(const TableResult &r) const
    {
        return {r.requestId, r.table, r.columnCount, r.error, r.errorString};
    }
    QVariantList operator()(const FileIdResult &r) const { return {r.requestId, r.fileId}; }
    QVariantList operator()(const MetaDataResult &r) const
    {
        return {r.requestId, r.metaData.getGuid(), r.errorString};
    }
    QVariantList operator()(const ExistsResult &r) const { return {r.requestId, r.exists, r.error, r.errorString}; }
    QVariantList operator()(const ConvertRequestResult &r) const { return {r.guid, int(r.fileType), r.path}; }
    template <typename Unchecked> QVariantList operator()(const Unchecked &) const { return {}; }
};

// Failure traces (the test's default mask) go to texts as "source: text".
struct TraceCapture
{
    TraceCapture()
    {
        ErrorHandler::Instance()->SetTraceHook(
            [this](const QString &text, const char *source, int) { texts << QLatin1String(source) + T(": ") + text; });
    }
    ~TraceCapture() { ErrorHandler::Instance()->SetTraceHook({}); }
    QStringList texts;
};

// Everything a reader hands on, for comparison.
QVariantList Outcome(const ParsedReply &reply)
{
    return {reply.index, reply.requestId, reply.error, reply.lastError.value_or(NoStore),
            std::visit(ArgumentsOf(), reply.result)};
}

// The message read as the client reads it while it arrives step bytes at a
// time: each time fed up to the last group end tag in, then finished whole.
// reading: whether the stream was still reading when the last byte came.
ParsedReply Streamed(const QByteArray &message, int step, bool *reading = nullptr)
{
    ReplyStream stream;
    qint64 forwarded = 0;
    for (int arrived = step; arrived < message.size(); arrived += step) {
        const qint64 cut = ReplyStream::GroupBoundary(message.constData(), arrived - step, arrived);
        if (cut > forwarded) {
            stream.Feed(message.mid(int(forwarded), int(cut - forwarded)), forwarded);
            forwarded = cut;
        }
    }
    if (reading)
        *reading = stream.IsReading();
    return stream.Finish(message);
}

// The result table of the groups: the headers, then one row per group.
QStringList Table(const std::vector<FileGroupData> &groups)
{
    QStringList table;
    FileGroupData::GetHeaders(table);
    for (const FileGroupData &group : groups)
        group.ToStringList(table);
    return table;
}

} // namespace

class TestReplyParser : public QObject
{
    Q_OBJECT
private slots:
    void everyReply_data();
    void everyReply();
    void replies_data();
    void replies();
    void localTimes_data();
    void localTimes();
};

void TestReplyParser::everyReply_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("doing");
    for (const auto &reply : Replies)
        QTest::newRow(reply[0]) << QByteArray(reply[0]) << int(&reply - Replies) << T(reply[1]);
}

// Success stores 0, a failure its code clamped to the known range and traces
// the server's text completed with the local one; a server request and a
// reply without parser store nothing.
void TestReplyParser::everyReply()
{
    QFETCH(QByteArray, name);
    QFETCH(int, index);
    QFETCH(QString, doing);
    TraceCapture capture;
    ParsedReply parsed = ParseReplyMessage(Reply(name, QByteArray()));
    QVERIFY2(parsed.IsValid(), qPrintable(parsed.error));
    QCOMPARE(parsed.index, index);
    QCOMPARE(parsed.requestId, QString::fromLatin1(Rid));
    const bool noParser = parsed.Kind() == ReplyKind::QueryDiskSpace;
    QCOMPARE(std::holds_alternative<std::monostate>(parsed.result), noParser);
    const bool stores = !noParser && parsed.Kind() != ReplyKind::ConvertFileGroup;
    QCOMPARE(parsed.lastError.value_or(NoStore), stores ? 0 : NoStore);
    if (!stores)
        return;
    parsed = ParseReplyMessage(Reply(name, "<m:ErrorString>disk full</m:ErrorString><m:Error>80</m:Error>"));
    QCOMPARE(parsed.lastError.value_or(NoStore), 1);
    const QString trace =
        T("framework/kelda/keldaclient/src/commandsender: Error while %1: disk full(Invalid error code) (80)");
    QCOMPARE(capture.texts, doing.isEmpty() ? QStringList() : QStringList{trace.arg(doing)});
}

void TestReplyParser::replies_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QVariantList>("arguments");
    QTest::addColumn<int>("lastError");
    QTest::addColumn<QString>("error");
    // The reader fails right after this text (it reads text up to the next "<"); empty: at the end.
    QTest::addColumn<QByteArray>("failAfter");
    const auto row = [](const char *name, const QByteArray &message, const QVariantList &arguments, int lastError) {
        QTest::newRow(name) << message << arguments << lastError << QString() << QByteArray();
    };
    const auto fails = [](const char *name, const QByteArray &message, const QString &error,
                          const QByteArray &failAfter) {
        QTest::newRow(name) << message << QVariantList() << NoStore << error << failAfter;
    };
    const QString rid = QString::fromLatin1(Rid);
    const QString e5 = KeldaErrorString::Get(KE_FileGroupWriteLocked);
    row("AddFile", Reply("AddFileReply", "<m:FileId>7</m:FileId><m:Error>0</m:Error>"), {rid, 7u}, 0);
    row("reverse order, whitespace, comment",
        Reply("RequestFileReply",
              "\n <m:ErrorString>srv</m:ErrorString>\n <!-- c -->"
              "<m:Error>5</m:Error>\t<m:Path>/x</m:Path>\n"),
        {rid, T("/x"), 5, T("srv(%1)").arg(e5)}, 5);
    row("repeated child overwrites", Reply("RequestFileReply", "<m:Path>/a</m:Path><m:Path>/b</m:Path>"),
        {rid, T("/b"), 0, QString()}, 0);
    row("absent children", Reply("CloseFileReply", ""), {rid, 0, QString()}, 0);
    row("error without text", Reply("DeleteFileReply", "<m:Error>5</m:Error>"), {rid, 5, e5}, 5);
    row("error 80: stored 1, handed on 80",
        Reply("MoveToNasReply", "<m:Error>80</m:Error><m:ErrorString>x</m:ErrorString>"),
        {rid, 80, T("x(Invalid error code)")}, 1);
    row("error 71 kept", Reply("RemoveReferenceReply", "<m:Error>71</m:Error>"),
        {rid, 71, KeldaErrorString::Get(KE_RemoteSystemNotConnected)}, 71);
    row("Exists true", Reply("CheckFileGroupExistsReply", "<m:Exists>true</m:Exists>"), {rid, true, 0, QString()}, 0);
    row("TRUE is false", Reply("CheckFileGroupExistsReply", "<m:Exists>TRUE</m:Exists>"), {rid, false, 0, QString()},
        0);
    row("file list in arrival order",
        Reply("GetFileListReply",
              "<m:Files><m:File><m:FileId>1</m:FileId><m:FileName>a</m:FileName></m:File>"
              "<m:File><m:FileName>b</m:FileName><m:FileId>2</m:FileId></m:File></m:Files>"),
        {rid, QStringList{T("1"), T("a"), T("b"), T("2")}, 0, QString()}, 0);
    row("server request",
        Reply("ConvertFileGroup", "<m:Path>/in</m:Path><m:FileType>5</m:FileType><m:Guid>g4</m:Guid>"),
        {T("g4"), 5, T("/in")}, NoStore);
    row("meta data: the local text for success too",
        Reply("QueryMetaDataReply", "<m:FileGroup><m:Guid>g1</m:Guid></m:FileGroup><m:ErrorString>x</m:ErrorString>"),
        {rid, T("g1"), T("the filegroup meta data request returned the error: No error")}, 0);
    row("no header: empty request id", Message("<m:DeleteFileGroupReply" NS "/>", false), {QString(), 0, QString()}, 0);
    QStringList table = Table({});
    table << T("full") << FileTypeManager::GetText(FT_Image) << LocationStateString::GetText(LS_Central)
          << T("2021-12-31 23:59:59") << T("2020-01-02 03:04:05") << T("2020-01-03 03:04:05")
          << T("2040-06-01 00:00:00") << T("c") << T("anna") << T("d") << T("t") << T("2") << T("-4") << T("3")
          << T("0") << T("g1");
    FileGroupData sparse;
    sparse.setGuid(T("g2"));
    sparse.ToStringList(table);
    row("groups: children in any order, numbers as toInt reads them, other time forms invalid",
        Reply("QueryFileGroupsReply",
              "<m:FileGroup><m:Files/><m:ReferenceCounter> 3 "
              "</m:ReferenceCounter><m:ReservedStorage>-4</m:ReservedStorage>"
              "<m:Version>2</m:Version><m:TeamMembership>t</m:TeamMembership><m:Detail>d</m:Detail><m:Creator>anna</"
              "m:Creator>"
              "<m:Comment>c</m:Comment><m:LifeCycle>2040-06-01 00:00:00</m:LifeCycle>"
              "<m:ModificationTime>2020-01-03 03:04:05</m:ModificationTime><m:CreationTime>2020-01-02 "
              "03:04:05</m:CreationTime>"
              "<m:BackupTime>2021-12-31 "
              "23:59:59</m:BackupTime><m:LocationState>2</m:LocationState><m:FileType>11</m:FileType>"
              "<m:FileGroupName>full</m:FileGroupName><m:Guid>g1</m:Guid></m:FileGroup>\n<m:Error>5</m:Error>\n"
              "<m:FileGroup><m:Guid>g2</m:Guid><m:CreationTime>2020-02-30 03:04:05</m:CreationTime>"
              "<m:BackupTime>2020-01-02T03:04:05</m:BackupTime><m:FileType>1,000</m:FileType></m:FileGroup>"),
        {rid, table, FileGroupColumn::Count, 5, e5}, 5);
    FileGroupData named;
    named.setGuid(T("g3"));
    named.setFileGroupName(T("n"));
    row("groups under another prefix, end tags in comments",
        Message("<k:QueryFileGroupsReply xmlns:k=\"http://kelda.archive/8SP/KELDA\">"
                "<k:FileGroup><k:Guid>g2</k:Guid></k:FileGroup ><!-- </k:FileGroup> -->"
                "<k:ErrorString>x<!-- </k:FileGroup> --> </k:ErrorString>\n"
                "<k:FileGroup><k:Guid>g3</k:Guid><k:FileGroupName>n</k:FileGroupName></k:FileGroup>"
                "</k:QueryFileGroupsReply>"),
        {rid, Table({sparse, named}), FileGroupColumn::Count, 0, T("x ")}, 0);

    QStringList names;
    for (const auto &reply : Replies)
        names << T(reply[0]);
    const QByteArray envelope = "<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\"/>";
    fails("stray text", Reply("AddFileReply", "<m:FileId>1</m:FileId> x <m:Error>0</m:Error>"),
          T("Unexpected text  x "), "</m:FileId> x <");
    fails("unlisted child", Reply("CloseFileReply", "<m:Bogus/>"),
          T("Expected one of /CloseFileReply, Error, ErrorString, but got Bogus"), "<m:Bogus/>");
    fails("foreign namespace", Reply("CloseFileReply", "<x:Error xmlns:x=\"urn:other\">1</x:Error>"),
          T("Expected namespace http://kelda.archive/8SP/KELDA, but got urn:other"), "\"urn:other\">");
    fails("unknown reply", Reply("FooReply", ""), T("Expected one of %1, but got FooReply").arg(names.join(T(", "))),
          "<m:FooReply" NS ">");
    fails("not an envelope", QByteArray(envelope).replace("Envelope", "Body"),
          T("Expected element Envelope, but got Body"), "/>");
    fails("empty envelope", envelope, T("Expected one of Header, Body, but got end of document"), "");
    fails("premature end", Reply("AddFileReply", "<m:FileId>1</m:FileId>").left(220), T("Premature end of document."),
          "");
    fails("element in a number",
          Reply("QueryFileGroupsReply", "<m:FileGroup><m:FileType>1<m:x/></m:FileType></m:FileGroup>"),
          T("Expected character data."), "<m:x/>");
    fails("broken in a later group",
          Reply("QueryFileGroupsReply",
                "<m:FileGroup><m:Guid>g1</m:Guid></m:FileGroup>\n<m:FileGroup><m:Guid>g2</m:Guid></m:FileGroup>"
                "<m:FileGroup><m:Guid>g3</m:Guid><m:Bogus/></m:FileGroup>"),
          T("Expected one of /FileGroup, Guid, FileGroupName, FileType, LocationState, BackupTime, CreationTime, "
            "ModificationTime, LifeCycle, Comment, Creator, Detail, TeamMembership, Version, ReservedStorage, "
            "ReferenceCounter, Files, but got Bogus"),
          "<m:Bogus/>");
    fails("Files with children",
          Reply("QueryFileGroupsReply", "<m:FileGroup><m:Files><m:File/></m:Files></m:FileGroup>"),
          T("Expected one of /FileGroup, Guid, FileGroupName, FileType, LocationState, BackupTime, CreationTime, "
            "ModificationTime, LifeCycle, Comment, Creator, Detail, TeamMembership, Version, ReservedStorage, "
            "ReferenceCounter, Files, but got File"),
          "<m:File/>");
}

// A protocol error, positioned, yields nothing and stores nothing. So does a
// reply cut anywhere before its end tag; cut later, it is complete.
void TestReplyParser::replies()
{
    QFETCH(QByteArray, message);
    QFETCH(QVariantList, arguments);
    QFETCH(int, lastError);
    QFETCH(QString, error);
    QFETCH(QByteArray, failAfter);
    const int offset = failAfter.isEmpty() ? message.size() : message.indexOf(failAfter) + failAfter.size();
    const int column = offset - (message.lastIndexOf('\n', offset - 1) + 1);
    const int line = message.left(offset).count('\n') + 1;
    TraceCapture capture;
    const ParsedReply parsed = ParseReplyMessage(message);
    QCOMPARE(parsed.error, error.isEmpty() ? error : error + T(" at line %1, column %2").arg(line).arg(column));
    QCOMPARE(std::holds_alternative<std::monostate>(parsed.result), !error.isEmpty());
    QCOMPARE(std::visit(ArgumentsOf(), parsed.result), arguments);
    QCOMPARE(parsed.lastError.value_or(NoStore), lastError);
    QVERIFY(error.isEmpty() || capture.texts.isEmpty());
    // Read while it arrives, byte by byte or in larger pieces, the message gives the same, traced once. A query
    // answer is read on until the last byte, unless a comment holds an end tag where the reading cannot pause.
    const QStringList traces = capture.texts;
    for (int step : {1, 7, 64}) {
        capture.texts.clear();
        bool reading = false;
        QCOMPARE(Outcome(Streamed(message, step, &reading)), Outcome(parsed));
        QCOMPARE(capture.texts, traces);
        if (error.isEmpty() && !message.contains("<!--"))
            QCOMPARE(reading, parsed.Kind() == ReplyKind::QueryFileGroups);
    }
    if (!error.isEmpty())
        return;
    // Meta data is read by the record's own reader, which makes a cut its error code.
    const QRegularExpression position(T(" at line \\d+, column \\d+$"));
    for (int size = 0; parsed.Kind() != ReplyKind::QueryMetaData && size < message.size(); ++size) {
        const ParsedReply cut = ParseReplyMessage(message.left(size));
        QCOMPARE(Outcome(Streamed(message.left(size), 1)), Outcome(cut));
        QCOMPARE(cut.IsValid(), size >= message.indexOf("</s:Body>"));
        if (!cut.IsValid())
            QVERIFY(cut.error.contains(position) && std::holds_alternative<std::monostate>(cut.result) &&
                    !cut.lastError);
    }
}

void TestReplyParser::localTimes_data()
{
    QTest::addColumn<QStringList>("times");
    // Every ten minutes from 01:00 to 03:50, after the edges of the hour that the clock skips or repeats.
    const auto aroundTwo = [](const char *day) {
        QStringList times{T(" 01:59:59"), T(" 02:00:00"), T(" 02:59:59"), T(" 03:00:00")};
        for (QTime time(1, 0); time.hour() < 4; time = time.addSecs(10 * 60))
            times << time.toString(T(" hh:mm:ss"));
        return times.replaceInStrings(QRegularExpression(T("^")), T(day));
    };
    QTest::newRow("spring gap") << aroundTwo("2021-03-28");
    QTest::newRow("autumn overlap") << aroundTwo("2021-10-31");
    QTest::newRow("ordinary, and years at and beyond the ends")
        << QStringList{T("2020-02-29 23:59:59"), T("1970-01-01 00:00:00"), T("1971-01-01 00:00:00"),
                       T("2036-12-31 23:59:59"), T("2038-03-29 02:30:00"), T("2100-10-31 02:30:00"),
                       T("0001-01-01 00:00:00"), T("9999-12-31 23:59:59")};
}

// A time reads as the local QDateTime of its date and time: the row shows
// that value, empty when it is invalid (in the gap).
void TestReplyParser::localTimes()
{
    QFETCH(QStringList, times);
    QVERIFY(!QDateTime(QDate(2021, 3, 28), QTime(2, 30)).isValid()); // the zone has its clock changes
    QByteArray children;
    std::vector<FileGroupData> groups;
    for (const QString &time : times) {
        children += "<m:FileGroup><m:BackupTime>" + time.toLatin1() + "</m:BackupTime></m:FileGroup>";
        groups.emplace_back().setBackupTime(
            QDateTime(QDate::fromString(time.left(10), Qt::ISODate), QTime::fromString(time.mid(11))));
    }
    const ParsedReply parsed = ParseReplyMessage(Reply("QueryFileGroupsReply", children));
    QVERIFY2(parsed.IsValid(), qPrintable(parsed.error));
    QCOMPARE(std::get<TableResult>(parsed.result).table, Table(groups));
}

int main(int argc, char *argv[])
{
    // Central European rules, no zone database needed: 2021 skips 02:00-03:00 on March 28, repeats it on October 31.
    qputenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
    tzset();
    QCoreApplication app(argc, argv);
    TestReplyParser test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_replyparser.moc"
