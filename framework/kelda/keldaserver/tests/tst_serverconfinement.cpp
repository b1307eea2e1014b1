#include "e2ehelpers.h"
#include "filegroupdata.h"
#include "keldaclient.h"
#include "keldaxml.h"
#include "rawclient.h"
#include "serverprocess.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

using namespace Kelda;
using namespace E2e;

// Path attacks against the real server through raw requests: whatever a
// client names or plants, nothing outside the base path, the network
// storage and the exchange folder changes (a sentinel folder stands for
// the outside), and the victims' files stay intact and can be requested.
class TestServerConfinement : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void createPath_data();
    void createPath();
    void deleteRemovesOnlyRegisteredFiles_data();
    void deleteRemovesOnlyRegisteredFiles();
    void plantedLinks_data();
    void plantedLinks();
    void importPath_data();
    void importPath();
    void exportPath_data();
    void exportPath();
    void outsideAnswersAlike();
    void exportNeverOverwrites();

private:
    QString base(const QString &relative) const { return m_server.basePath() + QLatin1Char('/') + relative; }
    QString exchange(const QString &relative) const { return base(QStringLiteral("exchange/") + relative); }
    QString outside(const QString &relative) const { return m_outside.filePath(relative); }
    // The way from the exchange folder (one below the base path) to path.
    QString up(const QString &path) const { return QDir(exchange(QString())).relativeFilePath(path); }
    int errorOf(const QString &command, const QString &children) { return m_raw.ask(command, children).error; }
    QString makeGroup(const QString &directoryPattern);
    bool requestable(const QString &guid);
    bool exists(const QString &guid);
    static QString writeArchive(const QString &directory);
    QMap<QString, QByteArray> snapshot() const;

    ServerProcess m_server;
    QTemporaryDir m_outside;
    RawClient m_raw;
    std::unique_ptr<KeldaClient> m_client;
    QString m_victim;
    unsigned int m_victimFile = 0;
    QString m_nested; // in BASE/<m_outer>/<m_nested>
    QString m_outer; // no group yet
    QString m_outsideArchive; // the GUID described in the sentinel's archive
    QString m_large; // described in an oversized description
    QMap<QString, QByteArray> m_before;
};

void TestServerConfinement::initTestCase()
{
    m_server.setExtraArguments({QStringLiteral("--max-import-bytes"), QStringLiteral("4096")});
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    QVERIFY(m_raw.connectTo(m_server.port()));
    m_client = connectClient(m_server.port(), QStringLiteral("victim"));
    m_victim = createGroupWithFile(*m_client, QStringLiteral("Victim"), FT_Image, "victim", &m_victimFile);
    QVERIFY(!m_victim.isEmpty());
    m_outer = KeldaClient::CreateGuid();
    m_nested = makeGroup(m_outer + QStringLiteral("/%1"));
    QVERIFY(!m_nested.isEmpty());
    QVERIFY(writeFile(outside(QStringLiteral("secret")), "secret"));
    QVERIFY(QDir().mkpath(outside(QStringLiteral("bait"))) && QDir().mkpath(outside(QStringLiteral("empty"))));
    QVERIFY(writeFile(outside(QStringLiteral("bait/data.bin")), "bait"));
    m_outsideArchive = writeArchive(outside(QStringLiteral("archive")));
    // Planted in the exchange folder: links out, a FIFO, an oversized description.
    QVERIFY(QFile::link(outside(QStringLiteral("archive")), exchange(QStringLiteral("linked"))));
    QVERIFY(QFile::link(outside(QStringLiteral("empty")), exchange(QStringLiteral("out"))));
    QCOMPARE(::mkfifo(QFile::encodeName(exchange(QStringLiteral("fifo.fgdesc"))).constData(), 0600), 0);
    m_large = writeArchive(exchange(QStringLiteral("large")));
    QFile padded(exchange(QStringLiteral("large/Planted_%1.fgdesc").arg(m_large)));
    QVERIFY(padded.open(QIODevice::Append) && padded.write(QByteArray(5000, ' ')) == 5000);
}

void TestServerConfinement::init()
{
    m_before = snapshot();
}

void TestServerConfinement::cleanup()
{
    const QMap<QString, QByteArray> after = snapshot();
    QCOMPARE(after.keys(), m_before.keys());
    QCOMPARE(after, m_before);
    QVERIFY(requestable(m_nested));
    const QString path = m_client->RequestFile(m_victimFile, m_victim, LOCK_Read);
    QCOMPARE(readFile(path), QByteArray("victim"));
    QCOMPARE(closeFile(*m_client, m_victimFile, m_victim), int(KE_NoError));
}

