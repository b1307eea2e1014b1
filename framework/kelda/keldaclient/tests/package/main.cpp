#include <keldaclient.h>

#include <QCoreApplication>
#include <cstdio>

// Exits 0 when the installed library links, loads and answers as a client
// without a configured server does.
int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    Kelda::KeldaClient client;
    const QString guid = Kelda::KeldaClient::CreateGuid();
    const bool ok = !Kelda::KeldaClient::IsKeldaAvailable() && !client.IsConnected() && guid.size() == 36
                    && client.GetErrorString() == QLatin1String("No error");
    std::printf("consumer: %s\n", ok ? "ok" : "unexpected answers");
    return ok ? 0 : 1;
}
