#include "commanddescriptors.h"
#include "commandrequest.h"
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

} // namespace

class TestCommandDescriptors : public QObject
{
    Q_OBJECT

private slots:
    void requestsReadByTheServer_data();
    void requestsReadByTheServer();
};

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