// A group with the file data.bin (its GUID as content) in the directory
// BASE/pattern, where %1 stands for the GUID.
QString TestServerConfinement::makeGroup(const QString &directoryPattern)
{
    const QString guid = KeldaClient::CreateGuid();
    const QString directory = base(directoryPattern.arg(guid));
    const bool made = errorOf(Tag::CreateFileGroup,
                              QStringLiteral("<m:Guid>%1</m:Guid><m:FileType>1</m:FileType><m:Path>%2</m:Path>")
                                  .arg(guid, directory)) == 0 &&
        writeFile(directory + QStringLiteral("/data.bin"), guid.toUtf8()) &&
        errorOf(
            Tag::AddFile,
            QStringLiteral("<m:Guid>%1</m:Guid><m:FileName>data.bin</m:FileName><m:FileId>1</m:FileId>").arg(guid)) ==
            0;
    return made ? guid : QString();
}

bool TestServerConfinement::requestable(const QString &guid)
{
    const QString children =
        QStringLiteral("<m:Guid>%1</m:Guid><m:FileId>1</m:FileId><m:UserName>checker</m:UserName>");
    const ReplyFields reply = m_raw.ask(Tag::RequestFile, children.arg(guid));
    m_raw.ask(Tag::CloseFile, children.arg(guid));
    return reply.error == 0 && readFile(reply.value(Tag::Path)) == guid.toUtf8();
}

bool TestServerConfinement::exists(const QString &guid)
{
    return m_raw.ask(Tag::CheckFileGroupExists, element(Tag::Guid, guid)).value(Tag::Exists) == QLatin1String("true");
}

// An exported archive of a group no server knows; returns its GUID.
QString TestServerConfinement::writeArchive(const QString &directory)
{
    FileGroupData record;
    record.setGuid(KeldaClient::CreateGuid());
    record.setFileGroupName(QStringLiteral("Planted"));
    record.setFileList({{QStringLiteral("data.bin"), 1}});
    if (!QDir().mkpath(directory + QLatin1Char('/') + record.getGuid()))
        return QString();
    record.toXmlFileForExport(directory);
    return writeFile(QStringLiteral("%1/%2/data.bin").arg(directory, record.getGuid()), "planted") ? record.getGuid()
                                                                                                   : QString();
}

// Every entry below the sentinel folder, links not followed: its kind,
// size, time and content.
QMap<QString, QByteArray> TestServerConfinement::snapshot() const
{
    QMap<QString, QByteArray> entries;
    QDirIterator it(m_outside.path(), QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        entries.insert(info.filePath(),
                       QByteArray::number(info.size()) + ' ' +
                           QByteArray::number(info.lastModified().toMSecsSinceEpoch()) + ' ' +
                           QCryptographicHash::hash(readFile(info.filePath()), QCryptographicHash::Sha256).toHex());
    }
    return entries;
}

void TestServerConfinement::createPath_data()
{
    QTest::addColumn<QString>("guid"); // empty: a fresh one
    QTest::addColumn<QString>("path"); // %1 stands for the GUID
    QTest::addColumn<int>("error");
    const QString year = QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyy"));
    const QString fresh;
    QTest::newRow("accepted") << fresh << base(QStringLiteral("own/%1/name")) << int(KE_NoError);
    QTest::newRow("folder of other groups") << fresh << base(year) << int(KE_CreatePathFailed);
    QTest::newRow("without its GUID") << fresh << base(QStringLiteral("plain")) << int(KE_CreatePathFailed);
    QTest::newRow("outside the base path") << fresh << outside(QStringLiteral("%1")) << int(KE_CreatePathFailed);
    QTest::newRow("up and out") << fresh << base(QStringLiteral("%1/")) + up(outside(QStringLiteral("%1")))
                                << int(KE_CreatePathFailed);
    QTest::newRow("in network storage") << fresh << base(QStringLiteral("nas/%1")) << int(KE_CreatePathFailed);
    QTest::newRow("in the exchange folder") << fresh << exchange(QStringLiteral("%1")) << int(KE_CreatePathFailed);
    QTest::newRow("inside another group")
        << fresh << base(m_outer + QLatin1Char('/') + m_nested + QStringLiteral("/%1")) << int(KE_CreatePathFailed);
    QTest::newRow("around another group") << m_outer << base(QStringLiteral("%1")) << int(KE_CreatePathFailed);
}

