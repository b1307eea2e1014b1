// kelda_tour: the tour of the reference's entry page as a program. It
// connects to an archive server, stores a file, fetches it back, lists the
// stored groups and, with --dialogs, lets the user pick a file.
//
// Exit codes: 0 done, 1 an archive operation failed, 64 bad arguments,
// 69 no server configured or reachable.

#include <fileselectdialog.h>
#include <filegroupdata.h>
#include <filequery.h>
#include <keldaclient.h>
#include <keldafile.h>
#include <keldasaveasdlg.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QEventLoop>
#include <QFileInfo>
#include <QTimer>

#include <cstdio>
#include <memory>

namespace {

enum ExitCode { Done = 0, Failed = 1, Usage = 64, Unavailable = 69 };

void say(const QString &text)
{
    std::printf("%s\n", qPrintable(text));
    std::fflush(stdout);
}

int fail(ExitCode code, const QString &text)
{
    std::fprintf(stderr, "kelda_tour: %s\n", qPrintable(text));
    return code;
}

//! [store]
// Stores a local file as a new file group of one file and returns its URL,
// kelda:///<guid>/<file id>; empty on failure.
QString storeFile(Kelda::KeldaClient &client, const QString &path)
{
    unsigned int lifeCycleDays = 30;
    Kelda::KeldaFile file(&client, path, QStringLiteral("1.0"), lifeCycleDays, QStringLiteral("band 3"),
                          QStringLiteral("stored by the tour"), Kelda::FT_ScanRecording, 0);
    if (file.GetError() != Kelda::KE_NoError || file.GetFileId() == 0) {
        say(QStringLiteral("store failed: ") + file.GetErrorString());
        return QString();
    }
    return file.GetName();
}
//! [store]

//! [central]
// The KeldaFile that created a group hands it to network storage when it is
// destroyed; the group can be requested again once it is central. The
// asynchronous form reports through a signal carrying its request id.
bool waitUntilCentral(Kelda::KeldaClient &client, const QString &guid, int timeoutMs)
{
    bool central = false;
    QString awaited = client.QueryLocationStateProgress(guid);
    QEventLoop loop;
    QObject::connect(&client, &Kelda::KeldaClient::queryLocationStateProgressSg, &loop,
                     [&](QString requestId, int locationState, double, int error, QString) {
                         if (requestId != awaited)
                             return;
                         central = error == Kelda::KE_NoError && locationState == Kelda::LS_Central;
                         if (central)
                             loop.quit();
                         else
                             QTimer::singleShot(50, &loop, [&] { awaited = client.QueryLocationStateProgress(guid); });
                     });
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    if (!awaited.isEmpty())
        loop.exec();
    return central;
}
//! [central]

//! [fetch]
// Reads an archived file under a read lock, and releases the lock.
QByteArray fetchFile(Kelda::KeldaClient &client, const Kelda::KeldaUrl &url)
{
    Kelda::KeldaFile file(&client, url.toKeldaGuid(), url.toKeldaFileId());
    if (!file.open(QIODevice::ReadOnly)) {
        say(QStringLiteral("fetch failed: ") + file.GetErrorString());
        return QByteArray();
    }
    const QByteArray bytes = file.readAll();
    file.close();
    return bytes;
}
//! [fetch]

//! [query]
// Lists the file groups of one type: the table holds the column headers
// first, then one row of values per group.
bool listGroups(Kelda::KeldaClient &client, Kelda::FileType type)
{
    Kelda::FileQuery query;
    query.AddFileType(type);
    unsigned int columns = 0;
    const QStringList table = client.QueryFiles(query, columns);
    if (table.isEmpty()) {
        say(QStringLiteral("query failed: ") + client.GetErrorString());
        return false;
    }
    const auto groups = Kelda::FileGroupData::fromStringList(table.mid(int(columns)));
    for (const Kelda::FileGroupData &group : groups)
        say(QStringLiteral("%1  %2  %3").arg(group.getGuid(), group.getFileGroupName(), group.getComment()));
    return true;
}
//! [query]

//! [dialogs]
// Asks the user for the metadata of a new group, then lets them pick an
// archived file; with no server configured the platform's dialog opens.
void useDialogs(QWidget *parent)
{
    Kelda::KeldaSaveAsDlg form(parent);
    form.setGroupName(QStringLiteral("band-3 sweep"));
    form.setFileType(Kelda::FT_ScanRecording);
    form.setFileTypeEnabled(true);
    if (form.exec() == QDialog::Accepted)
        say(QStringLiteral("would store \"%1\", version \"%2\"").arg(form.groupName(), form.version()));

    const Kelda::KeldaUrl url = Kelda::KeldaFileDialog::GetOpenUrl(parent, QStringLiteral("Open a recording"));
    if (!url.isEmpty())
        say(QStringLiteral("picked ") + url.toString());
}
//! [dialogs]

// Widgets need a display; only --dialogs shows any, so the rest of the tour
// also runs where there is none.
std::unique_ptr<QCoreApplication> makeApplication(int &argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (qstrcmp(argv[i], "--dialogs") == 0)
            return std::make_unique<QApplication>(argc, argv);
    }
    return std::make_unique<QCoreApplication>(argc, argv);
}

} // namespace

