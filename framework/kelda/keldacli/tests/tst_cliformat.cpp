#include "cliformat.h"
#include "filegroupcolumns.h"
#include "queryoptions.h"

#include <QCommandLineParser>
#include <QtTest>

using namespace Kelda;
using namespace KeldaCli;

namespace {

const QString kGuid = QStringLiteral("0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e");

FileGroupData group(const QString &guid, const QString &name)
{
    FileGroupData data;
    data.setGuid(guid);
    data.setFileGroupName(name);
    data.setFileType(FT_ScanRecording);
    data.setLocationState(LS_Central);
    data.setCreationTime(QDateTime(QDate(2026, 11, 23), QTime(9, 30, 0)));
    return data;
}

// A query reply as QueryFiles returns it: the headers, then the rows.
QStringList queryReply(const QList<FileGroupData> &groups)
{
    QStringList reply;
    FileGroupData::GetHeaders(reply);
    for (const FileGroupData &data : groups)
        data.ToStringList(reply);
    return reply;
}

} // namespace

// The tool's output and option readers, without a server.
class CliFormatTest : public QObject
{
    Q_OBJECT

private slots:
    void queryTable_data();
    void queryTable();
    void queryOptions_data();
    void queryOptions();
};

void CliFormatTest::queryTable_data()
{
    QTest::addColumn<bool>("wide");
    QTest::addColumn<int>("columns");
    QTest::addColumn<QString>("header");
    QTest::newRow("narrow") << false << 8 << QStringLiteral("Guid                                  File group name");
    QTest::newRow("wide") << true << int(FileGroupColumn::Count) << QStringLiteral("File group name  File type");
}

void CliFormatTest::queryTable()
{
    QFETCH(bool, wide);
    QFETCH(int, columns);
    QFETCH(QString, header);
    const QString other = QStringLiteral("ffffffff-0000-4000-8000-000000000001");
    // An incomplete row at the end is no group.
    const QStringList reply = queryReply({group(kGuid, QStringLiteral("scan a")), group(other, QStringLiteral("b"))})
        << QStringLiteral("cut off");
    const QStringList lines =
        formatQueryTable(reply, FileGroupColumn::Count, wide).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 3);
    QVERIFY2(lines[0].startsWith(header), qPrintable(lines[0]));
    QCOMPARE(lines[0].split(QStringLiteral("  "), Qt::SkipEmptyParts).size(), columns);
    QVERIFY(lines[1].contains(kGuid) && lines[1].contains(QStringLiteral("Scan Recording")));
    QVERIFY(lines[2].contains(other) && !lines[2].endsWith(QLatin1Char(' ')));
}

using QueryCheck = std::function<bool(const FileQuery &)>;
Q_DECLARE_METATYPE(QueryCheck)

void CliFormatTest::queryOptions_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QueryCheck>("check");
    auto row = [](const char *name, const char *arguments, const char *error, QueryCheck check) {
        QTest::newRow(name) << QString::fromUtf8(arguments) << QString::fromUtf8(error) << check;
    };
    row("texts", "--name scan --lock-user ann --referenced-by viewer", "", [](const FileQuery &q) {
        return q.GetFileGroupSearchText() == QLatin1String("scan") && q.GetLockUser() == QLatin1String("ann") &&
            q.GetReferencingApplication() == QLatin1String("viewer") && q.GetCommentSearchText().isEmpty();
    });
    row("types", "--type 8 --type image", "", [](const FileQuery &q) {
        return q.GetFileTypeListSize() == 2 && q.GetFileTypeAt(0) == FT_ScanRecording && q.GetFileTypeAt(1) == FT_Image;
    });
    row("states", "--location central --lock 3", "",
        [](const FileQuery &q) { return q.GetLocationState() == LS_Central && q.GetLockState() == LOCK_Write; });
    row("times", "--created-from 2026-11-01 --lifecycle-to 2026-12-24T18:00:00", "", [](const FileQuery &q) {
        return q.GetCreationTimeMin() == QDateTime(QDate(2026, 11, 1), QTime(0, 0)) &&
            q.GetCreationTimeMax().isNull() && q.GetLifeCycleTimeMax() == QDateTime(QDate(2026, 12, 24), QTime(18, 0));
    });
    row("bad time", "--modified-to yesterday", "invalid value 'yesterday' for --modified-to", nullptr);
    row("type past the last", "--type 23", "invalid value '23' for --type", nullptr);
    row("negative location", "--location -1", "invalid value '-1' for --location", nullptr);
    row("unknown lock", "--lock Exclusive", "invalid value 'Exclusive' for --lock", nullptr);
}

void CliFormatTest::queryOptions()
{
    QFETCH(QString, arguments);
    QFETCH(QString, error);
    QFETCH(QueryCheck, check);
    QCommandLineParser parser;
    addQueryOptions(parser);
    QVERIFY(parser.parse(QStringList{QStringLiteral("ls")} + arguments.split(QLatin1Char(' '))));
    FileQuery query;
    QString message;
    QCOMPARE(queryFromOptions(parser, query, message), error.isEmpty());
    QVERIFY2(error.isEmpty() ? message.isEmpty() : message.startsWith(error), qPrintable(message));
    if (check)
        QVERIFY(check(query));
}

QTEST_GUILESS_MAIN(CliFormatTest)
#include "tst_cliformat.moc"
