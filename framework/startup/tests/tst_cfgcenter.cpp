#include "cfgcenter.h"
#include "icfg.h"
#include "translationcenter.h"

#include <QFile>
#include <QScopedPointer>
#include <QTemporaryDir>
#include <QtTest>

class CfgCenterTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void readsWithDefaults_data();
    void readsWithDefaults();
    void writeIsVisibleAfterFlush();
    void adminViewIsItsOwnGroup();
    void missingCatalogueIsNotAnError();

private:
    void writeIni(const QByteArray &content);
    QTemporaryDir m_dir;
    QString m_file;
};

void CfgCenterTest::init()
{
    QVERIFY(m_dir.isValid());
    m_file = m_dir.filePath(QStringLiteral("%1.ini").arg(QLatin1String(QTest::currentTestFunction())));
    QFile::remove(m_file);
    qputenv("KELDA_CONFIG_FILE", QFile::encodeName(m_file));
    QCOMPARE(CfgCenter::ConfigFilePath(), m_file);
}

void CfgCenterTest::writeIni(const QByteArray &content)
{
    QFile file(m_file);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
}

void CfgCenterTest::readsWithDefaults_data()
{
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<bool>("hasHost");
    QTest::addColumn<QString>("host");
    QTest::addColumn<int>("port");
    QTest::addColumn<bool>("flag");

    QTest::newRow("no file") << QByteArray() << false << QStringLiteral("dflt") << 7 << true;
    QTest::newRow("set") << QByteArray("[KELDA]\nServerHost=archive\nXmlPort=6000\nUseUtc=false\n") << true
                         << QStringLiteral("archive") << 6000 << false;
    QTest::newRow("other group only") << QByteArray("[OTHER]\nServerHost=x\nXmlPort=1\n") << false
                                      << QStringLiteral("dflt") << 7 << true;
    QTest::newRow("bad values fall back") << QByteArray("[KELDA]\nXmlPort=abc\nUseUtc=maybe\n") << false
                                          << QStringLiteral("dflt") << 7 << true;
    QTest::newRow("numeric boolean") << QByteArray("[KELDA]\nUseUtc=0\n") << false << QStringLiteral("dflt") << 7
                                     << false;
}

void CfgCenterTest::readsWithDefaults()
{
    QFETCH(QByteArray, ini);
    QFETCH(bool, hasHost);
    QFETCH(QString, host);
    QFETCH(int, port);
    QFETCH(bool, flag);

    if (!ini.isEmpty())
        writeIni(ini);
    QScopedPointer<ICfg> cfg(CfgCenter::CreateCfg(QStringLiteral("KELDA"), CfgCenter::ViewUser, QString()));
    QCOMPARE(cfg->HasKey(QStringLiteral("ServerHost"), 0), hasHost);
    QCOMPARE(cfg->GetString(QStringLiteral("ServerHost"), QStringLiteral("dflt")), host);
    QCOMPARE(cfg->GetInt(QStringLiteral("XmlPort"), 7), port);
    QCOMPARE(cfg->GetBool(QStringLiteral("UseUtc"), true, 0), flag);
}

void CfgCenterTest::writeIsVisibleAfterFlush()
{
    {
        QScopedPointer<ICfg> cfg(CfgCenter::CreateCfg(QStringLiteral("KELDA"), CfgCenter::ViewUser, QString()));
        cfg->SetInt(QStringLiteral("CompressionRate"), -1);
        cfg->Flush(QStringLiteral("CompressionRate"), 0);
    }
    QFile file(m_file);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray content = file.readAll();
    QVERIFY2(content.contains("[KELDA]") && content.contains("CompressionRate=-1"), content.constData());
}

void CfgCenterTest::adminViewIsItsOwnGroup()
{
    writeIni("[Admin]\nSulvaDataDir=/data/sulva\n[KELDA]\nSulvaDataDir=/wrong\n");
    QScopedPointer<ICfg> admin(CfgCenter::GetAdminCfg(CfgCenter::ViewAdmin));
    QCOMPARE(admin->GetString(QStringLiteral("SulvaDataDir"), QString()), QStringLiteral("/data/sulva"));
}

void CfgCenterTest::missingCatalogueIsNotAnError()
{
    qputenv("KELDA_TRANSLATIONS_DIR", QFile::encodeName(m_dir.path()));
    QVERIFY(!TranslationCenter::Instance()->Register(QStringLiteral("NoSuchCatalogue")));
    QVERIFY(!TranslationCenter::Instance()->IsRegistered(QStringLiteral("NoSuchCatalogue")));
    TranslationCenter::Instance()->Unregister(QStringLiteral("NoSuchCatalogue"));
}

QTEST_GUILESS_MAIN(CfgCenterTest)
#include "tst_cfgcenter.moc"
