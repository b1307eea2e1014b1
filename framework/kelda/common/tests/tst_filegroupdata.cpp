#include "filegroupdata.h"
#include "keldaxml.h"

#include <errorhandler.h>

#include <QDir>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>
#include <QtTest>

using namespace Kelda;

namespace {

QDateTime local(int day, int hour)
{
    return QDateTime(QDate(2020, 3, day), QTime(hour, 4, 5));
}

FileGroupData fullRecord()
{
    FileGroupData record;
    record.setGuid(QStringLiteral("6f1c2a44-0d1e-4c3b-9a57-1b2c3d4e5f60"));
    record.setFileGroupName(QStringLiteral("scan <1> & more"));
    record.setFileType(FT_ScanRecording);
    record.setLocationState(LS_Central);
    record.setBackupTime(local(1, 1));
    record.setCreationTime(local(2, 2));
    record.setModificationTime(local(3, 3));
    record.setLifeCycle(local(4, 23));
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

QString toXml(const FileGroupData &record, bool withElement = true, bool withNamespace = true)
{
    QString xml;
    QXmlStreamWriter writer(&xml);
    record.ToHtml(writer, withElement, withNamespace);
    return xml;
}

QStringList strings(std::initializer_list<const char *> texts)
{
    QStringList list;
    for (const char *text : texts)
        list << QString::fromUtf8(text);
    return list;
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
    void xmlRoundTrip();
    void readsFromCurrentPosition();
    void fromHtml_data();
    void fromHtml();
    void badInputReports54_data();
    void badInputReports54();

    void stringForm();
    void stringFormRoundTrip();

    void exportCollisions();
    void exportIntoMissingDirectory();
    void importFailures();

private:
    QStringList m_traces;
};

void TestFileGroupData::initTestCase()
{
    // Two hours east of UTC all year, so that the conversion to local time
    // shows in the table form.
    qputenv("TZ", "XXX-2");
    ErrorHandler::Instance()->SetTraceHook(
        [this](const QString &text, const char *, int) { m_traces << text; });
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
}

void TestFileGroupData::init()
{
    m_traces.clear();
}

void TestFileGroupData::xmlForm_data()
{
    QTest::addColumn<FileGroupData>("record");
    QTest::addColumn<bool>("withElement");
    QTest::addColumn<QString>("expected");

    QTest::newRow("default") << FileGroupData() << true
                             << withRoot(QStringLiteral(
                                    "<m:Guid></m:Guid><m:FileGroupName></m:FileGroupName><m:FileType>0</m:FileType>"
                                    "<m:ReservedStorage>0</m:ReservedStorage><m:ReferenceCounter>0</m:ReferenceCounter>"
                                    "<m:Files/>"));

    FileGroupData full = fullRecord();
    full.setPath(QStringLiteral("/never/written"));
    full.setLockCount(9);
    full.setBackupTime(QDateTime(QDate(2020, 3, 1), QTime(1, 4, 5), Qt::UTC));
    QTest::newRow("full, times as held") << full << true
        << withRoot(QStringLiteral(
               "<m:Guid>6f1c2a44-0d1e-4c3b-9a57-1b2c3d4e5f60</m:Guid><m:FileGroupName>scan &lt;1&gt; &amp; more</m:FileGroupName>"
               "<m:FileType>8</m:FileType><m:LocationState>2</m:LocationState>"
               "<m:BackupTime>2020-03-01 01:04:05</m:BackupTime><m:CreationTime>2020-03-02 02:04:05</m:CreationTime>"
               "<m:ModificationTime>2020-03-03 03:04:05</m:ModificationTime><m:LifeCycle>2020-03-04 23:04:05</m:LifeCycle>"
               "<m:Comment>comment</m:Comment><m:Creator>creator</m:Creator><m:Detail>detail</m:Detail>"
               "<m:TeamMembership>team</m:TeamMembership><m:Version>1.2</m:Version>"
               "<m:ReservedStorage>100</m:ReservedStorage><m:ReferenceCounter>2</m:ReferenceCounter>"
               "<m:Files><m:File><m:FileId>1</m:FileId><m:FileName>a.bin</m:FileName></m:File>"
               "<m:File><m:FileId>2</m:FileId><m:FileName>b.txt</m:FileName></m:File></m:Files>"));

    FileGroupData negative;
    negative.setReservedStorage(-1);
    negative.setReferenceCounter(-2);
    negative.setLocationState(LocationState(-3));
    negative.setFileType(FileType(-4));
    QTest::newRow("negative counters and state left out, fields only") << negative << false
        << QStringLiteral("<m:Guid></m:Guid><m:FileGroupName></m:FileGroupName><m:FileType>-4</m:FileType><m:Files/>");
}

void TestFileGroupData::xmlForm()
{
    QFETCH(FileGroupData, record);
    QFETCH(bool, withElement);
    QTEST(toXml(record, withElement, withElement), "expected");
}

void TestFileGroupData::xmlRoundTrip()
{
    const QString xml = toXml(fullRecord());
    QXmlStreamReader reader(xml);
    FileGroupData read;
    QCOMPARE(read.FromHtml(reader), KE_NoError);
    QCOMPARE(read, fullRecord());

    FileGroupData copy = read;
    copy.addFile(QStringLiteral("c"), 3);
    QCOMPARE(read.getFileList().size(), size_t(2));
}

void TestFileGroupData::readsFromCurrentPosition()
{
    QXmlStreamReader reader(QStringLiteral("<m:Reply xmlns:m=\"%1\"><m:Guid>g</m:Guid><m:Error>0</m:Error></m:Reply>")
                                .arg(Ns::Message));
    QVERIFY(reader.readNextStartElement());
    QVERIFY(reader.readNextStartElement());
    FileGroupData record;
    QCOMPARE(record.FromHtml(reader), KE_NoError);
    QCOMPARE(record.getGuid(), QStringLiteral("g"));
}

void TestFileGroupData::fromHtml_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<int>("result");
    QTest::addColumn<FileGroupData>("expected");
    QTest::addColumn<QStringList>("traces");

    FileGroupData kept;
    kept.setFileType(FileType(-5));
    kept.setLocationState(LS_UnknownFileGroup);
    kept.setGuid(QStringLiteral("g"));
    QTest::newRow("refused values keep the old one, reading goes on")
        << withRoot(QStringLiteral("<m:FileType>-5</m:FileType><m:FileType>23</m:FileType><m:LocationState>13"
                                   "</m:LocationState><m:LocationState>14</m:LocationState><m:Guid>g</m:Guid>"))
        << 54 << kept
        << QStringList{QStringLiteral("Unkown file type \"23\" read"), QStringLiteral("Unkown location state \"14\" read")};

    QTest::newRow("foreign and missing namespaces ignored")
        << QStringLiteral("<r><FileGroup><Guid>x</Guid><FileType>3</FileType></FileGroup>"
                          "<x:Guid xmlns:x=\"urn:other\">y</x:Guid><Error>5</Error></r>")
        << 0 << FileGroupData() << QStringList();

    FileGroupData failed;
    failed.setGuid(QStringLiteral("g"));
    QTest::newRow("error child") << withRoot(QStringLiteral("<m:Guid>g</m:Guid><m:Error>5</m:Error>")) << 5
                                 << failed << QStringList();

    FileGroupData repeated;
    repeated.addFile(QStringLiteral("a"), 1);
    repeated.addFile(QStringLiteral("a"), 2);
    repeated.addFile(QStringLiteral("c"), 2);
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
    QTest::newRow("nested element in a text field") << withRoot(QStringLiteral("<m:Guid><m:x/></m:Guid>")).toUtf8();
    QTest::newRow("nested element in a file id")
        << withRoot(QStringLiteral("<m:Files><m:File><m:FileId><m:x/></m:FileId></m:File></m:Files>")).toUtf8();
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
    QCOMPARE(headers, strings({"File group name", "File type", "Location state", "Backup time", "Creation time",
                                   "Modification time", "Life cycle", "Comment", "Creator", "Detail", "Team",
                                   "Version", "Reserved storage", "Reference count", "Lock count", "Guid"}));

    FileGroupData record = fullRecord();
    record.setBackupTime(QDateTime(QDate(2020, 3, 1), QTime(23, 4, 5), Qt::UTC));
    record.setModificationTime(QDateTime());
    record.setReservedStorage(-1);
    record.setLockCount(7);
    QStringList values{QStringLiteral("kept")};
    record.ToStringList(values);
    QCOMPARE(values, strings({"kept", "scan <1> & more", "Scan Recording", "Central", "2020-03-02 01:04:05",
                                  "2020-03-02 02:04:05", "", "2020-03-04 23:04:05", "comment", "creator", "detail",
                                  "team", "1.2", "-1", "2", "7", "6f1c2a44-0d1e-4c3b-9a57-1b2c3d4e5f60"}));

    const QStringList lines = record.ToDebugStringList();
    QCOMPARE(lines.size(), 16);
    QCOMPARE(lines.first(), QStringLiteral("File group name: scan <1> & more"));
    QCOMPARE(lines.last(), QStringLiteral("Guid: 6f1c2a44-0d1e-4c3b-9a57-1b2c3d4e5f60"));
}

void TestFileGroupData::stringFormRoundTrip()
{
    FileGroupData first = fullRecord();
    first.setFileList({});
    first.setLockCount(3);
    FileGroupData second;
    second.setFileType(FileType(30));
    QStringList values;
    first.ToStringList(values);
    second.ToStringList(values);
    values << QStringLiteral("an incomplete row");

    std::vector<FileGroupData> records = FileGroupData::fromStringList(values);
    QCOMPARE(records.size(), size_t(2));
    QCOMPARE(records[0], first);
    QCOMPARE(records[1], FileGroupData());
    QCOMPARE(m_traces, QStringList{QStringLiteral("FileGroupData::fromStringList: Unkown file type \"Invalid file type\" read")});

    // Numbers are accepted too; the location state is bounded like a file type.
    values[1] = QStringLiteral("-3");
    values[2] = QStringLiteral("20");
    values[17] = QStringLiteral("23");
    values[18] = QStringLiteral("23");
    records = FileGroupData::fromStringList(values.mid(0, 32));
    QCOMPARE(int(records[0].getFileType()), -3);
    QCOMPARE(int(records[0].getLocationState()), 20);
    QCOMPARE(records[1], FileGroupData());
    QCOMPARE(m_traces.size(), 3);
    QVERIFY(FileGroupData::fromStringList(values.mid(0, 15)).empty());
}

void TestFileGroupData::exportCollisions()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    FileGroupData record = fullRecord();
    record.setReservedStorage(-1);
    record.setPath(QStringLiteral("/p"));
    record.setLockCount(4);
    const QString base = record.getFileGroupName() + QLatin1Char('_') + record.getGuid();
    QStringList names;
    for (int i = 0; i < 3; ++i)
        names << record.toXmlFileForExport(dir.path());
    QCOMPARE(names, QStringList({base + QLatin1String(".fgdesc"), base + QLatin1String("_1.fgdesc"),
                                 base + QLatin1String("_2.fgdesc")}));