void TestServerConfinement::createPath()
{
    QFETCH(QString, guid);
    QFETCH(QString, path);
    QFETCH(int, error);
    if (guid.isEmpty())
        guid = KeldaClient::CreateGuid();
    path.replace(QLatin1String("%1"), guid);
    const bool existed = QFileInfo::exists(path);
    QCOMPARE(
        errorOf(Tag::CreateFileGroup,
                QStringLiteral("<m:Guid>%1</m:Guid><m:FileType>1</m:FileType><m:Path>%2</m:Path>").arg(guid, path)),
        error);
    QCOMPARE(QFileInfo::exists(path), existed || error == KE_NoError);
    QCOMPARE(exists(guid), error == KE_NoError);
    // Had it been created, deleting it must not reach beyond it.
    QCOMPARE(errorOf(Tag::DeleteFileGroup, element(Tag::Guid, guid)),
             error == KE_NoError ? int(KE_NoError) : int(KE_GuidNotFound));
}

void TestServerConfinement::deleteRemovesOnlyRegisteredFiles_data()
{
    QTest::addColumn<bool>("shallow");
    QTest::addColumn<bool>("unregistered"); // a file the group never registered lies beside its own
    QTest::newRow("registered files only") << false << false;
    QTest::newRow("beside an unregistered file") << false << true;
    QTest::newRow("shallow") << true << false;
}

void TestServerConfinement::deleteRemovesOnlyRegisteredFiles()
{
    QFETCH(bool, shallow);
    QFETCH(bool, unregistered);
    const QString guid = makeGroup(QStringLiteral("deleted/%1/sub"));
    const QString directory = base(QStringLiteral("deleted/%1/sub").arg(guid));
    QVERIFY(QDir().mkpath(directory + QStringLiteral("/empty/deeper")));
    QVERIFY(!unregistered || writeFile(directory + QStringLiteral("/stranger"), "stays"));
    const QString children = QStringLiteral("<m:Guid>%1</m:Guid><m:ShallowDelete>%2</m:ShallowDelete>");
    QCOMPARE(errorOf(Tag::DeleteFileGroup,
                     children.arg(guid, shallow ? QStringLiteral("true") : QStringLiteral("false"))),
             int(KE_NoError));
    QTRY_COMPARE_WITH_TIMEOUT(QFileInfo::exists(directory + QStringLiteral("/data.bin")), shallow, Wait);
    QTRY_COMPARE_WITH_TIMEOUT(QFileInfo::exists(directory), shallow || unregistered, Wait);
    QCOMPARE(QFileInfo::exists(directory + QStringLiteral("/stranger")), unregistered);
    QVERIFY(QFileInfo(base(QStringLiteral("deleted/") + guid)).isDir());
}

void TestServerConfinement::plantedLinks_data()
{
    QTest::addColumn<bool>("folderLink"); // else the file becomes a link
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("error");
    for (const bool folder : {true, false}) {
        const char *what = folder ? "folder" : "file";
        QTest::addRow("%s, DeleteFile", what) << folder << QString(Tag::DeleteFile) << int(KE_DeleteFileFailed);
        QTest::addRow("%s, DeleteFileGroup", what)
            << folder << QString(Tag::DeleteFileGroup) << int(KE_DeleteFileGroupFailed);
        QTest::addRow("%s, RequestFile", what) << folder << QString(Tag::RequestFile) << int(KE_OpenFileFailed);
        QTest::addRow("%s, MoveToNas", what) << folder << QString(Tag::MoveToNas) << int(KE_MoveFileGroupFailed);
    }
}

void TestServerConfinement::plantedLinks()
{
    QFETCH(bool, folderLink);
    QFETCH(QString, command);
    QFETCH(int, error);
    const QString guid = makeGroup(QStringLiteral("linked/%1"));
    const QString directory = base(QStringLiteral("linked/") + guid);
    const QString replaced = folderLink ? directory : directory + QStringLiteral("/data.bin");
    QVERIFY(folderLink ? QDir(directory).removeRecursively() : QFile::remove(replaced));
    QVERIFY(QFile::link(folderLink ? outside(QStringLiteral("bait")) : outside(QStringLiteral("secret")), replaced));
    QCOMPARE(
        errorOf(command,
                QStringLiteral("<m:Guid>%1</m:Guid><m:FileId>1</m:FileId><m:UserName>attacker</m:UserName>").arg(guid)),
        error);
    QVERIFY(exists(guid));
    QCOMPARE(m_raw.ask(Tag::QueryLocationStateProgress, element(Tag::Guid, guid)).value(Tag::LocationState),
             QString::number(LS_Local));
    QVERIFY(QFileInfo(replaced).isSymLink());
}

