#include "databaseworker.h"

#include "audittrail.h"
#include "filedigest.h"
#include "keldaxml.h"
#include "replywriter.h"
#include "requestfailure.h"

#include <trace.h>

#include <QSet>

#include <algorithm>

#include <chrono>

namespace Kelda {

namespace {
const char kSource[] = "framework/kelda/keldaserver/databaseworker";
const QString kUnreachable = QStringLiteral("The archive database is not reachable; the server keeps trying");
const QString kUnsaved = QStringLiteral("The change could not be saved");
const QString kUnrecorded = QStringLiteral("The change could not be recorded in the audit trail");

std::chrono::microseconds microsecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
}
} // namespace

qint64 DatabaseAnswer::size() const
{
    return spool ? spool->size() : reply.size();
}

DatabaseWorker::DatabaseWorker(Role role, const DatabaseLocation &database, const QString &instanceId,
                               const StorageLayout &layout, Delivery delivery, HandOff handOff)
    : m_role(role)
    , m_database(database)
    , m_instanceId(instanceId)
    , m_layout(layout)
    , m_delivery(std::move(delivery))
    , m_handOff(std::move(handOff))
{
    setObjectName(role == Role::Writer ? QStringLiteral("databaseThread") : QStringLiteral("readerThread"));
}

DatabaseWorker::~DatabaseWorker()
{
    finishAndWait();
}

bool DatabaseWorker::open()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_state = State::Opening;
    }
    start();
    std::unique_lock<std::mutex> lock(m_mutex);
    m_stateChanged.wait(lock, [this] { return m_state != State::Opening; });
    return m_state == State::Open;
}

void DatabaseWorker::post(DatabaseJob job)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.push_back(std::move(job));
    }
    m_wake.notify_one();
}

void DatabaseWorker::postFirst(DatabaseJob job)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.push_front(std::move(job));
    }
    m_wake.notify_one();
}

void DatabaseWorker::finish()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_finishing = true;
    }
    m_wake.notify_one();
}

void DatabaseWorker::finishAndWait()
{
    finish();
    wait();
    // run() ends by recording that under the mutex: taking it here as well
    // orders the thread's last writes before what follows for thread
    // checkers, which cannot see inside QThread::wait().
    const std::lock_guard<std::mutex> lock(m_mutex);
}

std::deque<DatabaseJob> DatabaseWorker::takeBatch(int idleTimeoutMs, bool *finishing)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto ready = [this] { return !m_queue.empty() || m_finishing; };
    if (idleTimeoutMs < 0)
        m_wake.wait(lock, ready);
    else
        m_wake.wait_for(lock, std::chrono::milliseconds(idleTimeoutMs), ready);
    *finishing = m_finishing;
    // When several connections were changing things a moment ago, their
    // next changes are on their way: waiting a little for them lets one
    // flush serve them all instead of one flush each.
    if (m_role == Role::Writer && m_recentWriters > 1) {
        const auto deadline = std::chrono::steady_clock::now() + m_gather;
        m_wake.wait_until(lock, deadline, [this] { return int(m_queue.size()) >= m_recentWriters || m_finishing; });
    }
    std::deque<DatabaseJob> batch;
    if (int(m_queue.size()) <= MaxBatch) {
        batch.swap(m_queue);
    } else {
        for (int i = 0; i < MaxBatch; ++i) {
            batch.push_back(std::move(m_queue.front()));
            m_queue.pop_front();
        }
    }
    return batch;
}

void DatabaseWorker::run()
{
    serve();
    FileDigest::releaseThreadState();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_state = State::Ended;
}

