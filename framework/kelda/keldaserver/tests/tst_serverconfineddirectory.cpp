#include "confineddirectory.h"
#include "groupmover.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLocalServer>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

using namespace Kelda;

// The confined walk without a server: links at every level, files that are
// no regular files, exclusive creation, and the mover's use of it.
class TestServerConfinedDirectory : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void linksOnTheWayAreRefused_data();
    void linksOnTheWayAreRefused();
    void onlyRegularFilesAreRead_data();
    void onlyRegularFilesAreRead();
    void nothingIsOverwritten_data();
    void nothingIsOverwritten();
    void removalStaysInside();
    void moveCarriesRegisteredFilesOnly_data();
    void moveCarriesRegisteredFilesOnly();

private:
    QString root(const QString &relative = QString()) const
    {
        return m_dir.filePath(QStringLiteral("root/") + relative);
    }
    QString outside(const QString &relative = QString()) const
    {
        return m_dir.filePath(QStringLiteral("outside/") + relative);
    }
    QStringList outsideEntries(const QString &relative = QString()) const
    {
        return QDir(outside(relative)).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System);
    }
    static bool write(const QString &path, const QByteArray &content)
    {
        QFile file(path);
        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
    }
    static QByteArray read(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
    }
    ConfinedDirectory open(const QString &relative, ConfinedDirectory::Creation creation, QString *error) const
    {
        return ConfinedDirectory::open(root(), root(relative), creation, error);
    }

    QTemporaryDir m_dir;
};

void TestServerConfinedDirectory::init()
{
    QVERIFY(QDir(root()).removeRecursively() && QDir(outside()).removeRecursively());
    QVERIFY(QDir().mkpath(root(QStringLiteral("a/b/c"))) && QDir().mkpath(outside(QStringLiteral("b/c"))));
    QVERIFY(write(outside(QStringLiteral("secret")), "secret") && write(root(QStringLiteral("a/b/c/f")), "mine"));
}

void TestServerConfinedDirectory::linksOnTheWayAreRefused_data()
{
    QTest::addColumn<QString>("replaced"); // below the root, becomes a link to the outside folder
    QTest::addColumn<QString>("opened");
    QTest::newRow("first level") << QStringLiteral("a") << QStringLiteral("a/b/c");
    QTest::newRow("middle level") << QStringLiteral("a/b") << QStringLiteral("a/b/c");
    QTest::newRow("last level") << QStringLiteral("a/b/c") << QStringLiteral("a/b/c");
    QTest::newRow("created below a link") << QStringLiteral("a/b") << QStringLiteral("a/b/new/deeper");
}

void TestServerConfinedDirectory::linksOnTheWayAreRefused()
{
    QFETCH(QString, replaced);
    QFETCH(QString, opened);
    QVERIFY(QDir(root(replaced)).removeRecursively());
    QVERIFY(QFile::link(outside(), root(replaced)));
    for (const auto creation : {ConfinedDirectory::Creation::Existing, ConfinedDirectory::Creation::CreateMissing}) {
        QString error;
        const ConfinedDirectory directory = open(opened, creation, &error);
        QVERIFY(!directory.isOpen());
        QVERIFY2(error.contains(QLatin1String("symbolic link")), qPrintable(error));
    }
    QCOMPARE(outsideEntries(), (QStringList{QStringLiteral("b"), QStringLiteral("secret")}));
    QCOMPARE(outsideEntries(QStringLiteral("b")), QStringList{QStringLiteral("c")});

    QString error;
    for (const QString &elsewhere : {outside(), root(QStringLiteral("../outside"))})
        QVERIFY(!ConfinedDirectory::open(root(), elsewhere, ConfinedDirectory::Creation::Existing, &error).isOpen());
}

void TestServerConfinedDirectory::onlyRegularFilesAreRead_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("regular");
    QTest::addColumn<QByteArray>("content"); // empty: refused
    const auto row = [](const char *name, const QString &folder, const char *file, bool regular, const char *content) {
        QTest::newRow(name) << folder << QString::fromLatin1(file) << regular << QByteArray(content);
    };
    row("regular file", root(QStringLiteral("a/b/c")), "f", true, "mine");
    row("at the size limit", root(), "four", true, "1234");
    row("over the size limit", root(), "five", true, "");
    row("larger than one read", root(), "large", true, "");
    row("link to a file", root(), "link", false, "");
    row("FIFO without writer", root(), "fifo", false, "");
    row("socket", root(), "socket", false, "");
    row("device", QStringLiteral("/dev"), "zero", false, "");
    row("directory", root(), "a", false, "");
}

