#include <keldaclient.h>
#include <keldafile.h>

#include <QCoreApplication>
#include <cstdio>

// Exits 0 when the core library alone links, loads and answers as a client
// without a configured server does, and a file is local.
int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    Kelda::KeldaClient client;
    Kelda::KeldaFile file(&client, QStringLiteral("/tmp/a.bin"), 0);
    const bool ok = !Kelda::KeldaClient::IsKeldaAvailable() && !client.WaitForConnected(0) &&
        file.GetGuid().isEmpty() && client.GetErrorString() == QLatin1String("No error");
    std::printf("core consumer: %s\n", ok ? "ok" : "unexpected answers");
    return ok ? 0 : 1;
}
