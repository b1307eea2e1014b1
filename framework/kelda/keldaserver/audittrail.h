#pragma once

#include "auditrecord.h"

#include <QString>

#include <functional>
#include <optional>

namespace Kelda {

class ArchiveDatabase;

// The audit trail in the archive's database: every change a client asked
// for, and every request the ownership rules refused, with who asked and
// what came of it. A record is written inside the transaction of the
// change it records, so that the two are saved together or not at all.
class AuditTrail
{
public:
    explicit AuditTrail(ArchiveDatabase &database);

    // Inside the caller's transaction; throws RequestFailure.
    void write(const AuditRecord &record);

    // Which records to read; empty parts select every record.
    struct Filter
    {
        std::optional<qint64> sinceMs;
        // One of the file groups the request named.
        QString guid;
        // The certificate's user or the claimed one.
        QString user;
    };
    // Calls visit for every match, in the order written; throws
    // RequestFailure.
    void read(const Filter &filter, const std::function<void(const AuditRecord &)> &visit);

private:
    ArchiveDatabase &m_db;
};

} // namespace Kelda