void TestServerConfinedDirectory::onlyRegularFilesAreRead()
{
    QFETCH(QString, folder);
    QFETCH(QString, name);
    QFETCH(bool, regular);
    QFETCH(QByteArray, content);
    QVERIFY(write(root(QStringLiteral("four")), "1234") && write(root(QStringLiteral("five")), "12345"));
    if (name == QLatin1String("large")) {
        QByteArray large(3 * 1024 * 1024 + 5, Qt::Uninitialized);
        for (int i = 0; i < large.size(); ++i)
            large[i] = char(i * 7 / 4096);
        QVERIFY(write(root(name), large));
    }
    QVERIFY(QFile::link(outside(QStringLiteral("secret")), root(QStringLiteral("link"))));
    QCOMPARE(::mkfifo(QFile::encodeName(root(QStringLiteral("fifo"))).constData(), 0600), 0);
    QLocalServer socket;
    QVERIFY(socket.listen(root(QStringLiteral("socket"))));

    QString error;
    const ConfinedDirectory directory =
        ConfinedDirectory::open(folder, folder, ConfinedDirectory::Creation::Existing, &error);
    QVERIFY2(directory.isOpen(), qPrintable(error));
    QElapsedTimer timer;
    timer.start();
    const std::optional<QByteArray> read = directory.readFile(name, 4, &error);
    QVERIFY(timer.elapsed() < 2000);
    QCOMPARE(read.value_or(QByteArray()), content);
    QCOMPARE(directory.checkRegularFile(name, &error), regular);
    // Digests read the same files, and only those, whatever their size.
    const std::optional<ConfinedDirectory::Digest> digest = directory.digestFile(name, &error);
    QCOMPARE(digest.has_value(), regular);
    if (regular) {
        const QByteArray whole = TestServerConfinedDirectory::read(directory.path() + QLatin1Char('/') + name);
        QCOMPARE(digest->sha256, QCryptographicHash::hash(whole, QCryptographicHash::Sha256));
        QCOMPARE(digest->size, qint64(whole.size()));
    }
    // Up to a size only: a larger file is left unread, which is no error.
    error.clear();
    qint64 size = -1;
    const std::optional<ConfinedDirectory::Digest> small = directory.digestSmallFile(name, 4, &size, &error);
    QCOMPARE(small.has_value(), !content.isEmpty());
    QCOMPARE(error.isEmpty(), regular);
    if (regular)
        QCOMPARE(size, digest->size);
    if (small)
        QCOMPARE(small->sha256, QCryptographicHash::hash(content, QCryptographicHash::Sha256));
    const std::atomic<bool> stopped{true};
    QVERIFY(!directory.digestFile(name, &error, ReadControl{&stopped, nullptr}));
    QVERIFY(timer.elapsed() < 2000);
}

void TestServerConfinedDirectory::nothingIsOverwritten_data()
{
    QTest::addColumn<QString>("existing"); // in the target folder a/b, before the copy of c/f
    QTest::newRow("regular file") << QStringLiteral("file");
    QTest::newRow("link to an outside file") << QStringLiteral("link");
}

void TestServerConfinedDirectory::nothingIsOverwritten()
{
    QFETCH(QString, existing);
    const QString target = root(QStringLiteral("a/b/f"));
    QVERIFY(existing == QLatin1String("file") ? write(target, "old")
                                              : QFile::link(outside(QStringLiteral("secret")), target));
    QString error;
    const ConfinedDirectory source = open(QStringLiteral("a/b/c"), ConfinedDirectory::Creation::Existing, &error);
    const ConfinedDirectory folder = open(QStringLiteral("a/b"), ConfinedDirectory::Creation::Existing, &error);
    QVERIFY(!source.copyFileTo(QStringLiteral("f"), folder, &error));
    QVERIFY(!folder.writeNewFile(QStringLiteral("f"), "new", &error));
    QVERIFY(!folder.createSubdirectory(QStringLiteral("f"), &error).isOpen());
    QCOMPARE(read(outside(QStringLiteral("secret"))), QByteArray("secret"));
    QCOMPARE(read(target), QByteArray(existing == QLatin1String("file") ? "old" : "secret"));

    // A removal takes a regular file only; a link stays, and so does its target.
    QCOMPARE(folder.removeFile(QStringLiteral("f"), &error), existing == QLatin1String("file"));
    QCOMPARE(QFileInfo(target).isSymLink(), existing == QLatin1String("link"));
    QCOMPARE(read(outside(QStringLiteral("secret"))), QByteArray("secret"));
}

