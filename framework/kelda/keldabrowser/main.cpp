#include "browseroptions.h"
#include "browserwindow.h"
#include "screenshots.h"

#include "keldaclient.h"
#include "loginname.h"

#include <QApplication>
#include <QDir>
#include <QEventLoop>
#include <QTimer>

#include <cstdio>

using namespace KeldaBrowser;

namespace {

void print(FILE *stream, const QString &text)
{
    std::fputs(qPrintable(text), stream);
}

// The browser's own window with the sample group's first file picked.
void grabBrowserWindow(Kelda::KeldaClient &client, const BrowserOptions &options, ScreenshotResult &result)
{
    BrowserWindow window(client, options);
    window.show();
    const QStringList files = result.sampleGuid.isEmpty() ? QStringList() : client.GetFileList(result.sampleGuid);
    if (files.size() >= 2) {
        QEventLoop loop;
        QObject::connect(&window, &BrowserWindow::metaDataShown, &loop, &QEventLoop::quit);
        QTimer::singleShot(options.connectTimeoutMs, &loop, &QEventLoop::quit);
        window.ShowFile(result.sampleGuid, files.first().toUInt());
        loop.exec();
    }
    QCoreApplication::processEvents();
    const QString path = QDir(options.screenshotDir).filePath(QStringLiteral("browser.png"));
    if (window.grab().save(path, "PNG"))
        result.written.append(path);
    else
        result.error = QStringLiteral("%1: cannot write the picture").arg(path);
}

int renderAndExit(Kelda::KeldaClient &client, const BrowserOptions &options)
{
    if (!client.WaitForConnected(options.connectTimeoutMs)) {
        print(stderr,
              QStringLiteral("keldabrowser: cannot reach the archive server at %1:%2 within %3 s; "
                             "is keldaserver running there?\n")
                  .arg(options.host)
                  .arg(options.port)
                  .arg(options.connectTimeoutMs / 1000));
        return ExitUnreachable;
    }
    ScreenshotResult result = renderScreenshots(client, options.screenshotDir);
    if (result.error.isEmpty())
        grabBrowserWindow(client, options, result);
    for (const QString &path : result.written)
        print(stdout, path + QLatin1Char('\n'));
    if (!result.error.isEmpty()) {
        print(stderr, QStringLiteral("keldabrowser: %1\n").arg(result.error));
        return ExitScreenshotFailed;
    }
    return ExitOk;
}

// Without a display Qt would abort with a message about platform plugins.
bool hasDisplay()
{
#if defined(Q_OS_UNIX) && !defined(Q_OS_MACOS)
    return qEnvironmentVariableIsSet("QT_QPA_PLATFORM") || qEnvironmentVariableIsSet("DISPLAY") ||
        qEnvironmentVariableIsSet("WAYLAND_DISPLAY");
#else
    return true;
#endif
}

} // namespace

int main(int argc, char *argv[])
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    const BrowserOptions defaults = defaultOptions();
    const ParsedArguments parsed = parseArguments(arguments, defaults);

    // Help and errors need no display.
    if (parsed.help || !parsed.error.isEmpty()) {
        QCoreApplication app(argc, argv);
        if (parsed.help) {
            print(stdout, helpText(defaults));
            return ExitOk;
        }
        print(stderr, QStringLiteral("keldabrowser: %1\nTry 'keldabrowser --help'.\n").arg(parsed.error));
        return ExitUsage;
    }

    const BrowserOptions &options = parsed.options;
    if (!options.screenshotDir.isEmpty()) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    } else if (!hasDisplay()) {
        print(stderr,
              QStringLiteral("keldabrowser: no display to show the window on (DISPLAY is not set); run it "
                             "on a desktop, or render the dialogs with --screenshot DIR\n"));
        return ExitNoDisplay;
    }
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("keldabrowser"));
    options.tls.Apply();
    Kelda::KeldaClient client(options.host, options.port, QStringLiteral("keldabrowser"), Kelda::LoginName(),
                              QString());
    if (!options.screenshotDir.isEmpty())
        return renderAndExit(client, options);

    BrowserWindow window(client, options);
    window.show();
    return app.exec();
}
