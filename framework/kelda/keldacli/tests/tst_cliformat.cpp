#include "cliformat.h"
#include "progress.h"
#include "queryoptions.h"

#include <QBuffer>
#include <QCommandLineParser>
#include <QJsonArray>
#include <QtTest>

using namespace Kelda;
using namespace KeldaCli;

namespace {

const QString kGuid = QStringLiteral("0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e");

// A query reply as QueryFiles returns it: the headers, then one row per
// group, from records through the record's own string form.
QStringList queryReply(const QList<FileGroupData> &groups)
{
    QStringList reply;
    FileGroupData::GetHeaders(reply);
    for (const FileGroupData &group : groups)
        group.ToStringList(reply);
    return reply;
}

FileGroupData group(const QString &guid, const QString &name)
{
    FileGroupData data;
    data.setGuid(guid);
    data.setFileGroupName(name);
    data.setFileType(FT_ScanRecording);
    data.setLocationState(LS_Central);
    data.setCreationTime(QDateTime(QDate(2026, 11, 23), QTime(9, 30, 0)));
    data.setVersion(QStringLiteral("1.0"));
    return data;
}

} // namespace

// The tool's output and option readers, without a server.
class CliFormatTest : public QObject
{
    Q_OBJECT

private slots:
    void table();
    void queryTable_data();
    void queryTable();
    void groupJson();
    void queryOptions_data();
    void queryOptions();
    void enumerationTexts_data();
    void enumerationTexts();
    void copyReportsBothSides();
};

void CliFormatTest::table()
{
    const QString text = formatTable({QStringLiteral("Id"), QStringLiteral("Name"), QStringLiteral("Note")},
                                     {{QStringLiteral("1"), QStringLiteral("longer-name"), QStringLiteral("x")},
                                      {QStringLiteral("22"), QStringLiteral("n")}});
    QCOMPARE(text, QStringLiteral("Id  Name         Note\n"
                                  "1   longer-name  x\n"
                                  "22  n\n"));
}

void CliFormatTest::queryTable_data()
{
    QTest::addColumn<bool>("wide");
    QTest::addColumn<int>("columns");
    QTest::addColumn<QString>("first");
    QTest::newRow("narrow") << false << 8 << QStringLiteral("Guid ");
    QTest::newRow("wide") << true << 16 << QStringLiteral("File group name ");
}

void CliFormatTest::queryTable()
{
    QFETCH(bool, wide);
    QFETCH(int, columns);
    QFETCH(QString, first);
    const QString other = QStringLiteral("ffffffff-0000-4000-8000-000000000001");
    QStringList reply = queryReply({group(kGuid, QStringLiteral("scan a")), group(other, QStringLiteral("b"))});
    // An incomplete row at the end is no group.
    reply << QStringLiteral("cut off");
    const QStringList lines = formatQueryTable(reply, 16, wide).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 3);
    QVERIFY(lines[0].startsWith(first));
    QVERIFY(lines[1].contains(kGuid));
    QVERIFY(lines[2].contains(other));
    QVERIFY(lines[1].contains(QStringLiteral("scan a")));
    QVERIFY(lines[1].contains(QStringLiteral("Scan Recording")));
    QVERIFY(lines[1].contains(QStringLiteral("Central")));
    QCOMPARE(lines[0].split(QStringLiteral("  "), Qt::SkipEmptyParts).size(), columns);
}

void CliFormatTest::groupJson()
{
    FileGroupData data = group(kGuid, QStringLiteral("scan"));
    data.addFile(QStringLiteral("a.bin"), 1);
    data.addFile(QStringLiteral("b.txt"), 3);
    const QJsonObject object = fileGroupToJson(data, true);
    QCOMPARE(object.value(QStringLiteral("guid")).toString(), kGuid);
    QCOMPARE(object.value(QStringLiteral("locationState")).toInt(), int(LS_Central));
    QCOMPARE(object.value(QStringLiteral("locationStateText")).toString(), QStringLiteral("Central"));
    QCOMPARE(object.value(QStringLiteral("creationTime")).toString(), QStringLiteral("2026-11-23T09:30:00"));
    QVERIFY(object.value(QStringLiteral("backupTime")).isNull());
    const QJsonArray files = object.value(QStringLiteral("files")).toArray();
    QCOMPARE(files.size(), 2);
    QCOMPARE(files[1].toObject().value(QStringLiteral("url")).toString(), QStringLiteral("kelda:///%1/3").arg(kGuid));
    QVERIFY(!fileGroupToJson(data, false).contains(QStringLiteral("files")));

    // The ls document reads the groups back from the table form.
    const std::vector<FileGroupData> records = queryRecords(queryReply({data}), 16);
    QCOMPARE(int(records.size()), 1);
    const QJsonObject listed = fileGroupsToJson(records).first().toObject();
    QCOMPARE(listed.value(QStringLiteral("fileType")).toInt(), int(FT_ScanRecording));
    QCOMPARE(listed.value(QStringLiteral("guid")).toString(), kGuid);
}