void TestServerConfinement::importPath_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("error");
    QTest::addColumn<bool>("imported"); // whether the planted group arrives
    QTest::newRow("accepted, relative") << QStringLiteral("good") << int(KE_NoError) << true;
    QTest::newRow("device outside") << QStringLiteral("/dev/zero") << int(KE_CreatePathFailed) << false;
    QTest::newRow("archive outside") << outside(QStringLiteral("archive")) << int(KE_CreatePathFailed) << false;
    QTest::newRow("relative, up and out")
        << up(outside(QStringLiteral("archive"))) << int(KE_CreatePathFailed) << false;
    QTest::newRow("link to the archive outside") << QStringLiteral("linked") << int(KE_ImportArchiveFailed) << false;
    QTest::newRow("FIFO") << QStringLiteral("fifo.fgdesc") << int(KE_ImportArchiveFailed) << false;
    QTest::newRow("description too large") << QStringLiteral("large") << int(KE_ImportArchiveFailed) << false;
}

void TestServerConfinement::importPath()
{
    QFETCH(QString, path);
    QFETCH(int, error);
    QFETCH(bool, imported);
    const QString planted = writeArchive(exchange(QStringLiteral("good")));
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(errorOf(Tag::ImportArchive, element(Tag::Path, path)), error);
    QVERIFY(timer.elapsed() < 2000);
    QCOMPARE(exists(planted), imported);
    QVERIFY(!exists(m_outsideArchive) && !exists(m_large));
    QVERIFY(QDir(exchange(QStringLiteral("good"))).removeRecursively());
}

void TestServerConfinement::exportPath_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("error");
    QTest::newRow("accepted, relative") << QStringLiteral("exported") << int(KE_NoError);
    QTest::newRow("absolute outside") << outside(QStringLiteral("exported")) << int(KE_CreatePathFailed);
    QTest::newRow("relative, up and out") << up(outside(QStringLiteral("exported"))) << int(KE_CreatePathFailed);
    QTest::newRow("through a link") << QStringLiteral("out/exported") << int(KE_ExportArchiveFailed);
}

void TestServerConfinement::exportPath()
{
    QFETCH(QString, path);
    QFETCH(int, error);
    const QString children = QStringLiteral("<m:Path>%1</m:Path><m:Guid>%2</m:Guid>").arg(path, m_nested);
    QCOMPARE(errorOf(Tag::ExportArchive, children), error);
    QCOMPARE(QFileInfo::exists(exchange(QStringLiteral("exported/%1/data.bin").arg(m_nested))), error == KE_NoError);
    QVERIFY(QDir(exchange(QStringLiteral("exported"))).removeRecursively());
}

void TestServerConfinement::outsideAnswersAlike()
{
    for (const QLatin1String command : {Tag::ImportArchive, Tag::ExportArchive}) {
        const QString children = QStringLiteral("<m:Path>%1</m:Path><m:Guid>") + m_nested + QStringLiteral("</m:Guid>");
        const QByteArray present = m_raw.exchange(command, children.arg(outside(QStringLiteral("archive"))));
        QCOMPARE(ReplyFields::read(present).error, int(KE_CreatePathFailed));
        QCOMPARE(m_raw.exchange(command, children.arg(outside(QStringLiteral("missing")))), present);
    }
}

void TestServerConfinement::exportNeverOverwrites()
{
    const QString children = QStringLiteral("<m:Path>twice</m:Path><m:Guid>%1</m:Guid>").arg(m_nested);
    QCOMPARE(errorOf(Tag::ExportArchive, children), int(KE_NoError));
    const QString copy = exchange(QStringLiteral("twice/%1/data.bin").arg(m_nested));
    QVERIFY(writeFile(copy, "edited after the export"));
    QCOMPARE(errorOf(Tag::ExportArchive, children), int(KE_ExportArchiveFailed));
    QCOMPARE(readFile(copy), QByteArray("edited after the export"));
    // The description and the manifest of the first export, nothing more.
    QCOMPARE(QDir(exchange(QStringLiteral("twice"))).entryList(QDir::Files).size(), 2);
}

QTEST_GUILESS_MAIN(TestServerConfinement)
#include "tst_serverconfinement.moc"
