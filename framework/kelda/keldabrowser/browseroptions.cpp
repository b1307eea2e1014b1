#include "browseroptions.h"

#include "configuredserver.h"
#include "tlsoptions.h"

#include <QCommandLineParser>

using Kelda::ConfiguredServer;

namespace KeldaBrowser {

namespace {

constexpr int kDefaultConnectTimeoutS = 5;
constexpr int kMaxConnectTimeoutS = 3600;

const QString kHost = QStringLiteral("host");
const QString kPort = QStringLiteral("port");
const QString kScreenshot = QStringLiteral("screenshot");
const QString kConnectTimeout = QStringLiteral("connect-timeout");
const QString kHelp = QStringLiteral("help");

void addOptions(QCommandLineParser &parser, const BrowserOptions &defaults)
{
    parser.addOption({kHost, QStringLiteral("Archive server host (default %1).").arg(defaults.host),
                      QStringLiteral("HOST"), defaults.host});
    parser.addOption({kPort, QStringLiteral("Archive server port (default %1).").arg(defaults.port),
                      QStringLiteral("PORT"), QString::number(defaults.port)});
    parser.addOption({kScreenshot,
                      QStringLiteral("Render every dialog, filled from the server, as a PNG into DIR on the "
                                     "offscreen platform, then exit."),
                      QStringLiteral("DIR")});
    parser.addOption({kConnectTimeout,
                      QStringLiteral("Seconds --screenshot waits for the server (default %1).")
                          .arg(defaults.connectTimeoutMs / 1000),
                      QStringLiteral("SECONDS"), QString::number(defaults.connectTimeoutMs / 1000)});
    Kelda::TlsOptions::Add(parser);
    parser.addOption({{QStringLiteral("h"), kHelp}, QStringLiteral("Show this help.")});
}

bool readNumber(const QString &text, int min, int max, int &value)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    if (!ok || number < min || number > max)
        return false;
    value = number;
    return true;
}

} // namespace

BrowserOptions defaultOptions()
{
    BrowserOptions options;
    const ConfiguredServer server = ConfiguredServer::Read();
    options.host = server.host;
    options.port = server.port;
    options.connectTimeoutMs = kDefaultConnectTimeoutS * 1000;
    return options;
}

ParsedArguments parseArguments(const QStringList &arguments, const BrowserOptions &defaults)
{
    ParsedArguments parsed;
    parsed.options = defaults;
    QCommandLineParser parser;
    addOptions(parser, defaults);
    if (!parser.parse(arguments)) {
        parsed.error = parser.errorText();
        return parsed;
    }
    if (parser.isSet(kHelp)) {
        parsed.help = true;
        return parsed;
    }
    if (!parser.positionalArguments().isEmpty()) {
        parsed.error = QStringLiteral("unexpected argument \"%1\"").arg(parser.positionalArguments().first());
        return parsed;
    }

    parsed.options.host = parser.value(kHost).trimmed();
    if (parsed.options.host.isEmpty()) {
        parsed.error = QStringLiteral("--host needs a host name or address");
        return parsed;
    }
    int port = 0;
    if (!readNumber(parser.value(kPort), 1, 65535, port)) {
        parsed.error = QStringLiteral("--port needs a number from 1 to 65535, not \"%1\"").arg(parser.value(kPort));
        return parsed;
    }
    parsed.options.port = quint16(port);
    int seconds = 0;
    if (!readNumber(parser.value(kConnectTimeout), 1, kMaxConnectTimeoutS, seconds)) {
        parsed.error = QStringLiteral("--connect-timeout needs a number of seconds from 1 to %1, not \"%2\"")
                           .arg(kMaxConnectTimeoutS)
                           .arg(parser.value(kConnectTimeout));
        return parsed;
    }
    parsed.options.connectTimeoutMs = seconds * 1000;
    if (!Kelda::TlsOptions::Read(parser, &parsed.options.tls, &parsed.error))
        return parsed;
    if (parser.isSet(kScreenshot)) {
        parsed.options.screenshotDir = parser.value(kScreenshot);
        if (parsed.options.screenshotDir.isEmpty())
            parsed.error = QStringLiteral("--screenshot needs a folder");
    }
    return parsed;
}

// Needs the application object, which names the program in the usage line.
QString helpText(const BrowserOptions &defaults)
{
    QCommandLineParser parser;
    addOptions(parser, defaults);
    parser.setApplicationDescription(
        QStringLiteral("Browses the file archive: pick a file in quick or query mode, see its metadata and open it "
                       "with the desktop's application."));
    return parser.helpText() +
        QStringLiteral("\nExit codes:\n"
                       "  0  success\n"
                       "  2  bad arguments\n"
                       "  3  --screenshot: the server cannot be reached\n"
                       "  4  no display to show the window on (DISPLAY and WAYLAND_DISPLAY unset)\n"
                       "  5  --screenshot: a picture cannot be written\n");
}

} // namespace KeldaBrowser
