#include "fixitychecker.h"

#include "archivestore.h"
#include "filedigest.h"
#include "readpace.h"
#include "requestfailure.h"

#include <trace.h>

#include <QDateTime>

#include <chrono>

namespace Kelda {

namespace {
const char kSource[] = "framework/kelda/keldaserver/fixitychecker";
}

FixityChecker::FixityChecker(const DatabaseLocation &database, const QString &instanceId, const StorageLayout &layout,
                             const Settings &settings, Record record, Observer observer)
    : m_database(database)
    , m_instanceId(instanceId)
    , m_layout(layout)
    , m_settings(settings)
    , m_record(std::move(record))
    , m_observer(std::move(observer))
{ }

FixityChecker::~FixityChecker()
{
    stopAndWait();
}

void FixityChecker::start()
{
    m_thread = std::thread([this] { serve(); });
}

void FixityChecker::stopAndWait()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

bool FixityChecker::pause(qint64 ms)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return !m_wake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_stop.load(); });
}

void FixityChecker::serve()
{
    ArchiveStore store;
    store.setInstanceId(m_instanceId);
    while (!store.open(m_database)) {
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("The background check waits for the database: %1").arg(store.errorString()));
        if (!pause(RetryMs))
            return;
    }
    while (!m_stop) {
        bool checked = false;
        try {
            checked = checkDueFiles(store);
        } catch (const RequestFailure &failure) {
            Q_TRACE_FAILURE(kSource, failure.text);
            if (store.connectionLost())
                store.reopen();
        }
        if (!checked && !pause(std::min(IdleLookMs, m_settings.intervalMs)))
            return;
    }
}

bool FixityChecker::checkDueFiles(ArchiveStore &store)
{
    const qint64 due = QDateTime::currentMSecsSinceEpoch() - m_settings.intervalMs;
    const std::vector<DueFile> files = store.dueFiles(due, BatchFiles);
    ReadPace pace(m_settings.bytesPerSecond);
    for (const DueFile &file : files) {
        const FileReading reading = read(file, pace);
        // A read cut short by the stop says nothing about the file.
        if (m_stop)
            return true;
        recordAndWait(reading);
    }
    return !files.empty();
}

FileReading FixityChecker::read(const DueFile &file, ReadPace &pace) const
{
    FileReading reading;
    reading.guid = file.guid;
    reading.directory = file.directory;
    reading.fileId = file.fileId;
    reading.name = file.name;
    const ConfinedDirectory directory =
        m_layout.openGroupDirectory(file.directory, ConfinedDirectory::Creation::Existing, &reading.error);
    if (!directory.isOpen())
        return reading;
    const std::optional<ConfinedDirectory::Digest> digest =
        directory.digestFile(file.name, &reading.error, ReadControl{&m_stop, &pace});
    if (digest) {
        reading.found = true;
        reading.size = digest->size;
        reading.digest = FileDigest::hex(digest->sha256);
    }
    return reading;
}

void FixityChecker::recordAndWait(const FileReading &reading)
{
    quint64 expected = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        expected = m_recordedCount + 1;
    }
    DatabaseJob job;
    job.kind = DatabaseJob::Kind::RecordReadings;
    job.origin.readings = std::make_shared<const std::vector<FileReading>>(1, reading);
    job.recorded = [this](const std::vector<FileCheck> &checks) {
        if (m_observer) {
            for (const FileCheck &check : checks)
                m_observer(check.state);
        }
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            ++m_recordedCount;
        }
        m_wake.notify_all();
    };
    m_record(std::move(job));
    // Choosing the next files before this result is in would choose this
    // file again.
    std::unique_lock<std::mutex> lock(m_mutex);
    m_wake.wait_for(lock, std::chrono::milliseconds(RecordWaitMs),
                    [&] { return m_recordedCount >= expected || m_stop.load(); });
}

} // namespace Kelda
