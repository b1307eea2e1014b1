#include "fileselectdialog.h"
#include "keldaclient.h"
#include "modalwaiter.h"

#include <QFileDialog>
#include <QTemporaryDir>
#include <QtTest>

using namespace Kelda;

// Without a configured server the open helpers are the platform's open-file
// dialog. Runs in a process of its own: any client given a server makes one
// available to the whole process.
class KeldaFileDialogNoServerTest : public QObject
{
    Q_OBJECT

private slots:
    void openUrl_data();
    void openUrl();
};

void KeldaFileDialogNoServerTest::openUrl_data()
{
    QTest::addColumn<bool>("accept");
    QTest::newRow("chosen") << true;
    QTest::newRow("cancelled") << false;
}

void KeldaFileDialogNoServerTest::openUrl()
{
    QFETCH(bool, accept);
    QVERIFY(!KeldaClient::IsKeldaAvailable());

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("local.txt"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();

    QString caption;
    whenModal<QFileDialog>([&](QFileDialog *dialog) {
        caption = dialog->windowTitle();
        dialog->selectFile(path);
        QMetaObject::invokeMethod(dialog, accept ? "accept" : "reject");
    });
    const KeldaUrl url =
        KeldaFileDialog::GetOpenUrl(nullptr, QStringLiteral("Open a file"), dir.path(), QStringLiteral("Text (*.txt)"));
    QCOMPARE(caption, QStringLiteral("Open a file"));
    QCOMPARE(QUrl(url), accept ? QUrl::fromLocalFile(path) : QUrl());
}

QTEST_MAIN(KeldaFileDialogNoServerTest)
#include "tst_keldafiledialog_noserver.moc"
