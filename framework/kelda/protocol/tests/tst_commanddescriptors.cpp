#include "commanddescriptors.h"
#include "commandrequest.h"
#include "errorhandler.h"
#include "replyparser.h"
#include "replywriter.h"
#include "request.h"

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

} // namespace

class TestCommandDescriptors : public QObject
{
    Q_OBJECT

private slots:
    void records_data();
    void records();
    void requestsReadByTheServer_data();
    void requestsReadByTheServer();
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

QTEST_GUILESS_MAIN(TestCommandDescriptors)
#include "tst_commanddescriptors.moc"
