#pragma once

#include "keldaclient.h"

#include <QSignalSpy>
#include <QString>
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

bool writeFile(const QString &path, const QByteArray &content);
QByteArray readFile(const QString &path);

// Creates a group and adds one file with this content through the blocking
// calls; returns the GUID (empty on failure) and the file id.
QString createGroupWithFile(Kelda::KeldaClient &client, const QString &name, Kelda::FileType type,
                            const QByteArray &content, unsigned int *fileId, const QString &comment = QString(),
                            const QDateTime &lifeCycle = QDateTime());

// The arguments of the emission whose first argument is requestId.
QVariantList waitForRequest(QSignalSpy &spy, const QString &requestId);

} // namespace E2e