void DatabaseWorker::serve()
{
    ArchiveStore store;
    store.setInstanceId(m_instanceId);
    store.setLocksGroups(m_role == Role::Writer && m_database.isPostgres());
    if (m_writerIndex > 0) {
        store.database().setHoldsLiveness(false);
        store.database().setCommitMarkId(QStringLiteral("%1/%2").arg(m_instanceId).arg(m_writerIndex));
    }
    store.database().setTroubleCounters(m_errorCounter, m_reconnectCounter);
    ArchiveEngine engine(store, m_layout);
    engine.setAccessRules(m_rules);
    engine.setSpoolFolder(m_spoolFolder);
    AuditTrail trail(store.database());
    const bool opened = store.open(m_database);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (opened && m_role == Role::Writer && m_writerIndex == 0) {
            try {
                store.begin();
                m_unfinishedMoves = engine.unfinishedMoves();
                if (!store.commit())
                    m_unfinishedMoves.clear();
            } catch (const RequestFailure &failure) {
                store.rollback();
                Q_TRACE_FAILURE(kSource, failure.text);
            }
        } else if (!opened) {
            m_error = store.errorString();
        }
        m_state = opened ? State::Open : State::Failed;
    }
    m_stateChanged.notify_all();
    if (!opened)
        return;
    m_store = &store;
    m_engine = &engine;
    m_trail = &trail;
    for (;;) {
        if (!m_heldMoves.empty() && !store.connectionLost()) {
            for (DatabaseJob &job : m_heldMoves)
                post(std::move(job));
            m_heldMoves.clear();
        }
        bool finishing = false;
        // A lost database is sought again also while nobody asks.
        std::deque<DatabaseJob> batch = takeBatch(store.connectionLost() ? m_reconnectPauseMs : -1, &finishing);
        if (batch.empty()) {
            if (finishing)
                break;
            ensureConnected();
            continue;
        }
        if (m_role == Role::Writer)
            m_delivery(carryOut(batch));
        else
            read(batch);
    }
    if (m_role == Role::Writer && m_database.isPostgres() && !store.connectionLost()) {
        try {
            store.dropCommitMark();
        } catch (const RequestFailure &failure) {
            Q_TRACE_FAILURE(kSource, failure.text);
        }
    }
    m_store = nullptr;
    m_engine = nullptr;
    m_trail = nullptr;
}

bool DatabaseWorker::ensureConnected()
{
    if (!m_store->connectionLost())
        return true;
    if (m_sinceReconnect.isValid() && m_sinceReconnect.elapsed() < m_reconnectPauseMs)
        return false;
    return reconnect();
}

bool DatabaseWorker::reconnect()
{
    m_sinceReconnect.start();
    if (m_store->reopen()) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Reconnected to the database %1").arg(m_database.displayName()));
        m_reconnectPauseMs = FirstReconnectMs;
        return true;
    }
    Q_TRACE_FAILURE(kSource,
                    QStringLiteral("%1; next attempt in %2 ms").arg(m_store->errorString()).arg(m_reconnectPauseMs));
    m_reconnectPauseMs = qMin(2 * m_reconnectPauseMs, int(MaxReconnectMs));
    return false;
}

void DatabaseWorker::recordReadings(const DatabaseJob &job, RequestOutcome &outcome)
{
    if (!job.origin.readings)
        return;
    std::map<QString, std::vector<FileReading>> byGroup;
    for (const FileReading &reading : *job.origin.readings)
        byGroup[reading.guid].push_back(reading);
    auto recorded = std::make_shared<std::vector<FileCheck>>();
    for (const auto &group : byGroup) {
        for (const FileCheck &check : m_engine->recordReadings(group.first, group.second)) {
            const bool read = std::any_of(group.second.begin(), group.second.end(),
                                          [&check](const FileReading &r) { return r.fileId == check.fileId; });
            if (read)
                recorded->push_back(check);
        }
    }
    if (job.recorded)
        outcome.afterCommit.push_back([tell = job.recorded, recorded] { tell(*recorded); });
}

DatabaseAnswer DatabaseWorker::failedAnswer(const DatabaseJob &job, const QString &text)
{
    DatabaseAnswer answer;
    answer.connectionId = job.origin.connectionId;
    answer.sequence = job.origin.sequence;
    if (job.kind == DatabaseJob::Kind::Request)
        answer.reply = ReplyWriter::status(job.request.command, job.request.requestId, KE_DatabaseNotAvailable, text);
    return answer;
}

