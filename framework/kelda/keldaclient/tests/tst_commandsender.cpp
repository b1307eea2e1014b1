#include "commanddescriptors.h"
#include "commandsender.h"
#include "filequery.h"
#include "keldaxml.h"
#include "replyparser.h"
#include "replysignals.h"
#include "trace.h"

#include <QtTest>

#include <functional>

using namespace Kelda;

namespace {

using Send = std::function<QString(CommandSender &)>;

const QString kGuid = QStringLiteral("g-1");

QString T(const char *text)
{
    return QString::fromUtf8(text);
}

// An empty reply of the element: every reply reads without children.
QByteArray EmptyReply(QLatin1String element)
{
    const QByteArray name(element.data(), element.size());
    return "<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\"><s:Header><s:Version>1.0</s:Version>"
           "<s:RequestId>r-1</s:RequestId></s:Header><s:Body><m:" +
        name + " xmlns:m=\"http://kelda.archive/8SP/KELDA\"/></s:Body></s:Envelope>";
}

} // namespace

Q_DECLARE_METATYPE(Send)

// What each send function writes to the trace before its request leaves, and
// the reply signals. The sender is never started: with no socket the bytes go
// nowhere, and the lock identity has no address.
class CommandSenderTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void sendTraces_data();
    void sendTraces();
    void replySignals_data();
    void replySignals();
    void answerReadInParts_data();
    void answerReadInParts();

private:
    QStringList m_traces;
};

void CommandSenderTest::initTestCase()
{
    qRegisterMetaType<Kelda::FileGroupData>();
    qRegisterMetaType<Kelda::FileType>();
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure | ErrorHandler::Detail);
    ErrorHandler::Instance()->SetTraceHook([this](const QString &text, const char *, int) { m_traces << text; });
}

void CommandSenderTest::cleanupTestCase()
{
    ErrorHandler::Instance()->SetTraceHook({});
}

