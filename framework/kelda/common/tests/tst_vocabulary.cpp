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

enum TextKind { FileTypeText, LocationText, LockText, ErrorText };

QString textOf(int kind, int value)
{
    switch (kind) {
    case FileTypeText:
        return FileTypeManager::GetText(FileType(value));
    case LocationText:
        return LocationStateString::GetText(LocationState(value));
    case LockText:
        return LockStateString::GetText(LockState(value));
    default:
        return KeldaErrorString::Get(KeldaError(value));
    }
}

QVector<FileType> allOfferable()
{
    QVector<FileType> types;
    for (int type = FT_TransmissionSystem_XML; type <= FT_Last; ++type) {
        if (type != FT_PCK)
            types << FileType(type);
    }
    return types;
}

} // namespace

class TestVocabulary : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void texts_data();
    void texts();
    void everyAssignedCodeHasItsOwnText();
    void offeredTypes_data();
    void offeredTypes();
    void configurationIsReadOncePerInstance();
    void managerTracesEntryAndExit();
    void urlParts_data();
    void urlParts();
    void urlFactories();
    void createPath_data();
    void createPath();
    void createGuid();

private:
    QString configFile() const { return m_dir.filePath(QStringLiteral("kelda.ini")); }

    QTemporaryDir m_dir;
    QStringList m_traces;
};

void TestVocabulary::initTestCase()
{
    QVERIFY(m_dir.isValid());
    qputenv("KELDA_CONFIG_FILE", configFile().toLocal8Bit());
    ErrorHandler::Instance()->SetTraceHook([this](const QString &text, const char *source, int) {
        m_traces << QString::fromLatin1(source) + QLatin1String(": ") + text;
    });
}

void TestVocabulary::cleanup()
{
    delete FileTypeManager::Instance();
    QFile::remove(configFile());
    m_traces.clear();
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
}

void TestVocabulary::texts_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("value");
    QTest::addColumn<QString>("text");

    QTest::newRow("file type 12") << int(FileTypeText) << 12 << "Propagation Calculation Tool";
    QTest::newRow("file type 16, never offered") << int(FileTypeText) << 16 << "PCK File";
    QTest::newRow("file type 23") << int(FileTypeText) << 23 << "Invalid file type";
    QTest::newRow("file type -1") << int(FileTypeText) << -1 << "Invalid file type";
    QTest::newRow("location 13") << int(LocationText) << 13 << "Unknown file group";
    QTest::newRow("location 14") << int(LocationText) << 14 << "Invalid location state";
    QTest::newRow("location -1") << int(LocationText) << -1 << "Invalid location state";
    QTest::newRow("lock 0") << int(LockText) << 0 << "Undefined";
    QTest::newRow("lock 4") << int(LockText) << 4 << "Invalid lock state";
    QTest::newRow("error 0") << int(ErrorText) << 0 << "No error";
    QTest::newRow("error 27 shares 15's text") << int(ErrorText) << 27 << "Failed to delete file";
    QTest::newRow("error 63 keeps its spelling")
        << int(ErrorText) << 63 << "The file group has been found, but is not yet ready to be transfered . ";
    QTest::newRow("error 69 unassigned") << int(ErrorText) << 69 << "Invalid error code";
    QTest::newRow("error 71") << int(ErrorText) << 71 << "The required remote system is not connected.";
    QTest::newRow("error 72") << int(ErrorText) << 72 << "Invalid error code";
    QTest::newRow("error -1") << int(ErrorText) << -1 << "Invalid error code";
}

void TestVocabulary::texts()
{
    QFETCH(int, kind);
    QFETCH(int, value);
    QTEST(textOf(kind, value), "text");
}

void TestVocabulary::everyAssignedCodeHasItsOwnText()
{
    // A missing or doubled table line would shift every later text.
    QSet<QString> seen;
    for (int code = 0; code <= 71; ++code) {
        const QString text = KeldaErrorString::Get(KeldaError(code));
        QCOMPARE(text == QLatin1String("Invalid error code"), code == 69);
        QVERIFY2(code == 27 || !seen.contains(text), qPrintable(text));
        seen.insert(text);
        QCOMPARE(text.endsWith(QLatin1Char(' ')), code >= 58 && code <= 65);
    }
}

