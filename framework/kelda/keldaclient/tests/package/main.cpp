#include <fileselectdialog.h>
#include <keldaclient.h>

#include <QCoreApplication>
#include <cstdio>

// Exits 0 when the installed library links, loads and answers as a client
// without a configured server does. The dialogs are never shown, but the
// calls that would show them must link through the library linked.
int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    Kelda::KeldaClient client;
    if (argc > 1) {
        Kelda::KeldaUrl url;
        client.GetSelectedFile(nullptr, QString(), url);
        Kelda::KeldaFileDialog::GetOpenUrl(nullptr);
    }
    const QString guid = Kelda::KeldaClient::CreateGuid();
    const bool ok = !Kelda::KeldaClient::IsKeldaAvailable() && !client.IsConnected() && guid.size() == 36 &&
        client.GetErrorString() == QLatin1String("No error");
    std::printf("consumer: %s\n", ok ? "ok" : "unexpected answers");
    return ok ? 0 : 1;
}