void CommandSenderTest::sendTraces_data()
{
    QTest::addColumn<Send>("send");
    QTest::addColumn<QString>("trace");

    const QDateTime lifeCycle(QDate(2030, 1, 2), QTime(3, 4, 5), Qt::UTC);
    QTest::newRow("CreateFileGroup")
        << Send([lifeCycle](CommandSender &s) {
               return s.CreateFileGroup(kGuid, T("1.0"), lifeCycle, T("det"), T("com"), FT_Image, 7, T("name"),
                                        T("/p/"));
           })
        << T("KeldaClient::CreateFG: guid='g-1' group='name' path='/p/' detail='det' comment='com' user='user' "
             "type='11'");
    QTest::newRow("CreateTovinFileGroup")
        << Send([](CommandSender &s) {
               return s.CreateTovinFileGroup(kGuid, T("sub"), T("T1"), T("R1"), T("2"), T("det"), T("com"),
                                             FT_Tovin_IqRecording, T("/t/"));
           })
        << T("KeldaClient::CreateTovinFG: guid='g-1' tovin='T1' record='R1' detail='det' comment='com' user='user' "
             "subsystem='sub' type='19' filepath='/t/'");
    QTest::newRow("AddFile, placeholders in a value stay")
        << Send([](CommandSender &s) { return s.AddFile(kGuid, T("a%1%2.bin"), 3); })
        << T("KeldaClient::AddFile: guid='g-1' fileid='3' filename='a%1%2.bin'");
    QTest::newRow("DeleteFile") << Send([](CommandSender &s) { return s.DeleteFile(kGuid, 4); })
                                << T("KeldaClient::DeleteFile: guid='g-1' fileid='4'");
    QTest::newRow("RequestFile") << Send([](CommandSender &s) { return s.RequestFile(kGuid, 5, true); })
                                 << T("KeldaClient::RequestFile: guid='g-1' fileid='5' lock='true' lockid='|app|user'");
    QTest::newRow("CloseFile traces the id it does not send")
        << Send([](CommandSender &s) { return s.CloseFile(kGuid, 6); })
        << T("KeldaClient::CloseFile: guid='g-1' fileid='6'");
    QTest::newRow("MoveToNas") << Send([](CommandSender &s) { return s.MoveToNas(kGuid); })
                               << T("KeldaClient::MoveToNas: guid='g-1' user='user'");
    QTest::newRow("AddReference") << Send([](CommandSender &s) { return s.AddReference(kGuid); })
                                  << T("KeldaClient::AddRef: guid='g-1' app='app'");
    QTest::newRow("RemoveReference") << Send([](CommandSender &s) { return s.RemoveReference(kGuid); })
                                     << T("KeldaClient::RemoveReference: guid='g-1'");
    QTest::newRow("RemoveAllReferences") << Send([](CommandSender &s) { return s.RemoveAllReferences(kGuid); })
                                         << T("KeldaClient::RemoveAllReferences: guid='g-1'");
    QTest::newRow("QueryMetaData, the caller's application")
        << Send([](CommandSender &s) { return s.QueryMetaData(kGuid, T("viewer")); })
        << T("KeldaClient::QueryMetaData: guid='g-1' app='viewer'");
    QTest::newRow("DeleteFileGroup") << Send([](CommandSender &s) { return s.DeleteFileGroup(kGuid, false); })
                                     << T("KeldaClient::DeleteFG: guid='g-1' shallow='false'");
    QTest::newRow("GetTovinFilegroupGuid")
        << Send([](CommandSender &s) { return s.GetTovinFilegroupGuid(T("T1"), T("R1")); })
        << T("KeldaClient::SendGetTovinFilegroupGuidAsync: tovin id='T1' recordId='R1'");

    const QString none;
    QTest::newRow("GetApplicationList") << Send([](CommandSender &s) { return s.GetApplicationList(); }) << none;
    QTest::newRow("GetUserList") << Send([](CommandSender &s) { return s.GetUserList(); }) << none;
    QTest::newRow("GetFileList") << Send([](CommandSender &s) { return s.GetFileList(kGuid); }) << none;
    QTest::newRow("QueryFileGroups") << Send([](CommandSender &s) { return s.QueryFileGroups(FileQuery()); }) << none;
    QTest::newRow("GetBasePath") << Send([](CommandSender &s) { return s.GetBasePath(); }) << none;
    QTest::newRow("ExportArchive") << Send([](CommandSender &s) { return s.ExportArchive({kGuid}, T("/x")); }) << none;
    QTest::newRow("ImportArchive") << Send([](CommandSender &s) { return s.ImportArchive({T("/x")}); }) << none;
    QTest::newRow("RegisterConverter") << Send([](CommandSender &s) { return s.RegisterConverter(T("c"), {FT_Image}); })
                                       << none;
    QTest::newRow("ConvertFileGroupReply")
        << Send([](CommandSender &s) { return s.ConvertFileGroupReply(kGuid, 0, QString()); }) << none;
    QTest::newRow("QueryLocationStateProgress")
        << Send([](CommandSender &s) { return s.QueryLocationStateProgress(kGuid); }) << none;
    QTest::newRow("CheckFileGroupExists")
        << Send([](CommandSender &s) { return s.CheckFileGroupExists(kGuid); }) << none;
    QTest::newRow("GetRemoteStorageLocation")
        << Send([](CommandSender &s) { return s.GetRemoteStorageLocation(kGuid, 1); }) << none;
}

void CommandSenderTest::sendTraces()
{
    QFETCH(Send, send);
    QFETCH(QString, trace);

    CommandSender sender(QStringLiteral("127.0.0.1"), 1, QStringLiteral("app"), QStringLiteral("user"),
                         QStringLiteral("team"));
    m_traces.clear();
    QVERIFY(!send(sender).isEmpty());
    QCOMPARE(m_traces, trace.isEmpty() ? QStringList() : QStringList{trace});
}

void CommandSenderTest::replySignals_data()
{
    QTest::addColumn<int>("kind");
    for (const CommandDescriptor &command : CommandDescriptors)
        QTest::newRow(command.reply.data()) << int(command.kind);
}