bool DatabaseWorker::isDropped(const DatabaseJob &job)
{
    return job.gate && job.gate->closed.load();
}

void DatabaseWorker::read(std::deque<DatabaseJob> &batch)
{
    std::vector<DatabaseAnswer> answers;
    ensureConnected();
    readHeld(answers);
    for (DatabaseJob &job : batch) {
        if (job.kind == DatabaseJob::Kind::Ping) {
            job.pinged(ping());
            continue;
        }
        if (job.kind != DatabaseJob::Kind::Request || m_abandonReads || isDropped(job))
            continue;
        const auto held = m_held.find(job.origin.connectionId);
        if (held != m_held.end())
            held->second.push_back(std::move(job));
        else
            readOrHold(job, answers);
    }
    deliverReads(answers, true);
}

void DatabaseWorker::readHeld(std::vector<DatabaseAnswer> &answers)
{
    for (auto it = m_held.begin(); it != m_held.end();) {
        std::deque<DatabaseJob> &jobs = it->second;
        while (!jobs.empty()) {
            if (m_abandonReads || isDropped(jobs.front())) {
                jobs.clear();
                break;
            }
            if (!readOrHold(jobs.front(), answers))
                break;
            jobs.pop_front();
        }
        it = jobs.empty() ? m_held.erase(it) : std::next(it);
    }
}

bool DatabaseWorker::readOrHold(DatabaseJob &job, std::vector<DatabaseAnswer> &answers)
{
    ConnectionGate *const gate = job.gate.get();
    if (gate && gate->overBacklog()) {
        // Marked before the second look, so that a client that reads in
        // between either shows here or finds the mark and wakes this
        // thread.
        gate->held = true;
        if (gate->overBacklog()) {
            auto &held = m_held[job.origin.connectionId];
            if (held.empty() || &held.front() != &job)
                held.push_back(std::move(job));
            return false;
        }
    }
    DatabaseAnswer answer;
    if (m_store->connectionLost() && !ensureConnected()) {
        answer = failedAnswer(job, kUnreachable);
    } else {
        answer.connectionId = job.origin.connectionId;
        answer.sequence = job.origin.sequence;
        readOne(job, answer);
        // Reading changes nothing: after a connection that was lost while
        // idle, the read may simply run again on a fresh one.
        if (m_store->connectionLost() && ensureConnected())
            readOne(job, answer);
    }
    if (gate)
        gate->built += answer.size();
    answers.push_back(std::move(answer));
    deliverReads(answers, false);
    return true;
}

void DatabaseWorker::deliverReads(std::vector<DatabaseAnswer> &answers, bool always)
{
    if (answers.empty())
        return;
    if (!always) {
        // A spooled answer leaves at once: its client waits for it, and
        // the bytes are on disk rather than in memory.
        qint64 bytes = 0;
        for (const DatabaseAnswer &answer : answers)
            bytes += answer.spool ? ReadDeliveryBytes : answer.reply.size();
        if (bytes < ReadDeliveryBytes)
            return;
    }
    m_delivery(std::make_shared<std::vector<DatabaseAnswer>>(std::move(answers)));
    answers.clear();
}

void DatabaseWorker::readOne(const DatabaseJob &job, DatabaseAnswer &answer)
{
    RequestOutcome outcome;
    try {
        m_engine->handle(job.request, job.origin, outcome);
    } catch (const RequestFailure &failure) {
        outcome.reply = ReplyWriter::status(job.request.command, job.request.requestId, failure.code, failure.text);
    }
    if (outcome.refused && m_handOff) {
        DatabaseJob record;
        record.kind = DatabaseJob::Kind::Audit;
        record.audit = AuditRecord::of(job.request, job.origin, outcome.code);
        m_handOff(std::move(record));
    }
    answer.reply = std::move(outcome.reply);
    answer.spool = std::move(outcome.spool);
}

