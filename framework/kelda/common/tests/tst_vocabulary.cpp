#include "filetype.h"
#include "keldaerror.h"
#include "keldaurl.h"

#include <errorhandler.h>

#include <QDir>
#include <QSettings>
#include <QTemporaryDir>
#include <QUuid>
#include <QtTest>

using namespace Kelda;

namespace {

enum TextKind { FileTypeText, LocationText, LockText };

const QVector<FileType> kAllOffered = {
    FT_TransmissionSystem_XML, FT_TransmissionSystem_Text, FT_TransmissionSystem_Binary,
    FT_TransmissionSystem_Z2_XML, FT_DecodedText_XML, FT_DecodedText_Text, FT_DecodedText_Z2_XML,
    FT_ScanRecording, FT_IfRecording, FT_AudioRecording, FT_Image, FT_MissionPlanningTool, FT_CND,
    FT_Report_References, FT_PelorResults, FT_RAD, FT_Report_Fragment, FT_Tovin_IqRecording,
    FT_TechnicalParameters, FT_ShapeCollections, FT_TrainingCollections};

} // namespace

class TestVocabulary : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void texts_data();
    void texts();
    void errorTexts_data();
    void errorTexts();
    void everyAssignedCodeHasItsOwnSlot();

    void offeredTypes_data();
    void offeredTypes();
    void configurationIsReadOncePerInstance();
    void managerTracesEntryAndExit();

    void urlParts_data();
    void urlParts();
    void urlFactories();
    void createPath_data();
    void createPath();
    void createPathUsesUtcNow();
    void createGuid();

private:
    void writeConfig(const QMap<QString, bool> &keys);

    QTemporaryDir m_dir;
    QStringList m_traces;
};

void TestVocabulary::initTestCase()
{
    QVERIFY(m_dir.isValid());
    qputenv("KELDA_CONFIG_FILE", m_dir.filePath(QStringLiteral("kelda.ini")).toLocal8Bit());
    ErrorHandler::Instance()->SetTraceHook(
        [this](const QString &text, const char *source, int) {
            m_traces << QString::fromLatin1(source) + QLatin1String(": ") + text;
        });
}

void TestVocabulary::cleanup()
{
    delete FileTypeManager::Instance();
    QFile::remove(m_dir.filePath(QStringLiteral("kelda.ini")));
    m_traces.clear();
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
}

void TestVocabulary::writeConfig(const QMap<QString, bool> &keys)
{
    QSettings settings(m_dir.filePath(QStringLiteral("kelda.ini")), QSettings::IniFormat);
    settings.beginGroup(QStringLiteral("KELDA"));
    for (auto it = keys.cbegin(); it != keys.cend(); ++it)
        settings.setValue(it.key(), it.value());
}

void TestVocabulary::texts_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("value");
    QTest::addColumn<QString>("text");

    QTest::newRow("file type 0") << int(FileTypeText) << 0 << "Unknown";
    QTest::newRow("file type 12") << int(FileTypeText) << 12 << "Propagation Calculation Tool";
    QTest::newRow("file type 16, never offered") << int(FileTypeText) << 16 << "PCK File";
    QTest::newRow("file type 22") << int(FileTypeText) << 22 << "Training Collections";
    QTest::newRow("file type 23") << int(FileTypeText) << 23 << "Invalid file type";
    QTest::newRow("file type -1") << int(FileTypeText) << -1 << "Invalid file type";
    QTest::newRow("location 0") << int(LocationText) << 0 << "Undefined";
    QTest::newRow("location 13") << int(LocationText) << 13 << "Unknown file group";
    QTest::newRow("location 14") << int(LocationText) << 14 << "Invalid location state";
    QTest::newRow("location -1") << int(LocationText) << -1 << "Invalid location state";
    QTest::newRow("lock 0") << int(LockText) << 0 << "Undefined";
    QTest::newRow("lock 3") << int(LockText) << 3 << "Write";
    QTest::newRow("lock 4") << int(LockText) << 4 << "Invalid lock state";
}

