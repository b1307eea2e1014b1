#pragma once

#include <QString>
#include <QStringList>

namespace Kelda {
class KeldaClient;
}

namespace KeldaBrowser {

struct ScreenshotResult
{
    QStringList written; // file paths, in the order rendered
    QString error; // empty on success
    QString sampleGuid; // the centrally stored group shown, if any
};

// Renders, filled with what the server holds, the select dialog in quick mode
// and in query mode (each with its first group expanded), the query dialog and
// the save-as dialog into dir as PNG files. Works against an empty archive
// too; the client must be connected.
ScreenshotResult renderScreenshots(Kelda::KeldaClient &client, const QString &dir);

} // namespace KeldaBrowser
