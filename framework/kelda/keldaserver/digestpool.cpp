#include "digestpool.h"

#include "archivestore.h"
#include "filedigest.h"
#include "keldaxml.h"
#include "requestfailure.h"

#include <trace.h>

namespace Kelda {

namespace {
const char kSource[] = "framework/kelda/keldaserver/digestpool";
}

DigestPool::DigestPool(int threads, const DatabaseLocation &database, const QString &instanceId,
                       const StorageLayout &layout, Delivery delivery)
    : m_database(database)
    , m_instanceId(instanceId)
    , m_layout(layout)
    , m_delivery(std::move(delivery))
{
    for (int i = 0; i < threads; ++i)
        m_threads.emplace_back([this] { serve(); });
}

DigestPool::~DigestPool()
{
    stopAndWait();
}

bool DigestPool::readsFilesFor(const QString &command)
{
    return command == Tag::VerifyFileGroup;
}

bool DigestPool::post(DatabaseJob job)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping)
            return false;
        m_queue.push_back(std::move(job));
    }
    m_wake.notify_one();
    return true;
}

void DigestPool::stopAndWait()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_cutShort = true;
    m_wake.notify_all();
    for (std::thread &thread : m_threads) {
        if (thread.joinable())
            thread.join();
    }
    m_threads.clear();
}

void DigestPool::serve()
{
    ArchiveStore store;
    store.setInstanceId(m_instanceId);
    bool opened = false;
    for (;;) {
        DatabaseJob job;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [this] { return !m_queue.empty() || m_stopping; });
            if (m_queue.empty())
                return;
            job = std::move(m_queue.front());
            m_queue.pop_front();
        }
        if (!opened && !m_cutShort) {
            opened = store.open(m_database);
            if (!opened)
                Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot read files: %1").arg(store.errorString()));
        } else if (opened && store.connectionLost()) {
            store.reopen();
        }
        // Without readings the handler refuses the request as unread.
        if (opened && !m_cutShort && !(job.gate && job.gate->closed.load())) {
            try {
                job.origin.readings = std::make_shared<const std::vector<FileReading>>(
                    read(store, m_layout, job.request, job.directory, &m_cutShort));
            } catch (const RequestFailure &failure) {
                Q_TRACE_FAILURE(kSource, failure.text);
            }
        }
        m_delivery(std::move(job));
    }
}

std::vector<FileReading> DigestPool::read(ArchiveStore &store, const StorageLayout &layout, const Request &request,
                                          const QString &addedTo, const std::atomic<bool> *stop)
{
    std::vector<FileReading> readings;
    const QString guid = request.text(Tag::Guid);
    std::optional<QString> path;
    if (request.command == Tag::AddFile && !addedTo.isEmpty()) {
        path = addedTo;
    } else if (!guid.trimmed().isEmpty()) {
        if (const std::optional<GroupPlace> place = store.groupPlace(guid))
            path = place->path;
    }
    if (!path)
        return readings;
    const auto unread = [&guid, &path](int fileId, const QString &name) {
        FileReading reading;
        reading.guid = guid;
        reading.directory = *path;
        reading.fileId = fileId;
        reading.name = name;
        return reading;
    };
    QString error;
    const ConfinedDirectory directory = layout.openGroupDirectory(*path, ConfinedDirectory::Creation::Existing, &error);
    if (request.command == Tag::AddFile) {
        const QString name = request.text(Tag::FileName);
        // The handler refuses such names and links with reasons of their
        // own; nothing is read for them.
        if (directory.isOpen() && ConfinedDirectory::isPlainName(name) &&
            directory.kindOf(name) == ConfinedDirectory::Kind::Regular)
            readings.push_back(readFile(directory, unread(0, name), stop));
        return readings;
    }
    for (const auto &file : store.files(guid)) {
        FileReading reading = unread(file.second, file.first);
        if (directory.isOpen())
            reading = readFile(directory, reading, stop);
        else
            reading.error = error;
        readings.push_back(reading);
    }
    return readings;
}

FileReading DigestPool::readFile(const ConfinedDirectory &directory, FileReading reading, const std::atomic<bool> *stop)
{
    const std::optional<ConfinedDirectory::Digest> digest =
        directory.digestFile(reading.name, &reading.error, ReadControl{stop, nullptr});
    if (digest) {
        reading.found = true;
        reading.size = digest->size;
        reading.digest = FileDigest::hex(digest->sha256);
    }
    return reading;
}

} // namespace Kelda