void TestServerConfinedDirectory::removalStaysInside()
{
    QVERIFY(QDir().mkpath(root(QStringLiteral("a/b/g/empty/deeper"))));
    QVERIFY(QDir().mkpath(outside(QStringLiteral("empty"))));
    QVERIFY(QFile::link(outside(QStringLiteral("empty")), root(QStringLiteral("a/b/g/link"))));
    ConfinedDirectory::removeEmptyTree(root(), root(QStringLiteral("a/b/g")));
    QVERIFY(QFileInfo(root(QStringLiteral("a/b/g/link"))).isSymLink());
    QVERIFY(!QFileInfo::exists(root(QStringLiteral("a/b/g/empty"))));
    QVERIFY(QFileInfo(outside(QStringLiteral("empty"))).isDir());

    QVERIFY(QFile::remove(root(QStringLiteral("a/b/g/link"))) && QFile::remove(root(QStringLiteral("a/b/c/f"))));
    ConfinedDirectory::removeEmptyTree(root(), root(QStringLiteral("a/b")));
    QVERIFY(!QFileInfo::exists(root(QStringLiteral("a/b"))));
    QVERIFY(QFileInfo(root(QStringLiteral("a"))).isDir());
    ConfinedDirectory::removeEmptyTree(root(), root());
    QVERIFY(QFileInfo(root()).isDir());
}

void TestServerConfinedDirectory::moveCarriesRegisteredFilesOnly_data()
{
    QTest::addColumn<QString>("before"); // what an earlier run did, or what was planted
    QTest::addColumn<QByteArray>("recorded"); // the content f had when added; empty: never digested
    QTest::addColumn<bool>("moved");
    QTest::newRow("fresh") << QString() << QByteArray() << true;
    QTest::newRow("fresh, digest matches") << QString() << QByteArray("mine") << true;
    QTest::newRow("source differs from its digest") << QString() << QByteArray("mind") << false;
    QTest::newRow("resumed after a source went") << QStringLiteral("resumed") << QByteArray() << true;
    QTest::newRow("resumed, the carried copy rotted") << QStringLiteral("resumed") << QByteArray("mind") << false;
    QTest::newRow("a source replaced by a link") << QStringLiteral("link") << QByteArray() << false;
    QTest::newRow("a source missing everywhere") << QStringLiteral("missing") << QByteArray() << false;
}

void TestServerConfinedDirectory::moveCarriesRegisteredFilesOnly()
{
    QFETCH(QString, before);
    QFETCH(QByteArray, recorded);
    QFETCH(bool, moved);
    const QString from = root(QStringLiteral("a/b/c/"));
    const QString to = outside(QStringLiteral("nas/g/"));
    QVERIFY(write(from + QStringLiteral("g"), "second") && write(from + QStringLiteral("stranger"), "stays"));
    QVERIFY(QDir().mkpath(to));
    if (before == QLatin1String("resumed")) {
        QVERIFY(QFile::rename(from + QStringLiteral("f"), to + QStringLiteral("f")));
        QVERIFY(write(to + QStringLiteral("g"), "se"));
    } else if (!before.isEmpty()) {
        QVERIFY(QFile::remove(from + QStringLiteral("g")));
    }
    if (before == QLatin1String("link"))
        QVERIFY(QFile::link(outside(QStringLiteral("secret")), from + QStringLiteral("g")));

    MoveOrder order{QStringLiteral("g"),
                    from,
                    to,
                    {QStringLiteral("f"), QStringLiteral("g")},
                    root(),
                    outside(QStringLiteral("nas")),
                    {}};
    // What AddFile recorded: the file as it is, or as it was before a bit
    // rotted behind the server's back.
    if (!recorded.isEmpty())
        order.digests.insert(QStringLiteral("f"), QCryptographicHash::hash(recorded, QCryptographicHash::Sha256));
    QCOMPARE(GroupMover::moveGroup(order, nullptr, nullptr), moved);
    // A failed move takes back only its own copies: what an earlier run
    // carried stays where it went.
    const bool carriedBefore = before == QLatin1String("resumed");
    QCOMPARE(read(to + QStringLiteral("f")), moved || carriedBefore ? QByteArray("mine") : QByteArray("<missing>"));
    QCOMPARE(read(to + QStringLiteral("g")),
             moved               ? QByteArray("second")
                 : carriedBefore ? QByteArray("se")
                                 : QByteArray("<missing>"));
    QCOMPARE(QFileInfo::exists(from + QStringLiteral("f")), !moved && !carriedBefore);
    QVERIFY(!QFileInfo::exists(to + QStringLiteral("stranger")));
    QCOMPARE(read(from + QStringLiteral("stranger")), QByteArray("stays"));
    QCOMPARE(read(outside(QStringLiteral("secret"))), QByteArray("secret"));
}

QTEST_GUILESS_MAIN(TestServerConfinedDirectory)
#include "tst_serverconfineddirectory.moc"
