#include "databaseworker.h"

#include "keldaxml.h"
#include "replywriter.h"
#include "requestfailure.h"

#include <trace.h>

#include <QSet>

#include <chrono>

namespace Kelda {

namespace {
const char kSource[] = "framework/kelda/keldaserver/databaseworker";
}

DatabaseWorker::DatabaseWorker(Role role, const QString &databaseFile, const StorageLayout &layout,
                               Delivery delivery, HandOff handOff)
    : m_role(role)
    , m_databaseFile(databaseFile)
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

std::deque<DatabaseJob> DatabaseWorker::takeBatch()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_wake.wait(lock, [this] { return !m_queue.empty() || m_finishing; });
    // When several connections were changing things a moment ago, their
    // next changes are on their way: waiting a little for them lets one
    // flush serve them all instead of one flush each.
    if (m_role == Role::Writer && m_recentWriters > 1) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::microseconds(GatherMicroseconds);
        m_wake.wait_until(lock, deadline,
                          [this] { return int(m_queue.size()) >= m_recentWriters || m_finishing; });
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
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_state = State::Ended;
}

void DatabaseWorker::serve()
{
    ArchiveStore store;
    ArchiveEngine engine(store, m_layout);
    const bool opened = store.open(m_databaseFile);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (opened && m_role == Role::Writer) {
            try {
                m_unfinishedMoves = engine.unfinishedMoves();
            } catch (const RequestFailure &failure) {
                Q_TRACE_FAILURE(kSource, failure.text);
            }
        } else {
            m_error = store.errorString();
        }
        m_state = opened ? State::Open : State::Failed;
    }
    m_stateChanged.notify_all();
    if (!opened)
        return;
    m_store = &store;
    m_engine = &engine;
    for (;;) {
        std::deque<DatabaseJob> batch = takeBatch();
        if (batch.empty())
            break;
        m_delivery(m_role == Role::Writer ? carryOut(batch) : read(batch));
    }
    m_store = nullptr;
    m_engine = nullptr;
}

std::shared_ptr<std::vector<DatabaseAnswer>> DatabaseWorker::read(std::deque<DatabaseJob> &batch)
{
    auto answers = std::make_shared<std::vector<DatabaseAnswer>>(batch.size());
    for (size_t i = 0; i < batch.size(); ++i) {
        DatabaseAnswer &answer = (*answers)[i];
        answer.connectionId = batch[i].origin.connectionId;
        answer.sequence = batch[i].origin.sequence;
        RequestOutcome outcome;
        try {
            m_engine->handle(batch[i].request, batch[i].origin, outcome);
        } catch (const RequestFailure &failure) {
            outcome.reply = ReplyWriter::status(batch[i].request.command, batch[i].request.requestId, failure.code,
                                                failure.text);
        }
        answer.reply = std::move(outcome.reply);
    }
    return answers;
}

std::shared_ptr<std::vector<DatabaseAnswer>> DatabaseWorker::carryOut(std::deque<DatabaseJob> &batch)
{
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
        if (it->readOnly) {
            deferred.push_back(std::move(*it));
            it = batch.erase(it);
        } else {
            ++it;
        }
    }
    const auto handOffDeferred = [this, &deferred] {
        for (DatabaseJob &job : deferred)
            m_handOff(std::move(job));
    };
    auto answers = std::make_shared<std::vector<DatabaseAnswer>>(batch.size());
    std::vector<std::function<void()>> afterCommit;
    bool begun = true;
    try {
        m_store->begin();
    } catch (const RequestFailure &failure) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot begin a transaction: %1").arg(failure.text));
        begun = false;
    }
    if (begun) {
        for (size_t i = 0; i < batch.size(); ++i)
            carryOutOne(batch[i], (*answers)[i], afterCommit);
    }
    if (begun && m_store->commit()) {
        for (const auto &action : afterCommit)
            action();
        handOffDeferred();
        return answers;
    }
    handOffDeferred();
    if (begun)
        Q_TRACE_FAILURE(kSource, QStringLiteral("Commit failed: %1").arg(m_store->errorString()));
    // Nothing of this batch is saved: no job may be confirmed.
    for (size_t i = 0; i < batch.size(); ++i) {
        DatabaseAnswer &answer = (*answers)[i];
        const DatabaseJob &job = batch[i];
        answer = DatabaseAnswer{};
        answer.connectionId = job.origin.connectionId;
        answer.sequence = job.origin.sequence;
        if (job.kind == DatabaseJob::Kind::Request)
            answer.reply = ReplyWriter::status(job.request.command, job.request.requestId, KE_DatabaseNotAvailable,
                                               QStringLiteral("The change could not be saved"));
    }
    return answers;
}

void DatabaseWorker::carryOutOne(DatabaseJob &job, DatabaseAnswer &answer,
                                 std::vector<std::function<void()>> &afterCommit)
{
    answer.connectionId = job.origin.connectionId;
    answer.sequence = job.origin.sequence;
    try {
        m_store->savepoint();
    } catch (const RequestFailure &failure) {
        if (job.kind == DatabaseJob::Kind::Request)
            answer.reply = ReplyWriter::status(job.request.command, job.request.requestId, failure.code, failure.text);
        return;
    }
    bool ok = true;
    RequestOutcome outcome;
    try {
        switch (job.kind) {
        case DatabaseJob::Kind::Request:
            ok = m_engine->handle(job.request, job.origin, outcome);
            break;
        case DatabaseJob::Kind::MoveProgress:
            m_engine->moveProgressed(job.guid, job.percent);
            break;
        case DatabaseJob::Kind::MoveFinished:
            m_engine->moveFinished(job.guid, job.directory, job.ok);
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
    answer.reply = std::move(outcome.reply);
    if (!ok)
        return;
    for (auto &action : outcome.afterCommit)
        afterCommit.push_back(std::move(action));
    answer.newGroups = std::move(outcome.newGroups);
    answer.moves = std::move(outcome.moves);
    answer.registersConverter = outcome.registersConverter;
    answer.converterTypes = outcome.converterTypes;
}

} // namespace Kelda
