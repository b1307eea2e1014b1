#pragma once

#include "keldaclient.h"

#include <QJsonArray>
#include <QSignalSpy>
#include <QString>
#include <QStringList>
#include <QVariantList>

#include <memory>

// Shared steps of the end-to-end tests: clients of the real library talking
// to a real server process. Every wait is bounded.
namespace E2e {

constexpr int Wait = 15000;

// A client of the given user, connected (or not, when the wait ran out).
std::unique_ptr<Kelda::KeldaClient> connectClient(quint16 port, const QString &user,
                                                  const QString &application = QStringLiteral("tests"),
                                                  const QString &team = QStringLiteral("team"));

// A child element of a raw request, its text escaped.
QString element(QLatin1String name, const QString &text);
bool writeFile(const QString &path, const QByteArray &content);
QByteArray readFile(const QString &path);

// Creates a group and adds one file with this content through the blocking
// calls; returns the GUID (empty on failure) and the file id.
QString createGroupWithFile(Kelda::KeldaClient &client, const QString &name, Kelda::FileType type,
                            const QByteArray &content, unsigned int *fileId, const QString &comment = QString(),
                            const QDateTime &lifeCycle = QDateTime());

// The arguments of the emission whose first argument is requestId.
QVariantList waitForRequest(QSignalSpy &spy, const QString &requestId);

// Closing is not awaited by the library: this waits for the answer and
// returns its error code, -1 when none came.
int closeFile(Kelda::KeldaClient &client, unsigned int fileId, const QString &guid);

// keldaserver audit --json, with these further arguments, on the archive
// of that base path: its exit code, and the records it printed.
int audit(const QString &basePath, const QStringList &arguments, QJsonArray *records);

} // namespace E2e