void TestVocabulary::texts()
{
    QFETCH(int, kind);
    QFETCH(int, value);
    QFETCH(QString, text);
    switch (kind) {
    case FileTypeText:
        QCOMPARE(FileTypeManager::GetText(FileType(value)), text);
        break;
    case LocationText:
        QCOMPARE(LocationStateString::GetText(LocationState(value)), text);
        break;
    case LockText:
        QCOMPARE(LockStateString::GetText(LockState(value)), text);
        break;
    }
}

void TestVocabulary::errorTexts_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("text");

    QTest::newRow("0") << 0 << "No error";
    QTest::newRow("15") << 15 << "Failed to delete file";
    QTest::newRow("27 shares the text of 15") << 27 << "Failed to delete file";
    QTest::newRow("54") << 54 << "Failed to read XML file";
    QTest::newRow("58 ends in a blank") << 58 << "Soap Message missing tag: ";
    QTest::newRow("63 keeps its spelling")
        << 63 << "The file group has been found, but is not yet ready to be transfered . ";
    QTest::newRow("65") << 65 << "The file group has been found, but no copy was requested. ";
    QTest::newRow("68") << 68 << "Server is busy. Please try again later.";
    QTest::newRow("69 is unassigned") << 69 << "Invalid error code";
    QTest::newRow("70") << 70 << "The file group is an invalid location state for this command.";
    QTest::newRow("71") << 71 << "The required remote system is not connected.";
    QTest::newRow("72") << 72 << "Invalid error code";
    QTest::newRow("-1") << -1 << "Invalid error code";
}

void TestVocabulary::errorTexts()
{
    QFETCH(int, code);
    QFETCH(QString, text);
    QCOMPARE(KeldaErrorString::Get(KeldaError(code)), text);
}

void TestVocabulary::everyAssignedCodeHasItsOwnSlot()
{
    // A missing or doubled table line shifts every later text by one.
    QSet<QString> seen;
    for (int code = 0; code <= 71; ++code) {
        const QString text = KeldaErrorString::Get(KeldaError(code));
        QCOMPARE(text == QLatin1String("Invalid error code"), code == 69);
        if (code != 27)
            QVERIFY2(!seen.contains(text), qPrintable(text));
        seen.insert(text);
        QCOMPARE(text.endsWith(QLatin1Char(' ')), code >= 58 && code <= 65);
    }
}

void TestVocabulary::offeredTypes_data()
{
    QTest::addColumn<QStringList>("switchedOff");
    QTest::addColumn<QVector<FileType>>("expected");

    QTest::newRow("no configuration") << QStringList() << kAllOffered;

    QVector<FileType> withoutCnd = kAllOffered;
    withoutCnd.removeOne(FT_CND);
    QTest::newRow("one key off keeps the order") << QStringList{QStringLiteral("Type_CND")} << withoutCnd;

    QVector<FileType> withoutPlanning = kAllOffered;
    withoutPlanning.removeOne(FT_MissionPlanningTool);
    withoutPlanning.removeOne(FT_TrainingCollections);
    QTest::newRow("keys do not follow the texts")
        << QStringList{QStringLiteral("Type_MissionPlanningTool"), QStringLiteral("Type_TrainingCollections")}
        << withoutPlanning;

    QStringList allKeys;
    allKeys << QStringLiteral("Type_TransmissionSystem_XML") << QStringLiteral("Type_TransmissionSystem_Text")
            << QStringLiteral("Type_TransmissionSystem_Binary") << QStringLiteral("Type_TransmissionSystem_Z2_XML")
            << QStringLiteral("Type_DecodedText_XML") << QStringLiteral("Type_DecodedText_Text")
            << QStringLiteral("Type_DecodedText_Z2_XML") << QStringLiteral("Type_ScanRecording")
            << QStringLiteral("Type_IfRecording") << QStringLiteral("Type_AudioRecording")
            << QStringLiteral("Type_Image") << QStringLiteral("Type_MissionPlanningTool")
            << QStringLiteral("Type_CND") << QStringLiteral("Type_Report_References")
            << QStringLiteral("Type_PelorResults") << QStringLiteral("Type_RAD")
            << QStringLiteral("Type_Report_Fragment") << QStringLiteral("Type_Tovin_IqRecording")
            << QStringLiteral("Type_TechnicalParameters") << QStringLiteral("Type_ShapeCollections")
            << QStringLiteral("Type_TrainingCollections");
    QTest::newRow("every key off") << allKeys << QVector<FileType>();
}

