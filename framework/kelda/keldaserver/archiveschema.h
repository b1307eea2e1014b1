#pragma once

#include <QString>
#include <QStringList>

namespace Kelda {

class ArchiveDatabase;

// The tables of the archive and their history. Each schema version is one
// step from the version before it; a database is brought from whatever
// version it holds to this build's, in one transaction, and every version
// reached is recorded in schema_version. A database of a later build is
// refused, so that it stays as that build left it.
//
// Servers that share a PostgreSQL database may start together: the first
// to take the schema lock upgrades, the others wait for it and find the
// work done.
class ArchiveSchema
{
public:
    // The version this build writes; adding one means adding its step.
    static constexpr int Version = 9;

    // SQLite's trigram indexes: FTS5 tables over the search keys, whose
    // rowid is the id of the row they index. Locks have one up to version
    // 4 only.
    static const QString GroupTextIndex;
    static const QString LockTextIndex;
    static const QString ReferenceTextIndex;
    // Who changed what, and who was refused: see AuditTrail.
    static const QString AuditTable;
    // The condition a query puts on file_groups.location_state to find the
    // groups in locationState, with one place for the state; qualifier is
    // the table's alias with its dot, or empty. The index of location
    // states leaves out Local, the state of every new group, so for any
    // other state the condition repeats the index's own, which lets both
    // engines use it.
    static QString locationCriterion(const QString &qualifier, int locationState);
    // The condition a query repeats to look in the index of group
    // directories: it holds only the directories that name a GUID other
    // than their group's (see ArchiveStore::newGroupConflicts).
    static const QString IndexedDirectories;
    // A group's directory as the index of directories orders it, and as a
    // look in that index must name it: byte by byte, as the file system
    // names directories.
    static QString pathColumn(bool postgres);

    explicit ArchiveSchema(ArchiveDatabase &database);

    // On SQLite the triggers of a trigram index note the rows that change
    // in its pending table, and a commit hands them to the index once
    // TextFlushRows have gathered: an index segment per commit cost every
    // new group several page writes. A search takes the pending rows as
    // candidates beside those the index finds (its exact test follows
    // anyway). pendingTextCheck answers one row with a column for each such
    // index (deferredTextIndexCount of them), true when enough rows wait
    // for it (all: when any does); textIndexFlush(column) are the
    // statements that hand them over.
    static constexpr int TextFlushRows = 128;
    static int deferredTextIndexCount();
    static const QString &pendingTextCheck(bool all);
    static const QStringList &textIndexFlush(int index);
    static QString pendingTextTable(const QString &index);

    // Throws RequestFailure; tooNew() tells when the reason is a schema
    // newer than Version.
    void update();
    bool tooNew() const { return m_tooNew; }
    // The version the database holds, 0 for none; throws RequestFailure.
    int storedVersion();

private:
    using Step = void (ArchiveSchema::*)();
    static const Step Steps[];

    void upgrade();
    void createVersion1();
    void indexSearchCriteria();
    void recordFileDigests();
    void ensureTrigramIndexes();
    void createAuditTrail();
    void deferTextIndexUpdates();
    void dropPerChangeIndexes();
    void writeFewerPagesPerChange();
    void indexMovedGroupsOnly();
    void indexDirectoriesNamingOtherGuids();

    void rebuildWithRowIds(const QString &table, const QString &definition, const QString &columns,
                           const QStringList &indexes);
    void rebuildByKey(const QString &table, const QString &definition, const QString &columns,
                      const QStringList &indexes);
    // The table renamed, created anew as "CREATE TABLE table shape", its
    // rows copied and the old one dropped.
    void rebuildAs(const QString &table, const QString &shape, const QString &columns, const QStringList &indexes);
    void createTextIndex(const QString &table, const QString &index, const QStringList &columns, const QString &detail);
    // Triggers named after index: insert runs for each row the table gains,
    // remove for each it loses, both for a row whose columns change.
    void createTriggers(const QString &index, const QString &table, const QString &columns, const QString &insert,
                        const QString &remove);
    // The statements in a savepoint of their own; the reason they failed,
    // or empty.
    QString tryRun(const QStringList &statements);
    void run(const QString &sql);

    ArchiveDatabase &m_db;
    bool m_tooNew = false;
};

} // namespace Kelda