void TestVocabulary::offeredTypes_data()
{
    QTest::addColumn<QStringList>("switchedOff");
    QTest::addColumn<QVector<FileType>>("expected");

    QTest::newRow("no configuration") << QStringList() << allOfferable();
    QVector<FileType> without = allOfferable();
    without.removeOne(FT_MissionPlanningTool);
    without.removeOne(FT_CND);
    QTest::newRow("keys off keep the order")
        << QStringList{QStringLiteral("Type_MissionPlanningTool"), QStringLiteral("Type_CND")} << without;
    QTest::newRow("every key off")
        << QStringLiteral("Type_TransmissionSystem_XML Type_TransmissionSystem_Text Type_TransmissionSystem_Binary "
                          "Type_TransmissionSystem_Z2_XML Type_DecodedText_XML Type_DecodedText_Text "
                          "Type_DecodedText_Z2_XML Type_ScanRecording Type_IfRecording Type_AudioRecording Type_Image "
                          "Type_MissionPlanningTool Type_CND Type_Report_References Type_PelorResults Type_RAD "
                          "Type_Report_Fragment Type_Tovin_IqRecording Type_TechnicalParameters "
                          "Type_ShapeCollections Type_TrainingCollections")
               .split(QLatin1Char(' '))
        << QVector<FileType>();
}

void TestVocabulary::offeredTypes()
{
    QFETCH(QStringList, switchedOff);
    QFETCH(QVector<FileType>, expected);
    QSettings settings(configFile(), QSettings::IniFormat);
    for (const QString &key : switchedOff)
        settings.setValue(QStringLiteral("KELDA/") + key, false);
    settings.sync();

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
    QSettings(configFile(), QSettings::IniFormat).setValue(QStringLiteral("KELDA/Type_Image"), false);
    QCOMPARE(FileTypeManager::Instance(), manager);
    QVERIFY(manager->GetTypes().contains(FT_Image));

    const FileTypeManager copy(*manager);
    delete manager;
    // Without an instance even a surviving copy answers "Unknown".
    QCOMPARE(copy.GetCount(), allOfferable().size());
    QCOMPARE(copy.GetTextByIndex(0), QStringLiteral("Unknown"));
    QVERIFY(!FileTypeManager::Instance()->GetTypes().contains(FT_Image));
}

void TestVocabulary::managerTracesEntryAndExit()
{
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Detail);
    delete FileTypeManager::Instance();
    const QString prefix = QStringLiteral("framework/kelda/common/filetype: FileTypeManager::");
    QCOMPARE(m_traces, QStringList({prefix + QLatin1String("FileTypeManager: Start"),
                                    prefix + QLatin1String("FileTypeManager: End"),
                                    prefix + QLatin1String("~FileTypeManager: Start"),
                                    prefix + QLatin1String("~FileTypeManager: End")}));
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
    QTest::newRow("three parts: an id is read, yet none is had")
        << "kelda:///g/7/x" << "kelda:///g/7/x" << true << false << "g" << 7u << false;
    QTest::newRow("id not a number") << "kelda:///g/x" << "kelda:///g/x" << true << true << "g" << 0u << false;
    QTest::newRow("empty path") << "kelda:" << "kelda:" << false << false << "" << 0u << false;
    QTest::newRow("drive after two slashes")
        << "file://C:/data/x.bin" << "file:///C:/data/x.bin" << false << false << "C:" << 0u << true;
    QTest::newRow("drive after three slashes")
        << "file:///C:/data/x.bin" << "file:///C:/data/x.bin" << false << false << "C:" << 0u << true;
    QTest::newRow("host, not a drive")
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
    QCOMPARE(KeldaUrl(file.toString()).toKeldaFileId(), 4000000000u);
    KeldaUrl group;
    group = KeldaUrl::fromKeldaGuid(guid);
    QCOMPARE(group.toString(), QStringLiteral("kelda:///%1").arg(guid));
    QVERIFY(group.isKeldaUrl() && !group.hasKeldaFileId());
    QCOMPARE(group.toKeldaGuid(), guid);
}

void TestVocabulary::createPath_data()
{
    QTest::addColumn<QString>("base");
    QTest::addColumn<QDateTime>("time");
    QTest::addColumn<QString>("expected");

    QTest::newRow("relative base") << "base" << QDateTime(QDate(2020, 3, 5), QTime(14, 59), Qt::UTC)
                                   << QDir::currentPath() + QStringLiteral("/base/2020/03/05/14/g/n/");
    QTest::newRow("doubled separators, the time's own zone")
        << "/srv//kelda/" << QDateTime(QDate(2021, 12, 31), QTime(23, 0), Qt::OffsetFromUTC, -3600)
        << QStringLiteral("/srv/kelda/2021/12/31/23/g/n/");
}

void TestVocabulary::createPath()
{
    QFETCH(QString, base);
    QFETCH(QDateTime, time);
    QFETCH(QString, expected);
    QCOMPARE(CreatePath(base, QStringLiteral("g"), QStringLiteral("n"), time), QDir::toNativeSeparators(expected));
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
