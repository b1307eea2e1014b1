#include "e2ehelpers.h"
#include "keldaclient.h"
#include "serverprocess.h"

#include <QDeadlineTimer>
#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <vector>

using namespace Kelda;
using namespace E2e;

namespace {

struct StoredGroup
{
    QString guid;
    unsigned int fileId = 0;
    QByteArray content;
};

int runTool(const QStringList &arguments)
{
    QProcess tool;
    tool.setProcessChannelMode(QProcess::ForwardedChannels);
    tool.start(ServerProcess::programPath(), arguments);
    if (!tool.waitForFinished(Wait) || tool.exitStatus() != QProcess::NormalExit)
        return -1;
    return tool.exitCode();
}

QString firstStoredFile(const QString &backup)
{
    QDirIterator it(backup + QStringLiteral("/files"), QDir::Files, QDirIterator::Subdirectories);
    return it.hasNext() ? it.next() : QString();
}

bool rewriteManifest(const QString &backup, const QString &firstPath)
{
    QFile file(backup + QStringLiteral("/manifest.json"));
    if (!file.open(QIODevice::ReadOnly))
        return false;
    QJsonObject root = QJsonDocument::fromJson(file.readAll()).object();
    file.close();
    QJsonArray files = root.value(QStringLiteral("files")).toArray();
    QJsonObject first = files.at(0).toObject();
    first.insert(QStringLiteral("path"), firstPath);
    files.replace(0, first);
    root.insert(QStringLiteral("files"), files);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(QJsonDocument(root).toJson()) > 0;
}

} // namespace

// keldaserver backup and restore, against the real program: a backup taken
// while clients write holds every change answered before it started, and a
// damaged backup is refused before anything is written.
class TestServerBackup : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void keepsWhatWasAnsweredBeforeTheBackup();
    void refusesDamagedBackups_data();
    void refusesDamagedBackups();

private:
    QTemporaryDir m_small;
};

void TestServerBackup::initTestCase()
{
    if (ServerProcess::usesPostgres())
        QSKIP("backup and restore work on SQLite archives; PostgreSQL has pg_dump");
    ServerProcess server(m_small.path());
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    auto client = connectClient(server.port(), QStringLiteral("alice"));
    unsigned int fileId = 0;
    QVERIFY(!createGroupWithFile(*client, QStringLiteral("Small"), FT_Image, "small", &fileId).isEmpty());
    client.reset();
    server.stop();
}

void TestServerBackup::keepsWhatWasAnsweredBeforeTheBackup()
{
    QTemporaryDir work;
    const QString archive = work.filePath(QStringLiteral("archive"));
    const QString backup = work.filePath(QStringLiteral("backup"));
    const QString restored = work.filePath(QStringLiteral("restored"));
    auto server = std::make_unique<ServerProcess>(archive);
    QVERIFY2(server->start(), qPrintable(server->errorString()));
    std::vector<std::unique_ptr<KeldaClient>> clients;
    for (const char *user : {"alice", "bob", "carol"}) {
        clients.push_back(connectClient(server->port(), QString::fromLatin1(user)));
        QVERIFY(clients.back()->IsConnected());
    }
    int made = 0;
    const auto write = [&](std::vector<StoredGroup> *into) {
        StoredGroup group;
        group.content = QByteArray(256 * 1024, char('a' + made % 26)) + QByteArray::number(made);
        group.guid = createGroupWithFile(*clients.at(size_t(made) % clients.size()),
                                         QStringLiteral("Group %1").arg(made), FT_Image, group.content, &group.fileId);
        ++made;
        if (group.guid.isEmpty())
            return false;
        into->push_back(group);
        return true;
    };
    std::vector<StoredGroup> answered;
    for (int i = 0; i < 24; ++i)
        QVERIFY(write(&answered));

    QProcess backupTool;
    backupTool.setProcessChannelMode(QProcess::ForwardedChannels);
    backupTool.start(ServerProcess::programPath(),
                     {QStringLiteral("backup"), QStringLiteral("--base-path"), archive, QStringLiteral("--to"),
                      backup});
    QVERIFY(backupTool.waitForStarted(Wait));
    std::vector<StoredGroup> meanwhile;
    QDeadlineTimer deadline(Wait);
    while (!backupTool.waitForFinished(0) && !deadline.hasExpired())
        QVERIFY(write(&meanwhile));
    QVERIFY(backupTool.state() == QProcess::NotRunning || backupTool.waitForFinished(Wait));
    QCOMPARE(backupTool.exitStatus(), QProcess::NormalExit);
    QCOMPARE(backupTool.exitCode(), 0);
    clients.clear();
    server.reset();
    // Nothing of the restored archive may come from the original.
    QVERIFY(QDir(archive).removeRecursively());

    QCOMPARE(runTool({QStringLiteral("restore"), QStringLiteral("--from"), backup, QStringLiteral("--base-path"),
                      restored}),
             0);
    ServerProcess again(restored);
    QVERIFY2(again.start(), qPrintable(again.errorString()));
    auto reader = connectClient(again.port(), QStringLiteral("alice"));
    for (const StoredGroup &group : answered) {
        const QString path = reader->RequestFile(group.fileId, group.guid, LOCK_Read);
        QVERIFY2(path.startsWith(restored + QLatin1Char('/')), qPrintable(group.guid + QStringLiteral(": ") + path));
        QCOMPARE(readFile(path), group.content);
    }
}

