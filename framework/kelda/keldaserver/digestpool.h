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

// Threads that read the files a request names before the thread that
// commits changes carries it out: VerifyFileGroup reads a whole group, and an
// AddFile whose file is too large to read on that thread is read here and
// then carried out again. Reading a large file takes seconds; done here, it
// holds up no other client's changes. Each thread has a database connection
// of its own to find the group's directory and files. The digests travel
// with the job (RequestOrigin::readings); the job's handler on the database
// thread decides what they mean.
//
// Each connection has at most one job here at a time, and what it sends
// meanwhile waits, so its order is kept. Hand-overs use the standard mutex
// and condition variable, which thread checkers see.
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

    // Whether a command's files are always read here first.
    static bool readsFilesFor(const QString &command);

    // Reads what the request names, as a pool thread does; for the pool and
    // for tests that drive the engine without threads. addedTo is where
    // the writer found an added file's group, whose creation may not be
    // committed yet: the file is read there without a look at the
    // database. The handler checks that a reading is of the directory the
    // group has when the request is carried out again.
    static std::vector<FileReading> read(ArchiveStore &store, const StorageLayout &layout, const Request &request,
                                         const QString &addedTo, const std::atomic<bool> *stop);

    // False once the pool is stopping: the job is not taken.
    bool post(DatabaseJob job);
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
