#include "audittrail.h"

#include "archivedatabase.h"
#include "archiveschema.h"

#include <QVariant>

namespace Kelda {

namespace {

const QString kColumns =
    QStringLiteral("at_ms, peer_address, certificate_user, claimed_user, application, command, guid, file_id, result");
enum Column { AtMs, PeerAddress, CertificateUser, ClaimedUser, Application, Command, Guid, FileId, Result };

// LIKE treats these as patterns; '!' is this trail's escape.
QString likeLiteral(QString text)
{
    for (const QLatin1String special : {QLatin1String("!"), QLatin1String("%"), QLatin1String("_")})
        text.replace(special, QLatin1String("!") + special);
    return text;
}

// A text column that is never NULL: Qt binds a null QString as NULL.
QVariant text(const QString &value)
{
    return value.isNull() ? QVariant(QString::fromLatin1("")) : QVariant(value);
}

AuditRecord recordFrom(const ResultRows &rows)
{
    AuditRecord record;
    record.atMs = rows.number(AtMs);
    record.peerAddress = rows.text(PeerAddress);
    record.certificateUser = rows.isNull(CertificateUser) ? QString() : rows.text(CertificateUser);
    record.claimedUser = rows.text(ClaimedUser);
    record.application = rows.text(Application);
    record.command = rows.text(Command);
    record.guid = rows.text(Guid);
    if (!rows.isNull(FileId))
        record.fileId = rows.number(FileId);
    record.result = int(rows.number(Result));
    return record;
}

} // namespace

AuditTrail::AuditTrail(ArchiveDatabase &database)
    : m_db(database)
{ }

void AuditTrail::write(const AuditRecord &record)
{
    static const QString insert = QStringLiteral("INSERT INTO %1 (%2) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)")
                                      .arg(ArchiveSchema::AuditTable, kColumns);
    m_db.runLater(insert,
                  {record.atMs, text(record.peerAddress),
                   record.certificateUser.isEmpty() ? QVariant() : QVariant(record.certificateUser),
                   text(record.claimedUser), text(record.application), text(record.command), text(record.guid),
                   record.fileId ? QVariant(*record.fileId) : QVariant(), record.result},
                  KE_DatabaseNotAvailable);
}

void AuditTrail::read(const Filter &filter, const std::function<void(const AuditRecord &)> &visit)
{
    QStringList conditions;
    QVariantList values;
    if (filter.sinceMs) {
        conditions.append(QStringLiteral("at_ms >= ?"));
        values.append(*filter.sinceMs);
    }
    if (!filter.guid.isEmpty()) {
        conditions.append(QStringLiteral("(guid = ? OR ' ' || guid || ' ' LIKE ? ESCAPE '!')"));
        values << filter.guid << QLatin1String("% ") + likeLiteral(filter.guid) + QLatin1String(" %");
    }
    if (!filter.user.isEmpty()) {
        conditions.append(QStringLiteral("(certificate_user = ? OR claimed_user = ?)"));
        values << filter.user << filter.user;
    }
    QString sql = QStringLiteral("SELECT %1 FROM %2").arg(kColumns, ArchiveSchema::AuditTable);
    if (!conditions.isEmpty())
        sql += QStringLiteral(" WHERE ") + conditions.join(QLatin1String(" AND "));
    sql += QStringLiteral(" ORDER BY id");
    m_db.visit(sql, values, KE_DatabaseNotAvailable, [&visit](const ResultRows &rows) { visit(recordFrom(rows)); });
}

} // namespace Kelda