int main(int argc, char *argv[])
{
    const std::unique_ptr<QCoreApplication> app = makeApplication(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kelda_tour"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Stores FILE in the archive, fetches it back, checks the copy and lists the stored groups."));
    parser.addHelpOption();
    const QCommandLineOption host(QStringLiteral("host"), QStringLiteral("Server host (default: configured)."),
                                  QStringLiteral("host"));
    const QCommandLineOption port(QStringLiteral("port"), QStringLiteral("Server port (default 5223)."),
                                  QStringLiteral("port"), QStringLiteral("5223"));
    const QCommandLineOption wait(QStringLiteral("connect-timeout"),
                                  QStringLiteral("Milliseconds to wait for the connection (default 10000)."),
                                  QStringLiteral("ms"), QStringLiteral("10000"));
    const QCommandLineOption dialogs(QStringLiteral("dialogs"), QStringLiteral("Also show the dialogs."));
    parser.addOptions({host, port, wait, dialogs});
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("A local file to store."));
    parser.process(*app);

    bool portOk = false;
    const uint portNumber = parser.value(port).toUInt(&portOk);
    bool waitOk = false;
    const int timeoutMs = parser.value(wait).toInt(&waitOk);
    if (parser.positionalArguments().size() != 1)
        return fail(Usage, QStringLiteral("give exactly one FILE; see --help"));
    if (!portOk || portNumber == 0 || portNumber > 65535)
        return fail(Usage, QStringLiteral("--port wants a number from 1 to 65535"));
    if (!waitOk || timeoutMs < 0)
        return fail(Usage, QStringLiteral("--connect-timeout wants milliseconds"));
    const QString path = QFileInfo(parser.positionalArguments().constFirst()).absoluteFilePath();
    QFile source(path);
    if (!source.open(QIODevice::ReadOnly))
        return fail(Usage, QStringLiteral("cannot read %1: %2").arg(path, source.errorString()));
    const QByteArray original = source.readAll();

    std::unique_ptr<Kelda::KeldaClient> client;
    if (parser.isSet(host))
        client = std::make_unique<Kelda::KeldaClient>(parser.value(host), quint16(portNumber),
                                                      QStringLiteral("kelda_tour"), QStringLiteral("tour"), QString());
    else
        client = std::make_unique<Kelda::KeldaClient>();
    if (!Kelda::KeldaClient::IsKeldaAvailable())
        return fail(Unavailable,
                    QStringLiteral("no server configured: give --host, or set ServerHost in the "
                                   "[KELDA] group of the configuration"));
    //! [connect]
    // The constructor returned at once; the client connects in the background
    // and reconnects by itself. WaitForConnected() runs a local event loop
    // until connected() or the time limit: a client needs the event loop of
    // its thread for its signals.
    if (!client->WaitForConnected(timeoutMs))
        return fail(Unavailable,
                    QStringLiteral("no connection to %1:%2 within %3 ms")
                        .arg(client->GetHost())
                        .arg(client->GetPort())
                        .arg(timeoutMs));
    //! [connect]
    say(QStringLiteral("connected to %1:%2").arg(client->GetHost()).arg(client->GetPort()));

    const QString url = storeFile(*client, path);
    if (url.isEmpty())
        return Failed;
    say(QStringLiteral("stored as ") + url);
    if (!waitUntilCentral(*client, Kelda::KeldaUrl(url).toKeldaGuid(), timeoutMs))
        return fail(Failed, QStringLiteral("the new group did not reach central storage within %1 ms").arg(timeoutMs));

    const QByteArray copy = fetchFile(*client, Kelda::KeldaUrl(url));
    if (copy != original)
        return fail(Failed, QStringLiteral("the fetched copy differs from %1").arg(path));
    say(QStringLiteral("fetched %1 bytes, identical").arg(copy.size()));

    if (!listGroups(*client, Kelda::FT_ScanRecording))
        return Failed;
    if (parser.isSet(dialogs))
        useDialogs(nullptr);
    return Done;
}
