#include "fileselectdialog.h"
#include "keldaclient.h"
#include "keldafile.h"
#include "modalwaiter.h"

#include <QFileDialog>
#include <QLineEdit>
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
    void open_data();
    void open();
};

void KeldaFileDialogNoServerTest::open_data()
{
    QTest::addColumn<bool>("accept");
    QTest::addColumn<bool>("asFile");
    QTest::newRow("GetOpenUrl, chosen") << true << false;
    QTest::newRow("GetOpenUrl, cancelled") << false << false;
    QTest::newRow("GetOpenFile, chosen") << true << true;
    QTest::newRow("GetOpenFile, cancelled") << false << true;
}

void KeldaFileDialogNoServerTest::open()
{
    QFETCH(bool, accept);
    QFETCH(bool, asFile);
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
        // Typed rather than selected: the dialog's file list fills in the
        // background, and a selection made before that may be lost.
        dialog->findChild<QLineEdit *>(QStringLiteral("fileNameEdit"))->setText(path);
        QMetaObject::invokeMethod(dialog, accept ? "accept" : "reject");
    });
    const QString caption0 = QStringLiteral("Open a file");
    const QString filter = QStringLiteral("Text (*.txt)");
    if (asFile) {
        const boost::shared_ptr<KeldaFile> chosen = KeldaFileDialog::GetOpenFile(nullptr, caption0, dir.path(), filter);
        QCOMPARE(bool(chosen), accept);
        if (chosen) {
            QCOMPARE(chosen->fileName(), path);
            QVERIFY(chosen->GetGuid().isEmpty());
            QVERIFY(chosen->open(QIODevice::ReadOnly));
        }
    } else {
        const KeldaUrl url = KeldaFileDialog::GetOpenUrl(nullptr, caption0, dir.path(), filter);
        QCOMPARE(QUrl(url), accept ? QUrl::fromLocalFile(path) : QUrl());
    }
    QCOMPARE(caption, caption0);
}

QTEST_MAIN(KeldaFileDialogNoServerTest)
#include "tst_keldafiledialog_noserver.moc"
