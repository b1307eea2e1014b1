#include "auditcommand.h"

#include "archivedatabase.h"
#include "archiveschema.h"
#include "audittrail.h"
#include "serveroptions.h"
#include "storageoptions.h"
#include "subcommand.h"

#include <QCommandLineParser>
#include <QDateTime>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

namespace Kelda {

const QString AuditCommand::Name = QStringLiteral("audit");

namespace {

const QString kNone = QStringLiteral("-");

void print(FILE *stream, const QByteArray &bytes)
{
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
}

void print(FILE *stream, const QString &text)
{
    print(stream, text.toUtf8());
}

int fail(int code, const QString &text)
{
    return Subcommand::report(AuditCommand::Name, code, text);
}

// "2024-05-01T12:00:00Z", "2024-05-01T14:00:00+02:00" or "2024-05-01"; a
// time without offset is UTC, as the trail's times are.
std::optional<qint64> parseTime(const QString &text)
{
    QDateTime time = QDateTime::fromString(text.trimmed(), Qt::ISODateWithMs);
    if (!time.isValid())
        time = QDateTime::fromString(text.trimmed(), Qt::ISODate);
    if (!time.isValid())
        return std::nullopt;
    if (time.timeSpec() == Qt::LocalTime)
        time.setTimeSpec(Qt::UTC);
    return time.toMSecsSinceEpoch();
}

QString timeText(qint64 ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(Qt::ISODateWithMs);
}

// Texts clients sent may hold anything: one record stays one line, its
// fields apart.
QString field(const QString &text)
{
    if (text.isEmpty())
        return kNone;
    QString escaped;
    escaped.reserve(text.size());
    for (const QChar c : text) {
        if (c == QLatin1Char('\\'))
            escaped += QLatin1String("\\\\");
        else if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            escaped += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
        else
            escaped += c;
    }
    return escaped;
}

QString line(const AuditRecord &record)
{
    return QStringList{timeText(record.atMs),
                       field(record.peerAddress),
                       field(record.certificateUser),
                       field(record.claimedUser),
                       field(record.application),
                       field(record.command),
                       field(record.guid),
                       record.fileId ? QString::number(*record.fileId) : kNone,
                       QString::number(record.result)}
               .join(QLatin1Char('\t')) +
        QLatin1Char('\n');
}

QByteArray json(const AuditRecord &record)
{
    const QJsonObject object{
        {QStringLiteral("time"), timeText(record.atMs)},
        {QStringLiteral("peerAddress"), record.peerAddress},
        {QStringLiteral("certificateUser"),
         record.certificateUser.isEmpty() ? QJsonValue() : QJsonValue(record.certificateUser)},
        {QStringLiteral("claimedUser"), record.claimedUser},
        {QStringLiteral("application"), record.application},
        {QStringLiteral("command"), record.command},
        {QStringLiteral("guid"), record.guid},
        {QStringLiteral("fileId"), record.fileId ? QJsonValue(double(*record.fileId)) : QJsonValue()},
        {QStringLiteral("result"), record.result},
    };
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// Why the trail could not be read, in words the operator can act on.
QString unreadableText(ArchiveDatabase &db, const QString &failure)
{
    int version = 0;
    try {
        version = ArchiveSchema(db).storedVersion();
    } catch (const RequestFailure &) {
        return QStringLiteral("%1 holds no Kelda archive").arg(db.location().displayName());
    }
    if (version < ArchiveSchema::Version)
        return QStringLiteral("%1 holds schema version %2, from before the audit trail; a keldaserver of this "
                              "build upgrades it when it starts on it")
            .arg(db.location().displayName())
            .arg(version);
    return QStringLiteral("Cannot read the audit trail of %1: %2").arg(db.location().displayName(), failure);
}

} // namespace

int AuditCommand::run(const QStringList &arguments)
{
    Subcommand command(
        Name,
        QStringLiteral(
            "Prints the audit trail of an archive: every change clients asked for and every request the ownership "
            "rules refused, one line each (tab-separated: time (UTC), peer address, certificate user, claimed user, "
            "application, command, GUID, file id, result code; \"-\" for none), oldest first."));
    const StorageOptions storage({QString(),
                                  QStringLiteral("The server's --db: SQLite file (default %1) or postgresql://... URL.")
                                      .arg(ServerOptions::defaultDatabaseFile(ServerOptions::defaultBasePath())),
                                  QString(), QString()},
                                 QStringLiteral("FILE|URL"));
    const QCommandLineOption sinceOption(
        QStringLiteral("since"),
        QStringLiteral("Only records from this time on: ISO 8601, e.g. 2024-05-01 or 2024-05-01T12:00:00+02:00; "
                       "UTC when no offset is given."),
        QStringLiteral("TIME"));
    const QCommandLineOption guidOption(QStringLiteral("guid"),
                                        QStringLiteral("Only records of requests naming this file group."),
                                        QStringLiteral("GUID"));
    const QCommandLineOption userOption(QStringLiteral("user"),
                                        QStringLiteral("Only records whose certificate user or claimed user this is."),
                                        QStringLiteral("USER"));
    const QCommandLineOption jsonOption(QStringLiteral("json"),
                                        QStringLiteral("One JSON document {\"records\": [...]} instead of lines; "
                                                       "null for none."));
    storage.addTo(command.parser());
    command.parser().addOptions({sinceOption, guidOption, userOption, jsonOption});
    const int parsed =
        command.parse(arguments,
                      QStringLiteral("\nExit codes:\n  0   printed (perhaps no record)\n  64  bad arguments\n"
                                     "  70  cannot open the database or read its audit trail\n"));
    if (parsed != Subcommand::Proceed)
        return parsed;
    const QCommandLineParser &parser = command.parser();
    AuditTrail::Filter filter;
    if (parser.isSet(sinceOption)) {
        filter.sinceMs = parseTime(parser.value(sinceOption));
        if (!filter.sinceMs)
            return fail(ServerOptions::ExitUsage,
                        QStringLiteral("--since wants an ISO 8601 time, got \"%1\"").arg(parser.value(sinceOption)));
    }
    filter.guid = parser.value(guidOption);
    filter.user = parser.value(userOption);

    DatabaseLocation location;
    QString error;
    if (!DatabaseLocation::parse(storage.database(parser, ServerOptions::defaultBasePath()), &location, &error))
        return fail(ServerOptions::ExitUsage, error);
    // Opening an SQLite file that is not there would make one.
    if (!location.isPostgres() && !QFileInfo(location.file).isFile())
        return fail(ServerOptions::ExitStorage, QStringLiteral("No database at %1").arg(location.file));
    ArchiveDatabase database;
    if (!database.open(location, ArchiveDatabase::Schema::AsFound))
        return fail(ServerOptions::ExitStorage, database.errorString());

    const bool asJson = parser.isSet(jsonOption);
    const QByteArray opening("{\"records\": [\n");
    bool first = true;
    try {
        // The document opens with its first record, so that a trail that
        // cannot be read prints nothing.
        AuditTrail(database).read(filter, [&](const AuditRecord &record) {
            if (asJson)
                print(stdout, (first ? opening : QByteArray(",\n")) + json(record));
            else
                print(stdout, line(record));
            first = false;
        });
    } catch (const RequestFailure &failure) {
        std::fflush(stdout);
        return fail(ServerOptions::ExitStorage, unreadableText(database, failure.text));
    }
    if (asJson)
        print(stdout, (first ? opening : QByteArray()) + "\n]}\n");
    std::fflush(stdout);
    return ServerOptions::ExitOk;
}

} // namespace Kelda