    FileGroupData expected = record;
    expected.setReservedStorage(0);
    expected.setPath(QString());
    expected.setLockCount(0);
    for (const QString &name : names) {
        QFile file(QDir(dir.path()).filePath(name));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(file.readAll()), toXml(record));
        FileGroupData imported;
        QVERIFY(imported.fromXmlforImport(file.fileName()));
        QCOMPARE(imported, expected);
    }
    QVERIFY(m_traces.isEmpty());
}

void TestFileGroupData::exportIntoMissingDirectory()
{
    QTemporaryDir dir;
    FileGroupData record;
    record.setFileGroupName(QStringLiteral("sub/x"));
    record.setGuid(QStringLiteral("g"));
    QCOMPARE(record.toXmlFileForExport(dir.path()), QStringLiteral("sub/x_g.fgdesc"));
    QVERIFY(QDir(dir.path()).isEmpty());
    QCOMPARE(m_traces, QStringList{QStringLiteral("Could not create Xml file for export of filegroup sub/x with guid g")});
}

void TestFileGroupData::importFailures()
{
    QTemporaryDir dir;
    const QString missing = dir.filePath(QStringLiteral("missing.fgdesc"));
    FileGroupData record;
    QVERIFY(!record.fromXmlforImport(missing));
    QCOMPARE(m_traces, QStringList{QStringLiteral("Could not open filegroup file %1 for import").arg(missing)});

    QFile file(dir.filePath(QStringLiteral("bad.fgdesc")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(withRoot(QStringLiteral("<m:Guid>g</m:Guid><m:FileType>30</m:FileType>")).toUtf8());
    file.close();
    QVERIFY(!record.fromXmlforImport(file.fileName()));
    QCOMPARE(record.getGuid(), QStringLiteral("g"));
}

QTEST_GUILESS_MAIN(TestFileGroupData)
#include "tst_filegroupdata.moc"