bool DatabaseWorker::ping()
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (m_store->connectionLost() && !ensureConnected())
            return false;
        bool answered = false;
        try {
            m_store->database().visit(QStringLiteral("SELECT 1"), {}, KE_DatabaseNotAvailable,
                                      [&answered](const ResultRows &) { answered = true; });
            return answered;
        } catch (const RequestFailure &) {
            // A connection lost while idle shows only now: one fresh try.
            if (!m_store->connectionLost())
                return false;
        }
    }
    return false;
}

std::shared_ptr<std::vector<DatabaseAnswer>> DatabaseWorker::carryOut(std::deque<DatabaseJob> &batch)
{
    unpark(batch);
    QSet<quint64> writers;
    for (const DatabaseJob &job : batch) {
        if (job.kind == DatabaseJob::Kind::Request && !job.readOnly)
            writers.insert(job.origin.connectionId);
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_recentWriters = writers.size();
    }
    std::vector<DatabaseJob> deferred;
    for (auto it = batch.begin(); it != batch.end();) {
        if (it->kind == DatabaseJob::Kind::Wake || it->kind == DatabaseJob::Kind::Ping || isDropped(*it)) {
            it = batch.erase(it);
        } else if (it->readOnly) {
            deferred.push_back(std::move(*it));
            it = batch.erase(it);
        } else {
            ++it;
        }
    }
    const auto handOffDeferred = [this, &deferred] {
        for (DatabaseJob &job : deferred) {
            if (waitsForRead(job))
                park(std::move(job));
            else
                m_handOff(std::move(job));
        }
    };
    auto answers = std::make_shared<std::vector<DatabaseAnswer>>();
    answers->reserve(batch.size());
    std::vector<DatabaseJob *> pending;
    for (DatabaseJob &job : batch)
        pending.push_back(&job);
    for (int round = 0; !pending.empty(); ++round)
        pending = transact(pending, round < MaxRetries, *answers);
    handOffDeferred();
    return answers;
}

std::vector<DatabaseJob *> DatabaseWorker::transact(const std::vector<DatabaseJob *> &jobs, bool mayRetry,
                                                    std::vector<DatabaseAnswer> &answers)
{
    // Parked or at the pool: answered later.
    std::vector<bool> later(jobs.size(), false);
    const auto failAll = [&](const QString &text) {
        for (size_t i = 0; i < jobs.size(); ++i) {
            const DatabaseJob *job = jobs[i];
            if (later[i])
                continue;
            if (job->kind == DatabaseJob::Kind::MoveFinished && m_store->connectionLost())
                m_heldMoves.push_back(*job);
            answers.push_back(failedAnswer(*job, text));
        }
        return std::vector<DatabaseJob *>();
    };
    if (!ensureConnected())
        return failAll(kUnreachable);
    // A database that went away while this worker was idle shows first at
    // BEGIN; nothing is done yet, so a fresh connection may take over.
    for (bool first = true;; first = false) {
        try {
            m_store->begin();
            break;
        } catch (const RequestFailure &failure) {
            if (first && m_store->connectionLost() && reconnect())
                continue;
            Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot begin a transaction: %1").arg(failure.text));
            return failAll(kUnsaved);
        }
    }
    std::vector<DatabaseAnswer> done(jobs.size());
    std::vector<bool> again(jobs.size(), false);
    std::vector<std::function<void()>> afterCommit;
    for (size_t i = 0; i < jobs.size() && !m_store->connectionLost(); ++i) {
        if (waitsForRead(*jobs[i])) {
            park(std::move(*jobs[i]));
            later[i] = true;
            continue;
        }
        const Carried carried = carryOutOne(*jobs[i], done[i], afterCommit, mayRetry);
        later[i] = carried == Carried::Reading;
        again[i] = carried == Carried::Again && mayRetry;
    }
    const auto flushing = std::chrono::steady_clock::now();
    const bool committed = !m_store->connectionLost() && commitBatch();
    // Waiting for more changes pays only while it is shorter than the
    // flush it saves.
    m_gather = std::min(microsecondsSince(flushing), std::chrono::microseconds(GatherMicroseconds));
    if (!committed) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Commit failed: %1").arg(m_store->errorString()));
        // Nothing of this transaction is saved: no job may be confirmed.
        return failAll(kUnsaved);
    }
    for (const auto &action : afterCommit)
        action();
    std::vector<DatabaseJob *> retries;
    for (size_t i = 0; i < jobs.size(); ++i) {
        if (again[i])
            retries.push_back(jobs[i]);
        else if (!later[i])
            answers.push_back(std::move(done[i]));
    }
    return retries;
}