void TestVocabulary::offeredTypes()
{
    QFETCH(QStringList, switchedOff);
    QFETCH(QVector<FileType>, expected);
    QMap<QString, bool> keys;
    for (const QString &key : switchedOff)
        keys.insert(key, false);
    writeConfig(keys);

    FileTypeManager *manager = FileTypeManager::Instance();
    QCOMPARE(manager->GetTypes(), expected);
    QCOMPARE(manager->GetCount(), expected.size());
    for (int i = 0; i < expected.size(); ++i) {
        QCOMPARE(manager->GetType(i), expected.at(i));
        QCOMPARE(manager->GetTextByIndex(i), FileTypeManager::GetText(expected.at(i)));
    }
    QCOMPARE(manager->GetType(expected.size()), FT_Unknown);
    QCOMPARE(manager->GetTextByIndex(expected.size()), QStringLiteral("Unknown"));
}

void TestVocabulary::configurationIsReadOncePerInstance()
{
    FileTypeManager *manager = FileTypeManager::Instance();
    QCOMPARE(manager->GetCount(), kAllOffered.size());
    writeConfig({{QStringLiteral("Type_Image"), false}});
    QCOMPARE(FileTypeManager::Instance(), manager);
    QCOMPARE(manager->GetCount(), kAllOffered.size());

    const FileTypeManager copy(*manager);
    delete manager;
    // A copy outlives the instance but, like the instance itself, answers
    // "Unknown" until a new instance exists.
    QCOMPARE(copy.GetCount(), kAllOffered.size());
    QCOMPARE(copy.GetTextByIndex(0), QStringLiteral("Unknown"));

    QVERIFY(!FileTypeManager::Instance()->GetTypes().contains(FT_Image));
    QCOMPARE(FileTypeManager::Instance()->GetCount(), kAllOffered.size() - 1);
}

void TestVocabulary::managerTracesEntryAndExit()
{
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Detail);
    delete FileTypeManager::Instance();
    const QString source = QStringLiteral("framework/kelda/common/filetype: ");
    QCOMPARE(m_traces, QStringList({source + QStringLiteral("FileTypeManager::FileTypeManager: Start"),
                                    source + QStringLiteral("FileTypeManager::FileTypeManager: End"),
                                    source + QStringLiteral("FileTypeManager::~FileTypeManager: Start"),
                                    source + QStringLiteral("FileTypeManager::~FileTypeManager: End")}));
}

void TestVocabulary::urlParts_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("asText");
    QTest::addColumn<bool>("isKelda");
    QTest::addColumn<bool>("hasFileId");
    QTest::addColumn<QString>("guid");
    QTest::addColumn<uint>("fileId");
    QTest::addColumn<bool>("isLocal");

    QTest::newRow("file") << "kelda:///g/7" << "kelda:///g/7" << true << true << "g" << 7u << false;
    QTest::newRow("group") << "kelda:///g" << "kelda:///g" << true << false << "g" << 0u << false;
    QTest::newRow("three parts read the id but do not have one")
        << "kelda:///g/7/x" << "kelda:///g/7/x" << true << false << "g" << 7u << false;
    QTest::newRow("id not a number") << "kelda:///g/x" << "kelda:///g/x" << true << true << "g" << 0u << false;
    QTest::newRow("empty path") << "kelda:" << "kelda:" << false << false << "" << 0u << false;
    QTest::newRow("another scheme") << "http://h/g/7" << "http://h/g/7" << false << true << "g" << 7u << false;
    QTest::newRow("drive after two slashes")
        << "file://C:/data/x.bin" << "file:///C:/data/x.bin" << false << false << "C:" << 0u << true;
    QTest::newRow("drive after three slashes")
        << "file:///C:/data/x.bin" << "file:///C:/data/x.bin" << false << false << "C:" << 0u << true;
    QTest::newRow("host is not a drive")
        << "file://server/x.bin" << "file://server/x.bin" << false << false << "x.bin" << 0u << true;
}

