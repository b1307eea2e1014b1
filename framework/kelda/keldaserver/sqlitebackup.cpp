#include "sqlitebackup.h"

#include <QFile>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QUuid>
#include <QVariant>

#include <sqlite3.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace Kelda {

namespace {

// A Qt connection of its own, removed with this object.
class Connection
{
public:
    explicit Connection(const QString &file)
        : m_name(QStringLiteral("backup-") + QUuid::createUuid().toString(QUuid::WithoutBraces))
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_name);
        db.setDatabaseName(file);
        db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=10000"));
    }
    ~Connection() { QSqlDatabase::removeDatabase(m_name); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    QSqlDatabase database() const { return QSqlDatabase::database(m_name, false); }

private:
    QString m_name;
};

// The driver's own handle. Debian's Qt SQLite driver links the system
// libsqlite3, the library this program links, so the handle is usable here.
sqlite3 *handleOf(const QSqlDatabase &db)
{
    const QVariant handle = db.driver()->handle();
    if (!handle.isValid() || qstrcmp(handle.typeName(), "sqlite3*") != 0)
        return nullptr;
    return *static_cast<sqlite3 *const *>(handle.data());
}

QString sqliteError(sqlite3 *db)
{
    return QString::fromUtf8(sqlite3_errmsg(db));
}

bool runBackup(sqlite3 *source, sqlite3 *target, QString *error)
{
    sqlite3_backup *backup = sqlite3_backup_init(target, "main", source, "main");
    if (!backup) {
        *error = sqliteError(target);
        return false;
    }
    // All pages in one step: one read snapshot, never restarted by the
    // server's writes.
    int result = SQLITE_OK;
    for (int attempt = 0; attempt < SqliteBackup::BusyAttempts; ++attempt) {
        result = sqlite3_backup_step(backup, -1);
        if (result != SQLITE_BUSY && result != SQLITE_LOCKED)
            break;
        sqlite3_sleep(SqliteBackup::BusyPauseMs);
    }
    sqlite3_backup_finish(backup);
    if (result != SQLITE_DONE) {
        *error = QString::fromUtf8(sqlite3_errstr(result));
        return false;
    }
    // One self-contained file, whatever the source's journal.
    char *message = nullptr;
    if (sqlite3_exec(target, "PRAGMA journal_mode=DELETE", nullptr, nullptr, &message) != SQLITE_OK) {
        *error = QString::fromUtf8(message);
        sqlite3_free(message);
        return false;
    }
    return true;
}

} // namespace

bool SqliteBackup::copy(const QString &source, const QString &target, QString *error)
{
    // Opening a missing file would create an empty database.
    if (!QFileInfo(source).isFile()) {
        *error = QStringLiteral("No SQLite database at %1").arg(source);
        return false;
    }
    if (QFileInfo::exists(target)) {
        *error = QStringLiteral("%1 exists already").arg(target);
        return false;
    }
    const Connection connection(source);
    QSqlDatabase db = connection.database();
    if (!db.open()) {
        *error = QStringLiteral("Cannot open %1: %2").arg(source, db.lastError().text());
        return false;
    }
    sqlite3 *sourceHandle = handleOf(db);
    if (!sourceHandle) {
        *error = QStringLiteral("Qt's SQLite driver gives no handle for %1").arg(source);
        return false;
    }
    sqlite3 *targetHandle = nullptr;
    const int opened = sqlite3_open_v2(QFile::encodeName(target).constData(), &targetHandle,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    bool ok = opened == SQLITE_OK;
    if (!ok)
        *error = targetHandle ? sqliteError(targetHandle) : QString::fromUtf8(sqlite3_errstr(opened));
    else
        ok = runBackup(sourceHandle, targetHandle, error);
    sqlite3_close(targetHandle);
    db.close();
    if (!ok)
        *error = QStringLiteral("Cannot copy %1 to %2: %3").arg(source, target, *error);
    return ok;
}

bool SqliteBackup::relocate(const QString &databaseFile, const QString &oldBase, const QString &newBase,
                            const QString &oldNas, const QString &newNas, QString *error)
{
    // The deeper root first: the network storage folder usually lies
    // inside the base path.
    std::vector<std::pair<QString, QString>> roots{{oldBase + QLatin1Char('/'), newBase + QLatin1Char('/')},
                                                   {oldNas + QLatin1Char('/'), newNas + QLatin1Char('/')}};
    std::sort(roots.begin(), roots.end(), [](const auto &a, const auto &b) { return a.first.size() > b.first.size(); });
    const Connection connection(databaseFile);
    QSqlDatabase db = connection.database();
    if (!db.open()) {
        *error = QStringLiteral("Cannot open %1: %2").arg(databaseFile, db.lastError().text());
        return false;
    }
    bool ok = false;
    {
        // Groups keep their directory as an absolute path.
        QSqlQuery query(db);
        query.prepare(QStringLiteral("UPDATE file_groups SET path = CASE"
                                     " WHEN substr(path, 1, length(?)) = ? THEN ? || substr(path, length(?) + 1)"
                                     " WHEN substr(path, 1, length(?)) = ? THEN ? || substr(path, length(?) + 1)"
                                     " ELSE path END"));
        for (const auto &root : roots) {
            query.addBindValue(root.first);
            query.addBindValue(root.first);
            query.addBindValue(root.second);
            query.addBindValue(root.first);
        }
        ok = query.exec();
        if (!ok)
            *error = QStringLiteral("Cannot move the group directories in %1: %2")
                         .arg(databaseFile, query.lastError().text());
    }
    db.close();
    return ok;
}

} // namespace Kelda
