#include "putplan.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

using namespace KeldaCli;

Q_DECLARE_METATYPE(PutPlan::Layout)

// What put would store, from local files alone.
class PutPlanTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void plans_data();
    void plans();
    void clashesAreCut();

private:
    QString path(const QString &relative) const { return m_dir.filePath(relative); }

    QTemporaryDir m_dir;
};

void PutPlanTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    for (const char *file : {"tree/a.txt", "tree/sub/b.txt", "tree/sub/deeper/.c", "other/a.txt", "loose.txt"}) {
        QVERIFY(QDir().mkpath(QFileInfo(path(QLatin1String(file))).path()));
        QFile out(path(QLatin1String(file)));
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(file);
    }
    QVERIFY(QDir().mkpath(path(QStringLiteral("tree/empty"))));
    QVERIFY(QDir().mkpath(path(QStringLiteral("void"))));
    // A link back up would make the walk endless if it were followed.
    QVERIFY(QFile::link(path(QStringLiteral("tree")), path(QStringLiteral("tree/sub/loop"))));
}

void PutPlanTest::plans_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<PutPlan::Layout>("layout");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("errorCode");
    // "group: file names" per group, in order.
    QTest::addColumn<QStringList>("groups");
    const auto one = PutPlan::Layout::OneGroup;
    const auto perFolder = PutPlan::Layout::GroupPerFolder;
    const auto files = PutPlan::Layout::Files;
    QTest::newRow("files keep their order")
        << QStringList{QStringLiteral("loose.txt"), QStringLiteral("tree/a.txt")} << files << QString() << 0
        << QStringList{QStringLiteral("loose.txt: loose.txt a.txt")};
    QTest::newRow("folder needs -r") << QStringList{QStringLiteral("tree")} << files << QString() << 2 << QStringList();
    QTest::newRow("tree, links not followed") << QStringList{QStringLiteral("tree")} << one << QString() << 0
                                              << QStringList{QStringLiteral("tree: a.txt b.txt .c")};
    QTest::newRow("file and folder in one group")
        << QStringList{QStringLiteral("loose.txt"), QStringLiteral("tree/sub")} << one << QStringLiteral("mixed") << 0
        << QStringList{QStringLiteral("mixed: loose.txt b.txt .c")};
    QTest::newRow("two folders clash") << QStringList{QStringLiteral("tree"), QStringLiteral("other")} << one
                                       << QString() << 2 << QStringList();
    QTest::newRow("per folder, empty ones left out")
        << QStringList{QStringLiteral("tree")} << perFolder << QString() << 0
        << QStringList{QStringLiteral("tree: a.txt"), QStringLiteral("tree/sub: b.txt"),
                       QStringLiteral("tree/sub/deeper: .c")};
    QTest::newRow("per folder wants folders")
        << QStringList{QStringLiteral("loose.txt")} << perFolder << QString() << 2 << QStringList();
    QTest::newRow("nothing to store") << QStringList{QStringLiteral("void")} << one << QString() << 2 << QStringList();
    QTest::newRow("missing file") << QStringList{QStringLiteral("gone.txt")} << files << QString() << 5
                                  << QStringList();
}

void PutPlanTest::plans()
{
    QFETCH(QStringList, arguments);
    QFETCH(PutPlan::Layout, layout);
    QFETCH(QString, name);
    QFETCH(int, errorCode);
    QFETCH(QStringList, groups);
    QVERIFY(QDir::setCurrent(m_dir.path()));
    PutPlan plan;
    QCOMPARE(plan.build(arguments, layout, name), errorCode == 0);
    QCOMPARE(int(plan.errorCode()), errorCode);
    QStringList planned;
    for (const PutPlan::Group &group : plan.groups()) {
        QStringList names;
        qint64 bytes = 0;
        for (const PutPlan::File &file : group.files) {
            names.append(file.name);
            bytes += QFileInfo(file.source).size();
        }
        QCOMPARE(group.bytes, bytes);
        planned.append(group.name + QStringLiteral(": ") + names.join(QLatin1Char(' ')));
    }
    QCOMPARE(planned, groups);
}

// A folder given by mistake can clash in every name; the message stays short.
void PutPlanTest::clashesAreCut()
{
    QTemporaryDir dir;
    for (const QString &copy : {QStringLiteral("one"), QStringLiteral("two")}) {
        QVERIFY(QDir(dir.path()).mkdir(copy));
        for (int i = 0; i < 25; ++i)
            QVERIFY(QFile(QStringLiteral("%1/%2/f%3").arg(dir.path(), copy).arg(i)).open(QIODevice::WriteOnly));
    }
    PutPlan plan;
    QVERIFY(!plan.build({dir.path()}, PutPlan::Layout::OneGroup, QString()));
    QCOMPARE(plan.errorText().count(QLatin1Char('\n')), 11);
    QVERIFY(plan.errorText().endsWith(QStringLiteral("and 15 more names")));
}

QTEST_GUILESS_MAIN(PutPlanTest)
#include "tst_putplan.moc"
