#pragma once

#include "databaselocation.h"
#include "databaseworker.h"
#include "storagelayout.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace Kelda {

class ArchiveStore;

// Threads that read the files a request names before the request reaches
// the thread that commits changes: AddFile records the digest of the file
// it adds, VerifyFileGroup those of a whole group. Reading a large file takes
// seconds; done here, it holds up no other client's changes. Each thread has
// a database connection of its own to find the group's directory and files.
// The digests travel with the job (RequestOrigin::readings); the job's
// handler on the database thread decides what they mean.
//
// The owner keeps each connection's order: while one of its jobs is here,
// its later requests wait. Hand-overs use the standard mutex and condition
// variable, which thread checkers see.
class DigestPool
{
public:
    // Called on a pool thread with the job, its readings attached.
    using Delivery = std::function<void(DatabaseJob)>;

    DigestPool(int threads, const DatabaseLocation &database, const QString &instanceId, const StorageLayout &layout,
               Delivery delivery);
    ~DigestPool();
    DigestPool(const DigestPool &) = delete;
    DigestPool &operator=(const DigestPool &) = delete;

    // Whether a command's files are read here first.
    static bool readsFilesFor(const QString &command);

    // Reads what the request names, as a pool thread does; for the pool and
    // for tests that drive the engine without threads. plannedDirectory is
    // the directory the group's CreateFileGroup names, when that is still
    // under way on the same connection: the file is read from there, without
    // a look at the database, where the group is not yet. The handler checks
    // that a reading is of the directory the group has, so a creation that
    // fails (the GUID taken, say) leaves its AddFile unread.
    static std::vector<FileReading> read(ArchiveStore &store, const StorageLayout &layout, const Request &request,
                                         const QString &plannedDirectory, const std::atomic<bool> *stop);

    void post(DatabaseJob job);
    // Cuts the reads under way short (their jobs are delivered with failed
    // readings, so that they are answered), delivers what waits the same
    // way, and ends the threads.
    void stopAndWait();

private:
    void serve();
    // Reads the file that reading names (its group, directory, id and name
    // set) and fills in what was found.
    static FileReading readFile(const ConfinedDirectory &directory, FileReading reading, const std::atomic<bool> *stop);

    const DatabaseLocation m_database;
    const QString m_instanceId;
    const StorageLayout m_layout;
    const Delivery m_delivery;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<DatabaseJob> m_queue;
    bool m_stopping = false;
    std::atomic<bool> m_cutShort{false};
    std::vector<std::thread> m_threads;
};

} // namespace Kelda
