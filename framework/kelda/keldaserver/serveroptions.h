#pragma once

#include "addressallowlist.h"
#include "databaselocation.h"
#include "servertls.h"
#include "xmlseparator.h"

#include <QHostAddress>
#include <QString>
#include <QStringList>

namespace Kelda {

// What a keldaserver run was asked to do, read from its command line.
struct ServerOptions
{
    enum class Action { Run, ShowHelp, ShowVersion, Fail };

    // Exit codes of the program; the README and --help list them.
    enum ExitCode : int {
        ExitOk = 0,
        ExitUsage = 64, // bad arguments
        ExitUnavailable = 69, // cannot listen on the address
        ExitStorage = 70, // cannot create the storage folders or open the database, or its schema is newer
        ExitBadBackup = 65 // restore: the backup does not match its manifest
    };

    static constexpr quint16 DefaultPort = 5223;
    static constexpr quint32 DefaultMaxFrame = 64u * 1024u * 1024u;
    static constexpr qint64 MiB = 1024 * 1024;
    static constexpr qint64 DefaultMaxImportBytes = 64 * MiB;
    static constexpr qint64 DefaultMaxBacklog = 64 * MiB;
    static constexpr int DefaultMaxInFlight = 64;
    static constexpr qint64 DefaultMaxPending = 256 * MiB;
    static constexpr int DefaultFrameTimeoutSeconds = 60;
    static constexpr int DefaultMaxConnections = 1000;
    static constexpr int DefaultMaxConnectionsPerAddress = 100;
    static constexpr int DefaultIdleTimeoutSeconds = 900;
    static constexpr int DefaultMaxElements = 100000;
    static constexpr qint64 GiB = 1024 * MiB;
    static constexpr qint64 DefaultMaxSpool = 4 * GiB;
    static constexpr qint64 DefaultMaxAnswer = XmlSeparator::LargestMaxFrameLength;
    static constexpr double DefaultVerifyIntervalHours = 168;
    static constexpr double DefaultVerifyRateMBps = 200;
    // The unit of --verify-rate.
    static constexpr qint64 MB = 1000 * 1000;

    Action action = Action::Run;
    QString error; // for Action::Fail: a sentence the user can act on
    QString helpText; // for Action::ShowHelp and Action::Fail

    QHostAddress host = QHostAddress(QHostAddress::LocalHost);
    quint16 port = DefaultPort;
    QString basePath;
    DatabaseLocation database;
    QString nasPath;
    // The one folder ExportArchive and ImportArchive may touch.
    QString exchangePath;
    // Where large query answers wait on disk for their clients.
    QString spoolPath;
    quint32 maxFrame = DefaultMaxFrame;
    // Bounds on what clients may make the server hold or do; the README's
    // "Limits and safety" table says what a client sees at each.
    qint64 maxImportBytes = DefaultMaxImportBytes;
    qint64 maxBacklog = DefaultMaxBacklog;
    int maxInFlight = DefaultMaxInFlight;
    qint64 maxPending = DefaultMaxPending;
    int frameTimeoutSeconds = DefaultFrameTimeoutSeconds;
    int maxConnections = DefaultMaxConnections;
    int maxConnectionsPerAddress = DefaultMaxConnectionsPerAddress;
    int idleTimeoutSeconds = DefaultIdleTimeoutSeconds;
    int maxElements = DefaultMaxElements;
    // Disk of the spooled answers together, and the size of one answer:
    // by default the largest a client takes.
    qint64 maxSpool = DefaultMaxSpool;
    qint64 maxAnswer = DefaultMaxAnswer;
    // The background check re-reads every file once per interval, at most
    // at this rate; an interval of 0 switches it off, a rate of 0 lifts the
    // limit.
    double verifyIntervalHours = DefaultVerifyIntervalHours;
    double verifyRateMBps = DefaultVerifyRateMBps;
    // Who may connect (loopback unless told), and how they prove who they
    // are: with a client authority, the certificate's common name is the
    // user, and the ownership rules apply.
    AddressAllowList allow;
    ServerTls tls;
    QStringList admins;
    QStringList converters;
    // The monitoring endpoint; off unless asked for (port 0 picks one).
    bool metrics = false;
    QHostAddress metricsHost = QHostAddress(QHostAddress::LocalHost);
    quint16 metricsPort = 0;
    bool hasTraceMask = false;
    quint32 traceMask = 0;

    // Reads arguments (the program name first, as in QCoreApplication).
    static ServerOptions parse(const QStringList &arguments);

    // The per-user default storage root.
    static QString defaultBasePath();
    // The defaults below a storage root, the same for the server and for
    // its backup and restore.
    static QString defaultDatabaseFile(const QString &basePath);
    static QString defaultNasPath(const QString &basePath);
    static QString defaultExchangePath(const QString &basePath);
    static QString defaultSpoolPath(const QString &basePath);
};

// "HOST:PORT", "[v6]:PORT" or ":PORT"; false for anything else.
bool parseListenAddress(const QString &text, QHostAddress *host, quint16 *port);
// The same, but a missing host means loopback rather than every address,
// and a bare PORT is accepted.
bool parseLoopbackAddress(const QString &text, QHostAddress *host, quint16 *port);

} // namespace Kelda
