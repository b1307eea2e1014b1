#include "cfgcenter.h"
#include "icfg.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

class CfgCenterTest : public QObject
{
    Q_OBJECT

private slots:
    void readsWithDefaults_data();
    void readsWithDefaults();
};

void CfgCenterTest::readsWithDefaults_data()
{
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<int>("port");
    QTest::addColumn<bool>("flag");

    QTest::newRow("set") << QByteArray("[KELDA]\nXmlPort=6000\nUseUtc=yes\n") << 6000 << true;
    QTest::newRow("bad values fall back") << QByteArray("[KELDA]\nXmlPort=abc\nUseUtc=maybe\n") << 7 << false;
    QTest::newRow("other groups are not read")
        << QByteArray("[Admin]\nXmlPort=1\nUseUtc=no\n[KELDA]\nUseUtc=1\n") << 7 << true;
}

void CfgCenterTest::readsWithDefaults()
{
    QFETCH(QByteArray, ini);
    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("kelda.ini"));
    qputenv("KELDA_CONFIG_FILE", QFile::encodeName(fileName));
    QFile file(fileName);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(ini);
    file.close();

    const std::unique_ptr<ICfg> cfg(CfgCenter::CreateCfg(QStringLiteral("KELDA"), CfgCenter::ViewUser, QString()));
    QTEST(cfg->GetInt(QStringLiteral("XmlPort"), 7), "port");
    QTEST(cfg->GetBool(QStringLiteral("UseUtc"), false), "flag");
}

QTEST_GUILESS_MAIN(CfgCenterTest)
#include "tst_cfgcenter.moc"
