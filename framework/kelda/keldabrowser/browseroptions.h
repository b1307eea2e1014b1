#pragma once

#include "tlsoptions.h"

#include <QString>
#include <QStringList>

namespace KeldaBrowser {

// The exit status of keldabrowser. Scripts rely on these numbers.
enum ExitCode : int {
    ExitOk = 0,
    ExitUsage = 2,
    // Not connected within the connect timeout (screenshot mode only; the
    // window keeps retrying).
    ExitUnreachable = 3,
    // The window has no display to show on.
    ExitNoDisplay = 4,
    // A picture could not be written.
    ExitScreenshotFailed = 5
};

struct BrowserOptions
{
    QString host;
    quint16 port = 0;
    // Non-empty: render every dialog into this folder and exit.
    QString screenshotDir;
    int connectTimeoutMs = 0;
    Kelda::TlsOptions tls;
};

// What the command line asks for: options to run with, a help text to
// print, or an error to report.
struct ParsedArguments
{
    BrowserOptions options;
    bool help = false;
    QString error;
};

// Host and port of the configuration group "KELDA", else localhost:5223.
BrowserOptions defaultOptions();
// arguments include the program name, as QCoreApplication::arguments() does.
ParsedArguments parseArguments(const QStringList &arguments, const BrowserOptions &defaults);
QString helpText(const BrowserOptions &defaults);

} // namespace KeldaBrowser