void TestVocabulary::urlParts()
{
    QFETCH(QString, text);
    const KeldaUrl url(text);
    QTEST(url.toString(), "asText");
    QTEST(url.isKeldaUrl(), "isKelda");
    QTEST(url.hasKeldaFileId(), "hasFileId");
    QTEST(url.toKeldaGuid(), "guid");
    QTEST(url.toKeldaFileId(), "fileId");
    QTEST(url.isLocalFile(), "isLocal");
}

void TestVocabulary::urlFactories()
{
    const QString guid = CreateGuid();
    const KeldaUrl file(KeldaUrl::fromKeldaIds(guid, 4000000000u));
    QCOMPARE(file.toString(), QStringLiteral("kelda:///%1/4000000000").arg(guid));
    QVERIFY(file.hasKeldaFileId());
    QCOMPARE(file.toKeldaGuid(), guid);
    QCOMPARE(file.toKeldaFileId(), 4000000000u);

    KeldaUrl group;
    group = KeldaUrl::fromKeldaGuid(guid);
    QCOMPARE(group.toString(), QStringLiteral("kelda:///%1").arg(guid));
    QVERIFY(group.isKeldaUrl());
    QVERIFY(!group.hasKeldaFileId());
    QCOMPARE(group.toKeldaFileId(), 0u);
    // The text form parses back to the same parts.
    QCOMPARE(KeldaUrl(file.toString()).toKeldaFileId(), 4000000000u);
}

void TestVocabulary::createPath_data()
{
    QTest::addColumn<QString>("base");
    QTest::addColumn<QDateTime>("time");
    QTest::addColumn<QString>("expected");

    const QDateTime utc(QDate(2020, 3, 5), QTime(14, 59, 59), Qt::UTC);
    const QString cwd = QDir::currentPath();
    QTest::newRow("relative base") << "base" << utc << cwd + QStringLiteral("/base/2020/03/05/14/g/n/");
    QTest::newRow("doubled separators") << "/srv//kelda/" << utc << QStringLiteral("/srv/kelda/2020/03/05/14/g/n/");
    QTest::newRow("hour in the time's own spec")
        << "/srv" << QDateTime(QDate(2021, 12, 31), QTime(23, 0), Qt::OffsetFromUTC, -3600)
        << QStringLiteral("/srv/2021/12/31/23/g/n/");
}

void TestVocabulary::createPath()
{
    QFETCH(QString, base);
    QFETCH(QDateTime, time);
    QFETCH(QString, expected);
    QCOMPARE(CreatePath(base, QStringLiteral("g"), QStringLiteral("n"), time),
             QDir::toNativeSeparators(expected));
}

void TestVocabulary::createPathUsesUtcNow()
{
    const QDateTime before = QDateTime::currentDateTimeUtc();
    const QString path = CreatePath(QStringLiteral("/srv"), QStringLiteral("g"), QStringLiteral("n"));
    const QDateTime after = QDateTime::currentDateTimeUtc();
    const QString g = QStringLiteral("g"), n = QStringLiteral("n"), srv = QStringLiteral("/srv");
    QVERIFY2(path == CreatePath(srv, g, n, before) || path == CreatePath(srv, g, n, after), qPrintable(path));
}

void TestVocabulary::createGuid()
{
    const QString guid = CreateGuid();
    QCOMPARE(guid.size(), 36);
    QCOMPARE(guid, guid.toLower());
    QVERIFY(!guid.contains(QLatin1Char('{')) && !guid.contains(QLatin1Char('}')));
    QVERIFY(!QUuid(guid).isNull());
    QVERIFY(CreateGuid() != guid);
}

QTEST_GUILESS_MAIN(TestVocabulary)
#include "tst_vocabulary.moc"
