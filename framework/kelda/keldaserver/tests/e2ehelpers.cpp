#include "e2ehelpers.h"

#include "serverprocess.h"
#include "testcertificates.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTest>

namespace E2e {

std::unique_ptr<Kelda::KeldaClient> connectClient(quint16 port, const QString &user, const QString &application,
                                                  const QString &team)
{
    if (ServerProcess::usesTls()) {
        if (const TestCertificates *certificates = TestCertificates::shared())
            Kelda::KeldaClient::SetTlsFiles(certificates->authority());
    }
    auto client = std::make_unique<Kelda::KeldaClient>(QStringLiteral("127.0.0.1"), port, application, user, team);
    QSignalSpy connected(client.get(), &Kelda::KeldaClient::connected);
    if (!client->IsConnected())
        connected.wait(Wait);
    return client;
}

QString element(QLatin1String name, const QString &text)
{
    return QStringLiteral("<m:%1>%2</m:%1>").arg(name, text.toHtmlEscaped());
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString createGroupWithFile(Kelda::KeldaClient &client, const QString &name, Kelda::FileType type,
                            const QByteArray &content, unsigned int *fileId, const QString &comment,
                            const QDateTime &lifeCycle)
{
    QString directory;
    const QString guid = client.CreateFileGroup(QStringLiteral("1.0"), lifeCycle, QStringLiteral("detail"), comment,
                                                type, 0, name, directory);
    if (guid.isEmpty() || !writeFile(directory + QStringLiteral("data.bin"), content))
        return QString();
    *fileId = client.AddFile(directory + QStringLiteral("data.bin"), guid);
    return *fileId == 0 ? QString() : guid;
}

QVariantList waitForRequest(QSignalSpy &spy, const QString &requestId)
{
    QDeadlineTimer deadline(Wait);
    int seen = 0;
    for (;;) {
        for (; seen < spy.size(); ++seen) {
            if (spy.at(seen).value(0).toString() == requestId)
                return spy.at(seen);
        }
        if (deadline.hasExpired() || !spy.wait(int(qMax<qint64>(1, deadline.remainingTime())))) {
            // An empty answer reads as zeros, which look like success.
            QTest::qFail(qPrintable(QStringLiteral("No answer to %1").arg(requestId)), __FILE__, __LINE__);
            return {};
        }
    }
}

int closeFile(Kelda::KeldaClient &client, unsigned int fileId, const QString &guid)
{
    QSignalSpy closed(&client, &Kelda::KeldaClient::CloseFileSg);
    client.CloseFile(fileId, guid);
    return closed.wait(Wait) ? closed.first().value(1).toInt() : -1;
}

int audit(const QString &basePath, const QStringList &arguments, QJsonArray *records)
{
    QString error;
    const QString database = ServerProcess::usesPostgres()
        ? ServerProcess::postgresUrl(basePath, &error)
        : QDir(basePath).filePath(QStringLiteral("keldaserver.sqlite"));
    QProcess program;
    program.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    program.start(ServerProcess::programPath(),
                  QStringList{QStringLiteral("audit"), QStringLiteral("--db"), database, QStringLiteral("--json")} +
                      arguments);
    if (!program.waitForFinished(Wait))
        return -1;
    *records =
        QJsonDocument::fromJson(program.readAllStandardOutput()).object().value(QStringLiteral("records")).toArray();
    return program.exitCode();
}

} // namespace E2e
