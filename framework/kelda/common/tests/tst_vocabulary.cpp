#include "filequery.h"
#include "filetype.h"
#include "keldaerror.h"
#include "keldaurl.h"

#include <QDir>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

using namespace Kelda;

class TestVocabulary : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void texts_data();
    void texts();
    void offeredTypes_data();
    void offeredTypes();
    void configurationIsReadOncePerInstance();
    void urlParts_data();
    void urlParts();
    void createPath();
    void inRange_data();
    void inRange();
    void resetEmptiesEverything();
    void validDateTime_data();
    void validDateTime();

private:
    QString configFile() const { return m_dir.filePath(QStringLiteral("kelda.ini")); }

    QTemporaryDir m_dir;
};

void TestVocabulary::initTestCase()
{
    qputenv("KELDA_CONFIG_FILE", configFile().toLocal8Bit());
}

void TestVocabulary::cleanup()
{
    delete FileTypeManager::Instance();
    QFile::remove(configFile());
}

void TestVocabulary::texts_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected");

    auto error = [](int code) { return KeldaErrorString::Get(KeldaError(code)); };
    QTest::newRow("file type 16, never offered") << FileTypeManager::GetText(FileType(16)) << "PCK File";
    QTest::newRow("file type 23") << FileTypeManager::GetText(FileType(23)) << "Invalid file type";
    QTest::newRow("location 13") << LocationStateString::GetText(LocationState(13)) << "Unknown file group";
    QTest::newRow("location 14") << LocationStateString::GetText(LocationState(14)) << "Invalid location state";
    QTest::newRow("location -1") << LocationStateString::GetText(LocationState(-1)) << "Invalid location state";
    QTest::newRow("lock 0") << LockStateString::GetText(LockState(0)) << "Undefined";
    QTest::newRow("lock 4") << LockStateString::GetText(LockState(4)) << "Invalid lock state";
    QTest::newRow("error 27 shares 15's text") << error(27) << "Failed to delete file";
    QTest::newRow("error 58 ends in a blank") << error(58) << "Soap Message missing tag: ";
    QTest::newRow("error 63 keeps its spelling")
        << error(63) << "The file group has been found, but is not yet ready to be transfered . ";
    QTest::newRow("error 69 unassigned") << error(69) << "Invalid error code";
    QTest::newRow("error 71") << error(71) << "The required remote system is not connected.";
    QTest::newRow("error 72") << error(72) << "Invalid error code";
    QTest::newRow("error -1") << error(-1) << "Invalid error code";
}

void TestVocabulary::texts()
{
    QFETCH(QString, text);
    QTEST(text, "expected");
}

void TestVocabulary::offeredTypes_data()
{
    QTest::addColumn<QStringList>("switchedOff");
    QTest::addColumn<QVector<FileType>>("expected");

    QVector<FileType> all;
    for (int type = FT_TransmissionSystem_XML; type <= FT_Last; ++type) {
        if (type != FT_PCK)
            all << FileType(type);
    }
    QTest::newRow("no configuration") << QStringList() << all;
    QVector<FileType> without = all;
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
    if (!expected.isEmpty())
        QCOMPARE(manager->GetTextByIndex(expected.size() - 1), FileTypeManager::GetText(expected.last()));
    QCOMPARE(manager->GetType(expected.size()), FT_Unknown);
    QCOMPARE(manager->GetTextByIndex(expected.size()), QStringLiteral("Unknown"));
}

void TestVocabulary::configurationIsReadOncePerInstance()
{
    FileTypeManager *manager = FileTypeManager::Instance();
    QSettings(configFile(), QSettings::IniFormat).setValue(QStringLiteral("KELDA/Type_Image"), false);
    QVERIFY(FileTypeManager::Instance()->GetTypes().contains(FT_Image));
    delete manager;
    QVERIFY(!FileTypeManager::Instance()->GetTypes().contains(FT_Image));
}

void TestVocabulary::urlParts_data()
{
    QTest::addColumn<QUrl>("url");
    QTest::addColumn<QString>("asText");
    QTest::addColumn<bool>("isKelda");
    QTest::addColumn<bool>("hasFileId");
    QTest::addColumn<QString>("guid");
    QTest::addColumn<uint>("fileId");

    auto parsed = [](const char *text) { return QUrl(KeldaUrl(QString::fromLatin1(text))); };
    QTest::newRow("three parts: an id is read, yet none is had")
        << parsed("kelda:///g/7/x") << "kelda:///g/7/x" << true << false << "g" << 7u;
    QTest::newRow("empty path") << parsed("kelda:") << "kelda:" << false << false << "" << 0u;
    QTest::newRow("drive after two slashes")
        << parsed("file://C:/data/x.bin") << "file:///C:/data/x.bin" << false << false << "C:" << 0u;
    QTest::newRow("host, not a drive") << parsed("file://server/x.bin") << "file://server/x.bin" << false << false
                                       << "x.bin" << 0u;
    QTest::newRow("made from a guid") << KeldaUrl::fromKeldaGuid(QStringLiteral("g")) << "kelda:///g" << true << false
                                      << "g" << 0u;
    QTest::newRow("made from ids beyond the int range")
        << KeldaUrl::fromKeldaIds(QStringLiteral("g"), 4000000000u) << "kelda:///g/4000000000" << true << true << "g"
        << 4000000000u;
}