void DatabaseWorker::unpark(std::deque<DatabaseJob> &batch)
{
    if (m_reading.empty())
        return;
    std::deque<DatabaseJob> ordered;
    for (DatabaseJob &job : batch) {
        const quint64 connection = job.origin.connectionId;
        if (job.returnsRead) {
            m_reading.erase(connection);
            ordered.push_back(std::move(job));
            const auto parked = m_parked.find(connection);
            if (parked == m_parked.end())
                continue;
            for (DatabaseJob &waiting : parked->second)
                ordered.push_back(std::move(waiting));
            m_parked.erase(parked);
        } else if (waitsForRead(job)) {
            park(std::move(job));
        } else {
            ordered.push_back(std::move(job));
        }
    }
    batch.swap(ordered);
}

bool DatabaseWorker::waitsForRead(const DatabaseJob &job) const
{
    if (job.kind != DatabaseJob::Kind::Request || job.returnsRead)
        return false;
    const auto reading = m_reading.find(job.origin.connectionId);
    return reading != m_reading.end() && job.origin.sequence > reading->second;
}

void DatabaseWorker::park(DatabaseJob job)
{
    std::vector<DatabaseJob> &parked = m_parked[job.origin.connectionId];
    const auto place =
        std::upper_bound(parked.begin(), parked.end(), job.origin.sequence,
                         [](quint64 sequence, const DatabaseJob &other) { return sequence < other.origin.sequence; });
    parked.insert(place, std::move(job));
}

bool DatabaseWorker::sendToRead(const DatabaseJob &job, const QString &directory)
{
    if (!m_readFiles)
        return false;
    DatabaseJob reading = job;
    reading.directory = directory;
    reading.returnsRead = true;
    // With readings, even none, the handler takes what the pool found and
    // never sends the request back.
    reading.origin.readings = std::make_shared<const std::vector<FileReading>>();
    if (!m_readFiles(std::move(reading)))
        return false;
    m_reading[job.origin.connectionId] = job.origin.sequence;
    return true;
}

bool DatabaseWorker::commitBatch()
{
    if (!m_database.isPostgres())
        return m_store->commit();
    const qint64 token = ++m_commitToken;
    try {
        m_store->writeCommitMark(token);
    } catch (const RequestFailure &failure) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot mark the commit: %1").arg(failure.text));
        m_store->rollback();
        return false;
    }
    if (m_store->commit())
        return true;
    if (!m_store->connectionLost())
        return false;
    // The COMMIT may have been carried out before the connection broke.
    // Answering an error for a saved change would be as wrong as
    // confirming a lost one: look, as long as the client can wait.
    QElapsedTimer looking;
    looking.start();
    while (looking.elapsed() < CommitCheckMs) {
        if (m_store->reopen()) {
            m_reconnectPauseMs = FirstReconnectMs;
            try {
                const bool saved = m_store->hasCommitMark(token);
                Q_TRACE_FAILURE(kSource,
                                saved ? QStringLiteral("The commit without answer was saved")
                                      : QStringLiteral("The commit without answer was lost"));
                return saved;
            } catch (const RequestFailure &failure) {
                Q_TRACE_FAILURE(kSource, failure.text);
            }
        }
        QThread::msleep(quint64(m_reconnectPauseMs));
        m_reconnectPauseMs = qMin(2 * m_reconnectPauseMs, int(MaxReconnectMs));
    }
    Q_TRACE_FAILURE(kSource,
                    QStringLiteral("The outcome of a commit stays unknown: the database %1 is unreachable")
                        .arg(m_database.displayName()));
    m_sinceReconnect.start();
    return false;
}