void CliFormatTest::queryOptions_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QString>("check");

    QTest::newRow("texts") << QStringList{QStringLiteral("--name"), QStringLiteral("scan"), QStringLiteral("--lock-user"),
                                          QStringLiteral("ann"), QStringLiteral("--referenced-by"), QStringLiteral("viewer")}
                           << QString() << QStringLiteral("texts");
    QTest::newRow("types by number and text")
        << QStringList{QStringLiteral("--type"), QStringLiteral("8"), QStringLiteral("--type"), QStringLiteral("audio recording")}
        << QString() << QStringLiteral("types");
    QTest::newRow("states") << QStringList{QStringLiteral("--location"), QStringLiteral("Central"), QStringLiteral("--lock"),
                                           QStringLiteral("3")}
                            << QString() << QStringLiteral("states");
    QTest::newRow("times") << QStringList{QStringLiteral("--created-from"), QStringLiteral("2026-11-01"),
                                          QStringLiteral("--lifecycle-to"), QStringLiteral("2026-12-24T18:00:00")}
                           << QString() << QStringLiteral("times");
    QTest::newRow("bad time") << QStringList{QStringLiteral("--modified-to"), QStringLiteral("yesterday")}
                              << QStringLiteral("invalid value 'yesterday' for --modified-to") << QString();
    QTest::newRow("type past the last") << QStringList{QStringLiteral("--type"), QStringLiteral("23")}
                                        << QStringLiteral("invalid value '23' for --type") << QString();
    QTest::newRow("unknown lock") << QStringList{QStringLiteral("--lock"), QStringLiteral("Exclusive")}
                                  << QStringLiteral("invalid value 'Exclusive' for --lock") << QString();
}

void CliFormatTest::queryOptions()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, error);
    QFETCH(QString, check);
    QCommandLineParser parser;
    addQueryOptions(parser);
    QVERIFY(parser.parse(QStringList{QStringLiteral("ls")} + arguments));
    FileQuery query;
    QString message;
    const bool ok = queryFromOptions(parser, query, message);
    QCOMPARE(ok, error.isEmpty());
    if (!ok) {
        QVERIFY2(message.startsWith(error), qPrintable(message));
        return;
    }
    if (check == QLatin1String("texts")) {
        QCOMPARE(query.GetFileGroupSearchText(), QStringLiteral("scan"));
        QCOMPARE(query.GetLockUser(), QStringLiteral("ann"));
        QCOMPARE(query.GetReferencingApplication(), QStringLiteral("viewer"));
        QCOMPARE(query.GetCommentSearchText(), QString());
    } else if (check == QLatin1String("types")) {
        QCOMPARE(query.GetFileTypeListSize(), 2);
        QCOMPARE(query.GetFileTypeAt(0), FT_ScanRecording);
        QCOMPARE(query.GetFileTypeAt(1), FT_AudioRecording);
    } else if (check == QLatin1String("states")) {
        QCOMPARE(query.GetLocationState(), LS_Central);
        QCOMPARE(query.GetLockState(), LOCK_Write);
    } else {
        QCOMPARE(query.GetCreationTimeMin(), QDateTime(QDate(2026, 11, 1), QTime(0, 0)));
        QVERIFY(query.GetCreationTimeMax().isNull());
        QCOMPARE(query.GetLifeCycleTimeMax(), QDateTime(QDate(2026, 12, 24), QTime(18, 0)));
    }
}

void CliFormatTest::enumerationTexts_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("fileType");
    QTest::addColumn<int>("location");
    QTest::addColumn<int>("lock");
    const int no = -1;
    QTest::newRow("zero") << QStringLiteral("0") << 0 << 0 << 0;
    QTest::newRow("undefined") << QStringLiteral("undefined") << no << 0 << 0;
    QTest::newRow("pck by text") << QStringLiteral("PCK File") << 16 << no << no;
    QTest::newRow("13") << QStringLiteral("13") << 13 << 13 << no;
    QTest::newRow("negative") << QStringLiteral("-1") << no << no << no;
    QTest::newRow("blank") << QString() << no << no << no;
}

void CliFormatTest::enumerationTexts()
{
    QFETCH(QString, text);
    QFETCH(int, fileType);
    QFETCH(int, location);
    QFETCH(int, lock);
    FileType type = FT_Last;
    LocationState state = LS_Last;
    LockState lockState = LOCK_Last;
    QCOMPARE(parseFileType(text, type), fileType >= 0);
    QCOMPARE(parseLocationState(text, state), location >= 0);
    QCOMPARE(parseLockState(text, lockState), lock >= 0);
    if (fileType >= 0)
        QCOMPARE(int(type), fileType);
    if (location >= 0)
        QCOMPARE(int(state), location);
    if (lock >= 0)
        QCOMPARE(int(lockState), lock);
}

void CliFormatTest::copyReportsBothSides()
{
    // Larger than one block, so that the copy loops.
    QByteArray bytes(3 * 1024 * 1024 + 17, Qt::Uninitialized);
    for (int i = 0; i < bytes.size(); ++i)
        bytes[i] = char(i * 31);
    QBuffer in(&bytes);
    QVERIFY(in.open(QIODevice::ReadOnly));
    QByteArray copied;
    QBuffer out(&copied);
    QVERIFY(out.open(QIODevice::WriteOnly));
    Progress progress(QStringLiteral("test"));
    progress.setEnabled(false);
    QString error;
    QVERIFY(copyWithProgress(in, out, bytes.size(), progress, error));
    QCOMPARE(copied, bytes);

    in.seek(0);
    QBuffer readOnly(&copied);
    QVERIFY(readOnly.open(QIODevice::ReadOnly));
    QTest::ignoreMessage(QtWarningMsg, "QIODevice::write (QBuffer): ReadOnly device");
    QVERIFY(!copyWithProgress(in, readOnly, bytes.size(), progress, error));
    QVERIFY2(error.startsWith(QStringLiteral("cannot write")), qPrintable(error));

    QCOMPARE(byteProgressText(512 * 1024, 2 * 1024 * 1024), QStringLiteral("0.5 MiB of 2.0 MiB (25 %)"));
    QCOMPARE(byteProgressText(1024 * 1024, 0), QStringLiteral("1.0 MiB"));
}

QTEST_GUILESS_MAIN(CliFormatTest)
#include "tst_cliformat.moc"
