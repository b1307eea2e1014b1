#include "filegroupcolumns.h"
#include "filegroupdata.h"
#include "keldaxml.h"

#include <errorhandler.h>

#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>
#include <QtTest>

using namespace Kelda;

namespace {

FileGroupData fullRecord()
{
    FileGroupData record;
    record.setGuid(QStringLiteral("6f1c2a44-0d1e-4c3b-9a57-1b2c3d4e5f60"));
    record.setFileGroupName(QStringLiteral("scan <1> & more"));
    record.setFileType(FT_ScanRecording);
    record.setLocationState(LS_Central);
    record.setBackupTime(QDateTime(QDate(2020, 3, 1), QTime(1, 4, 5)));
    record.setCreationTime(QDateTime(QDate(2020, 3, 2), QTime(2, 4, 5)));
    record.setModificationTime(QDateTime(QDate(2020, 3, 3), QTime(3, 4, 5)));
    record.setLifeCycle(QDateTime(QDate(2020, 3, 4), QTime(23, 4, 5)));
    record.setComment(QStringLiteral("comment"));
    record.setCreator(QStringLiteral("creator"));
    record.setDetail(QStringLiteral("detail"));
    record.setTeamMembership(QStringLiteral("team"));
    record.setVersion(QStringLiteral("1.2"));
    record.setReservedStorage(100);
    record.setReferenceCounter(2);
    record.addFile(QStringLiteral("a.bin"), 1);
    record.addFile(QStringLiteral("b.txt"), 2);
    return record;
}

QString toXml(const FileGroupData &record)
{
    QString xml;
    QXmlStreamWriter writer(&xml);
    record.ToHtml(writer, true, true);
    return xml;
}

QString withRoot(const QString &children)
{
    return QStringLiteral("<m:FileGroup xmlns:m=\"%1\">%2</m:FileGroup>").arg(Ns::Message, children);
}

} // namespace

class TestFileGroupData : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void xmlForm_data();
    void xmlForm();
    void fromHtml_data();
    void fromHtml();
    void badInputReports54_data();
    void badInputReports54();
    void stringForm();
    void descriptionFiles();

private:
    QStringList m_traces;
};

void TestFileGroupData::initTestCase()
{
    // Two hours east of UTC all year, so that the table form's conversion to local time shows.
    qputenv("TZ", "XXX-2");
    ErrorHandler::Instance()->SetTraceHook([this](const QString &text, const char *, int) { m_traces << text; });
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
}

void TestFileGroupData::init()
{
    m_traces.clear();
}

void TestFileGroupData::xmlForm_data()
{
    QTest::addColumn<FileGroupData>("record");
    QTest::addColumn<QString>("expected");

    QTest::newRow("default") << FileGroupData()
                             << withRoot(QStringLiteral(
                                    "<m:Guid></m:Guid><m:FileGroupName></m:FileGroupName><m:FileType>0</m:FileType>"
                                    "<m:ReservedStorage>0</m:ReservedStorage><m:ReferenceCounter>0</m:ReferenceCounter>"
                                    "<m:Files/>"));

    FileGroupData full = fullRecord();
    full.setPath(QStringLiteral("/never/written"));
    full.setLockCount(9);
    full.setReferenceCounter(-1);
    full.setBackupTime(QDateTime(QDate(2020, 3, 1), QTime(1, 4, 5), Qt::UTC));
    QTest::newRow("full, negative counter left out, times as held")
        << full
        << withRoot(QStringLiteral(
               "<m:Guid>6f1c2a44-0d1e-4c3b-9a57-1b2c3d4e5f60</m:Guid>"
               "<m:FileGroupName>scan &lt;1&gt; &amp; more</m:FileGroupName>"
               "<m:FileType>8</m:FileType><m:LocationState>2</m:LocationState>"
               "<m:BackupTime>2020-03-01 01:04:05</m:BackupTime><m:CreationTime>2020-03-02 02:04:05</m:CreationTime>"
               "<m:ModificationTime>2020-03-03 03:04:05</m:ModificationTime>"
               "<m:LifeCycle>2020-03-04 23:04:05</m:LifeCycle>"
               "<m:Comment>comment</m:Comment><m:Creator>creator</m:Creator><m:Detail>detail</m:Detail>"
               "<m:TeamMembership>team</m:TeamMembership><m:Version>1.2</m:Version>"
               "<m:ReservedStorage>100</m:ReservedStorage>"
               "<m:Files><m:File><m:FileId>1</m:FileId><m:FileName>a.bin</m:FileName></m:File>"
               "<m:File><m:FileId>2</m:FileId><m:FileName>b.txt</m:FileName></m:File></m:Files>"));
}