bool DatabaseWorker::recordChange(const DatabaseJob &job, RequestOutcome &outcome)
{
    try {
        m_trail->write(AuditRecord::of(job.request, job.origin, outcome.code, outcome.fileId));
        return true;
    } catch (const RequestFailure &failure) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("%1: %2").arg(kUnrecorded, failure.text));
        outcome = RequestOutcome();
        outcome.code = KE_DatabaseNotAvailable;
        outcome.reply = ReplyWriter::status(job.request.command, job.request.requestId, outcome.code, kUnrecorded);
        return false;
    }
}

void DatabaseWorker::recordUnchanged(const AuditRecord &record)
{
    try {
        m_trail->write(record);
    } catch (const RequestFailure &failure) {
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("Cannot record %1 from %2 in the audit trail: %3")
                            .arg(record.command, record.peerAddress, failure.text));
    }
}

DatabaseWorker::Carried DatabaseWorker::carryOutOne(DatabaseJob &job, DatabaseAnswer &answer,
                                                    std::vector<std::function<void()>> &afterCommit, bool mayRetry)
{
    answer.connectionId = job.origin.connectionId;
    answer.sequence = job.origin.sequence;
    try {
        m_store->savepoint();
    } catch (const RequestFailure &failure) {
        if (job.kind == DatabaseJob::Kind::Request)
            answer.reply = ReplyWriter::status(job.request.command, job.request.requestId, failure.code, failure.text);
        return Carried::Done;
    }
    bool ok = true;
    RequestOutcome outcome;
    try {
        switch (job.kind) {
        case DatabaseJob::Kind::Request:
            ok = m_engine->handle(job.request, job.origin, outcome) && recordChange(job, outcome);
            break;
        case DatabaseJob::Kind::MoveProgress:
            m_engine->moveProgressed(job.guid, job.percent);
            break;
        case DatabaseJob::Kind::MoveFinished:
            m_engine->moveFinished(job.guid, job.directory, job.ok);
            break;
        case DatabaseJob::Kind::RecordReadings:
            recordReadings(job, outcome);
            break;
        case DatabaseJob::Kind::Wake:
        case DatabaseJob::Kind::Ping:
            break;
        case DatabaseJob::Kind::Audit:
            m_trail->write(job.audit);
            break;
        }
    } catch (const RequestFailure &failure) {
        Q_TRACE_FAILURE(kSource, failure.text);
        ok = false;
    }
    try {
        if (ok)
            m_store->releaseSavepoint();
        else
            m_store->rollbackToSavepoint();
    } catch (const RequestFailure &failure) {
        Q_TRACE_FAILURE(kSource, failure.text);
    }
    if (!ok && !outcome.readFirstIn.isEmpty()) {
        if (sendToRead(job, outcome.readFirstIn))
            return Carried::Reading;
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("%1 %2 failed: the server reads no large files while it stops")
                            .arg(job.request.command, job.request.requestId));
    }
    // A request that will run again is recorded when it has run for good.
    if (!ok && job.kind == DatabaseJob::Kind::Request && !(outcome.retry && mayRetry))
        recordUnchanged(AuditRecord::of(job.request, job.origin, outcome.code));
    answer.reply = std::move(outcome.reply);
    if (!ok)
        return outcome.retry ? Carried::Again : Carried::Done;
    for (auto &action : outcome.afterCommit)
        afterCommit.push_back(std::move(action));
    answer.newGroups = std::move(outcome.newGroups);
    answer.moves = std::move(outcome.moves);
    answer.registersConverter = outcome.registersConverter;
    answer.converterTypes = outcome.converterTypes;
    return Carried::Done;
}

} // namespace Kelda