void TestVocabulary::urlParts()
{
    QFETCH(QUrl, url);
    const KeldaUrl keldaUrl(url);
    QTEST(keldaUrl.toString(), "asText");
    QTEST(keldaUrl.isKeldaUrl(), "isKelda");
    QTEST(keldaUrl.hasKeldaFileId(), "hasFileId");
    QTEST(keldaUrl.toKeldaGuid(), "guid");
    QTEST(keldaUrl.toKeldaFileId(), "fileId");
}

void TestVocabulary::createPath()
{
    // 23:00 an hour west of UTC is already the next year in UTC: the time's own zone decides.
    const QDateTime time(QDate(2021, 12, 31), QTime(23, 0), Qt::OffsetFromUTC, -3600);
    QCOMPARE(CreatePath(QStringLiteral("base//archive/"), QStringLiteral("g"), QStringLiteral("n"), time),
             QDir::toNativeSeparators(QDir::currentPath() + QStringLiteral("/base/archive/2021/12/31/23/g/n/")));
}

void TestVocabulary::inRange_data()
{
    QTest::addColumn<QDateTime>("min");
    QTest::addColumn<QDateTime>("max");
    QTest::addColumn<QDateTime>("time");
    QTest::addColumn<bool>("expected");

    auto at = [](int hour) { return QDateTime(QDate(2018, 9, 19), QTime(hour, 0)); };
    const QDateTime open;
    QTest::newRow("open, null time") << open << open << open << true;
    QTest::newRow("lower only, equal") << at(10) << open << at(10) << true;
    QTest::newRow("lower only, before") << at(10) << open << at(9) << false;
    QTest::newRow("lower only, null time") << at(10) << open << open << false;
    QTest::newRow("upper only, equal") << open << at(10) << at(10) << true;
    QTest::newRow("upper only, after") << open << at(10) << at(11) << false;
    QTest::newRow("swapped, between") << at(12) << at(10) << at(11) << false;
}

void TestVocabulary::inRange()
{
    QFETCH(QDateTime, min);
    QFETCH(QDateTime, max);
    QFETCH(QDateTime, time);
    TimeRange range;
    range.SetMin(min);
    range.SetMax(max);
    QTEST(range.IsInRange(time), "expected");
}

void TestVocabulary::resetEmptiesEverything()
{
    FileQuery query;
    query.SetBackupTimeMin(QDateTime::currentDateTime());
    query.SetCreationTimeMax(QDateTime::currentDateTime());
    query.SetLifeCycleTimeMin(QDateTime::currentDateTime());
    query.SetModificationTimeMax(QDateTime::currentDateTime());
    query.AddFileType(FT_Image);
    query.SetLocationState(LS_Tovin);
    query.SetLockState(LOCK_Write);
    for (auto set :
         {&FileQuery::SetCommentSearchText, &FileQuery::SetCreatorSearchText, &FileQuery::SetDetailSearchText,
          &FileQuery::SetFileGroupSearchText, &FileQuery::SetLockUser, &FileQuery::SetReferencingApplication,
          &FileQuery::SetTeamMembershipSearchText, &FileQuery::SetVersionSearchText})
        (query.*set)(QStringLiteral("x"));
    query.Reset();

    QVERIFY(query.IsBackupTimeInRange(QDateTime()) && query.IsCreationTimeInRange(QDateTime()) &&
            query.IsLifeCycleInRange(QDateTime()) && query.IsModificationTimeInRange(QDateTime()));
    QCOMPARE(query.GetFileTypeListSize(), 0);
    QCOMPARE(query.GetLocationState(), LS_Undefined);
    QCOMPARE(query.GetLockState(), LOCK_Undefined);
    for (const QString &text : {query.GetCommentSearchText(), query.GetCreatorSearchText(), query.GetDetailSearchText(),
                                query.GetFileGroupSearchText(), query.GetLockUser(), query.GetReferencingApplication(),
                                query.GetTeamMembershipSearchText(), query.GetVersionSearchText()})
        QVERIFY(text.isEmpty() && !text.isNull());
}

void TestVocabulary::validDateTime_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QDateTime>("expected");

    const QDateTime withMs(QDate(2018, 9, 19), QTime(10, 0, 1, 250));
    const QDateTime withoutMs(QDate(2018, 9, 19), QTime(10, 0));
    QTest::newRow("blank, milliseconds") << "2018-09-19 10:00:01.250" << withMs;
    QTest::newRow("T, milliseconds") << "2018-09-19T10:00:01.250" << withMs;
    QTest::newRow("blank") << "2018-09-19 10:00:00" << withoutMs;
    QTest::newRow("T") << "2018-09-19T10:00:00" << withoutMs;
    QTest::newRow("zone designator") << "2018-09-19T10:00:00Z" << QDateTime();
    QTest::newRow("impossible date") << "2018-02-30 10:00:00" << QDateTime();
}

void TestVocabulary::validDateTime()
{
    QFETCH(QString, text);
    const QDateTime result = FileQuery::getValidDateTimeFromString(text);
    QTEST(result, "expected");
    QVERIFY(!result.isValid() || result.timeSpec() == Qt::LocalTime);
}

QTEST_GUILESS_MAIN(TestVocabulary)
#include "tst_vocabulary.moc"