void TestFileGroupData::xmlForm()
{
    QFETCH(FileGroupData, record);
    QTEST(toXml(record), "expected");
}

void TestFileGroupData::fromHtml_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<int>("result");
    QTest::addColumn<FileGroupData>("expected");
    QTest::addColumn<QStringList>("traces");

    QTest::newRow("error element, read from the current position")
        << QStringLiteral("<m:Error xmlns:m=\"%1\">5</m:Error>").arg(Ns::Message) << 5 << FileGroupData()
        << QStringList();

    FileGroupData kept;
    kept.setFileType(FileType(-5));
    kept.setLocationState(LS_UnknownFileGroup);
    kept.setGuid(QStringLiteral("g"));
    QTest::newRow("refused values keep the old one, reading goes on")
        << withRoot(QStringLiteral("<m:FileType>-5</m:FileType><m:FileType>23</m:FileType><m:LocationState>13"
                                   "</m:LocationState><m:LocationState>14</m:LocationState><m:Guid>g</m:Guid>"))
        << 54 << kept
        << QStringList{QStringLiteral("Unkown file type \"23\" read"),
                       QStringLiteral("Unkown location state \"14\" read")};

    QTest::newRow("foreign and missing namespaces ignored")
        << QStringLiteral("<r><FileGroup><Guid>x</Guid><FileType>3</FileType></FileGroup>"
                          "<x:Guid xmlns:x=\"urn:other\">y</x:Guid><Error>5</Error></r>")
        << 0 << FileGroupData() << QStringList();

    FileGroupData repeated;
    repeated.setFileList({{QStringLiteral("a"), 1}, {QStringLiteral("a"), 2}, {QStringLiteral("c"), 2}});
    repeated.setComment(QStringLiteral("after"));
    QTest::newRow("a file lacking a child repeats the previous value")
        << withRoot(QStringLiteral("<m:Files><m:File><m:FileId>1</m:FileId><m:FileName>a</m:FileName></m:File>"
                                   "<m:File><m:FileId>2</m:FileId></m:File><m:File><m:FileName>c</m:FileName></m:File>"
                                   "<x:File xmlns:x=\"urn:other\"/></m:Files><m:Comment>after</m:Comment>"))
        << 0 << repeated << QStringList();
}

void TestFileGroupData::fromHtml()
{
    QFETCH(QString, xml);
    QFETCH(FileGroupData, expected);
    QXmlStreamReader reader(xml);
    QVERIFY(reader.readNextStartElement());
    FileGroupData record;
    QTEST(int(record.FromHtml(reader)), "result");
    QCOMPARE(record, expected);
    QTEST(m_traces, "traces");
}

void TestFileGroupData::badInputReports54_data()
{
    QTest::addColumn<QByteArray>("bytes");

    const QByteArray xml = toXml(fullRecord()).toUtf8();
    for (int length = 0; length < xml.size(); length += 7)
        QTest::addRow("truncated to %d", length) << xml.left(length);
    QRandomGenerator random(4711);
    for (int i = 0; i < 20; ++i) {
        QByteArray noise(int(random.bounded(1, 200)), Qt::Uninitialized);
        for (char &byte : noise)
            byte = char(random.bounded(256));
        QTest::addRow("noise %d", i) << noise;
    }
}

void TestFileGroupData::badInputReports54()
{
    QFETCH(QByteArray, bytes);
    QXmlStreamReader reader(bytes);
    FileGroupData record;
    QCOMPARE(record.FromHtml(reader), KE_ReadXmlFileFailed);
    QCOMPARE(m_traces.size(), 1);
    QVERIFY(m_traces.first().startsWith(
        QLatin1String("Could not read Xml file for import of filegroup. XmlStreamReader error: ")));
}