// The signals each descriptor names exist, the client's relays take what the
// sender's carry, and a reply goes out through its signal once.
void CommandSenderTest::replySignals()
{
    QFETCH(int, kind);
    const CommandDescriptor &command = CommandDescriptors[kind];
    const QMetaMethod signal = ReplySignals::SenderSignal(command.kind);
    QCOMPARE(signal.isValid(), !command.senderSignal.isEmpty());
    QCOMPARE(ReplySignals::ClientSignal(command.kind).isValid(), !command.clientSignal.isEmpty());
    if (!signal.isValid())
        return;

    CommandSender sender(QStringLiteral("127.0.0.1"), 1, QString(), QString(), QString());
    QSignalSpy emitted(&sender, signal);
    m_traces.clear();
    ReplySignals::Emit(&sender, ParseReplyMessage(EmptyReply(command.reply)));
    QCOMPARE(emitted.size(), 1);
    QCOMPARE(m_traces, QStringList());
}

// A query answer of so many groups, g<first> onwards.
QByteArray Answer(int first, int groups)
{
    QByteArray children;
    for (int i = first; i < first + groups; ++i)
        children += "<m:FileGroup><m:Guid>g" + QByteArray::number(i) + "</m:Guid></m:FileGroup>";
    return QByteArray(EmptyReply(Tag::QueryFileGroupsReply))
        .replace("/></s:Body>", ">" + children + "</m:QueryFileGroupsReply></s:Body>");
}

void CommandSenderTest::answerReadInParts_data()
{
    QTest::addColumn<bool>("afterOther"); // the first part of another answer came before
    QTest::addColumn<bool>("disconnected"); // and then the connection was lost
    QTest::addColumn<bool>("inParts"); // the answer's first two groups came as parts
    QTest::addColumn<QByteArray>("whole"); // what came whole

    const QByteArray answer = Answer(0, 3);
    QTest::newRow("in parts") << false << false << true << answer;
    QTest::newRow("in parts, after a part of another") << true << false << true << answer;
    QTest::newRow("whole, after a part of one the connection lost") << true << true << false << answer;
    // Only the rest is taken from the whole: what came in parts is not read again.
    QTest::newRow("whole differs where the parts were")
        << false << false << true << QByteArray(answer).replace(">g0<", ">x0<").replace(">g1<", ">x1<");
}

// Parts of an answer never mix with another's: the table is the one the
// whole answer gives.
void CommandSenderTest::answerReadInParts()
{
    QFETCH(bool, afterOther);
    QFETCH(bool, disconnected);
    QFETCH(bool, inParts);
    QFETCH(QByteArray, whole);
    CommandSender sender(QStringLiteral("127.0.0.1"), 1, QString(), QString(), QString());
    QSignalSpy replies(&sender, &CommandSender::queryFileGroupsReply);
    const QByteArray answer = Answer(0, 3);
    const auto groupEnd = [](const QByteArray &bytes, int from) {
        return bytes.indexOf("</m:FileGroup>", from) + int(qstrlen("</m:FileGroup>"));
    };
    if (afterOther)
        sender.SlotHandleMessagePart(Answer(100, 3).left(groupEnd(Answer(100, 3), 0)), 0);
    if (disconnected)
        sender.SlotDisconnected();
    if (inParts) {
        const int first = groupEnd(answer, 0);
        sender.SlotHandleMessagePart(answer.left(first), 0);
        sender.SlotHandleMessagePart(answer.mid(first, groupEnd(answer, first) - first), first);
        sender.SlotHandlePartedMessage(whole);
    } else {
        sender.SlotHandleXmlReply(whole);
    }
    QCOMPARE(replies.count(), 1);
    QCOMPARE(replies.first().at(1).toStringList(), std::get<TableResult>(ParseReplyMessage(answer).result).table);
}

QTEST_GUILESS_MAIN(CommandSenderTest)
#include "tst_commandsender.moc"