void TestServerBackup::refusesDamagedBackups_data()
{
    QTest::addColumn<QString>("damage");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("file changed") << QStringLiteral("change file") << 65;
    QTest::newRow("file missing") << QStringLiteral("remove file") << 65;
    QTest::newRow("database changed") << QStringLiteral("change database") << 65;
    QTest::newRow("path leaves its root") << QStringLiteral("path above") << 65;
    QTest::newRow("no manifest") << QStringLiteral("remove manifest") << 65;
    QTest::newRow("database at the target") << QStringLiteral("occupy target") << 64;
}

void TestServerBackup::refusesDamagedBackups()
{
    QFETCH(QString, damage);
    QFETCH(int, exitCode);
    QTemporaryDir work;
    const QString backup = work.filePath(QStringLiteral("backup"));
    const QString target = work.filePath(QStringLiteral("target"));
    QCOMPARE(runTool({QStringLiteral("backup"), QStringLiteral("--base-path"), m_small.path(), QStringLiteral("--to"),
                      backup}),
             0);
    const QString stored = firstStoredFile(backup);
    QVERIFY(!stored.isEmpty());
    const QString database = backup + QStringLiteral("/database.sqlite");
    QByteArray databaseBytes = readFile(database);
    if (damage == QLatin1String("change file")) {
        QVERIFY(writeFile(stored, readFile(stored) + 'x'));
    } else if (damage == QLatin1String("remove file")) {
        QVERIFY(QFile::remove(stored));
    } else if (damage == QLatin1String("change database")) {
        databaseBytes[databaseBytes.size() / 2] = char(databaseBytes.at(databaseBytes.size() / 2) ^ 1);
        QVERIFY(writeFile(database, databaseBytes));
    } else if (damage == QLatin1String("path above")) {
        QVERIFY(rewriteManifest(backup, QStringLiteral("../../escaped")));
    } else if (damage == QLatin1String("remove manifest")) {
        QVERIFY(QFile::remove(backup + QStringLiteral("/manifest.json")));
    } else {
        QVERIFY(QDir().mkpath(target));
        QVERIFY(writeFile(target + QStringLiteral("/keldaserver.sqlite"), "in use"));
    }

    QCOMPARE(runTool(
                 {QStringLiteral("restore"), QStringLiteral("--from"), backup, QStringLiteral("--base-path"), target}),
             exitCode);
    QDirIterator written(work.path(), QDir::Files, QDirIterator::Subdirectories);
    while (written.hasNext()) {
        const QString path = written.next();
        QVERIFY2(path.startsWith(backup + QLatin1Char('/')) || path == target + QStringLiteral("/keldaserver.sqlite"),
                 qPrintable(path));
    }
    if (QFile::exists(target + QStringLiteral("/keldaserver.sqlite")))
        QCOMPARE(readFile(target + QStringLiteral("/keldaserver.sqlite")), QByteArray("in use"));
}

QTEST_GUILESS_MAIN(TestServerBackup)
#include "tst_serverbackup.moc"