void TestFileGroupData::stringForm()
{
    QStringList headers;
    FileGroupData::GetHeaders(headers);
    QCOMPARE(headers,
             QStringLiteral("File group name|File type|Location state|Backup time|Creation time|"
                            "Modification time|Life cycle|Comment|Creator|Detail|Team|Version|"
                            "Reserved storage|Reference count|Lock count|Guid")
                 .split(QLatin1Char('|')));

    FileGroupData first = fullRecord();
    first.setFileList({});
    first.setBackupTime(QDateTime(QDate(2020, 3, 1), QTime(23, 4, 5), Qt::UTC));
    first.setModificationTime(QDateTime());
    first.setReservedStorage(-1);
    first.setLockCount(7);
    QStringList values;
    first.ToStringList(values);
    QCOMPARE(values,
             QStringLiteral("scan <1> & more|Scan Recording|Central|2020-03-02 01:04:05|2020-03-02 02:04:05||"
                            "2020-03-04 23:04:05|comment|creator|detail|team|1.2|-1|2|7|"
                            "6f1c2a44-0d1e-4c3b-9a57-1b2c3d4e5f60")
                 .split(QLatin1Char('|')));

    FileGroupData second;
    second.setFileType(FileType(-3));
    second.setLocationState(LocationState(20));
    second.ToStringList(values);
    second.ToStringList(values);
    values << QStringLiteral("an incomplete row");
    // Numbers are read as well as texts; the location state's bound is the file types' 22.
    const auto at = [](int row, FileGroupColumn::Column column) { return row * FileGroupColumn::Count + column; };
    values[at(1, FileGroupColumn::FileType)] = QStringLiteral("-3");
    values[at(1, FileGroupColumn::LocationState)] = QStringLiteral("20");
    values[at(2, FileGroupColumn::FileType)] = QStringLiteral("23");
    values[at(2, FileGroupColumn::LocationState)] = QStringLiteral("23");
    const std::vector<FileGroupData> records = FileGroupData::fromStringList(values);
    QCOMPARE(records.size(), size_t(3));
    QCOMPARE(records[0], first);
    QCOMPARE(records[1], second);
    QCOMPARE(records[2], FileGroupData());
    const QString unknown = QStringLiteral("FileGroupData::fromStringList: Unkown %1 \"23\" read");
    QCOMPARE(m_traces,
             QStringList({unknown.arg(QLatin1String("file type")), unknown.arg(QLatin1String("location state"))}));
}

void TestFileGroupData::descriptionFiles()
{
    QTemporaryDir dir;
    FileGroupData record = fullRecord();
    record.setPath(QStringLiteral("/p"));
    record.setLockCount(4);
    const QString base = record.getFileGroupName() + QLatin1Char('_') + record.getGuid();
    for (const char *suffix : {"", "_1", "_2"}) {
        const QString name = record.toXmlFileForExport(dir.path());
        QCOMPARE(name, base + QLatin1String(suffix) + QLatin1String(".fgdesc"));
        QFile file(dir.filePath(name));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(file.readAll()), toXml(record));
        FileGroupData imported;
        QVERIFY(imported.fromXmlforImport(file.fileName()));
        QCOMPARE(imported, fullRecord());
    }

    FileGroupData failing;
    failing.setFileGroupName(QStringLiteral("sub/x"));
    failing.setGuid(QStringLiteral("g"));
    QCOMPARE(failing.toXmlFileForExport(dir.path()), QStringLiteral("sub/x_g.fgdesc"));
    const QString missing = dir.filePath(QStringLiteral("missing.fgdesc"));
    QVERIFY(!failing.fromXmlforImport(missing));
    QCOMPARE(m_traces,
             QStringList({QStringLiteral("Could not create Xml file for export of filegroup sub/x with guid g"),
                          QStringLiteral("Could not open filegroup file %1 for import").arg(missing)}));
}

QTEST_GUILESS_MAIN(TestFileGroupData)
#include "tst_filegroupdata.moc"
