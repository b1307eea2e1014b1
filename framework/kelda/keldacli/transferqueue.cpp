#include "transferqueue.h"

#include "clisession.h"

#include "keldaclient.h"
#include "keldaerror.h"

#include <algorithm>

namespace KeldaCli {

namespace {

constexpr int kTickMs = 200;

} // namespace

TransferQueue::TransferQueue(Session &session, const QString &label, int jobs, int count, qint64 totalBytes)
    : m_session(session)
    , m_jobs(jobs)
    , m_window(jobs * kAheadPerJob)
    , m_totalBytes(totalBytes)
    , m_states(size_t(count), State::Waiting)
    , m_started(size_t(count))
    , m_replyWait(size_t(count))
    , m_durationMs(size_t(count), 0)
    , m_progress(session.progress(label))
{
    connect(&session.client(), &Kelda::KeldaClient::disconnected, this,
            [this] { stopAll(ExitUnreachable, QStringLiteral("lost the connection to the archive server")); });
    connect(&m_ticker, &QTimer::timeout, this, &TransferQueue::tick);
}

TransferQueue::~TransferQueue() = default;

ExitCode TransferQueue::run()
{
    m_workers = std::make_unique<CopyWorkers>(m_jobs, this, "drainCopies");
    m_ticker.start(kTickMs);
    startMore();
    if (m_running > 0)
        m_loop.exec();
    m_ticker.stop();
    // A drop after the run is the caller's to report.
    disconnect(&m_session.client(), &Kelda::KeldaClient::disconnected, this, nullptr);
    // Joins the copies still under way before their items are undone.
    m_workers.reset();
    for (size_t index = 0; index < m_states.size(); ++index) {
        if (m_states[index] == State::Running) {
            abandon(int(index));
            m_states[index] = State::Failed;
            ++m_failed;
        }
    }
    reportInOrder();
    m_progress.finish();
    const int missing = int(m_states.size()) - m_succeeded;
    if (missing > 0 && (missing > 1 || m_stopped))
        m_session.fail(m_result, QStringLiteral("%1 of %2 files not transferred").arg(missing).arg(m_states.size()));
    return m_result;
}

qint64 TransferQueue::elapsedMs(int index) const
{
    return m_durationMs[size_t(index)];
}

void TransferQueue::copy(int index, const QString &from, const QString &to, CopyMode mode, bool digest)
{
    m_replyWait[size_t(index)].invalidate();
    m_workers->add({index, from, to, mode, digest});
}

void TransferQueue::request(int index)
{
    const QString requestId = send(index);
    if (requestId.isEmpty())
        return;
    m_awaiting.insert(requestId, index);
    m_replyWait[size_t(index)].start();
}

int TransferQueue::answered(const QString &requestId)
{
    const auto it = m_awaiting.find(requestId);
    if (it == m_awaiting.end())
        return -1;
    const int index = it.value();
    m_awaiting.erase(it);
    m_replyWait[size_t(index)].invalidate();
    return index;
}

bool TransferQueue::awaitsAnswer(int index) const
{
    return std::find(m_awaiting.cbegin(), m_awaiting.cend(), index) != m_awaiting.cend();
}

void TransferQueue::succeed(int index)
{
    m_states[size_t(index)] = State::Succeeded;
    ++m_succeeded;
    ended(index);
}

void TransferQueue::fail(int index, ExitCode code, const QString &message)
{
    m_states[size_t(index)] = State::Failed;
    ++m_failed;
    if (m_result == ExitOk)
        m_result = code;
    m_progress.finish();
    m_session.fail(code, QStringLiteral("%1: %2").arg(describe(index), message));
    ended(index);
}

void TransferQueue::drainCopies()
{
    if (!m_workers)
        return;
    for (const CopyWorkers::Finished &finished : m_workers->takeFinished()) {
        if (m_states[size_t(finished.index)] == State::Running)
            copied(finished.index, finished.error, finished.digest);
    }
}

void TransferQueue::startMore()
{
    // begin() may end its item at once; this loop, not a nested one, goes on.
    if (m_starting)
        return;
    m_starting = true;
    while (!m_stopped && m_running < m_window && m_next < int(m_states.size())) {
        const int index = m_next++;
        m_states[size_t(index)] = State::Running;
        m_started[size_t(index)].start();
        ++m_running;
        begin(index);
    }
    m_starting = false;
}

void TransferQueue::ended(int index)
{
    m_durationMs[size_t(index)] = m_started[size_t(index)].elapsed();
    m_replyWait[size_t(index)].invalidate();
    --m_running;
    reportInOrder();
    showProgress();
    startMore();
    if (m_running == 0 && (m_stopped || m_next >= int(m_states.size())))
        m_loop.quit();
}

void TransferQueue::reportInOrder()
{
    while (m_nextReport < int(m_states.size())) {
        const State state = m_states[size_t(m_nextReport)];
        if (state == State::Succeeded)
            report(m_nextReport);
        else if (state != State::Failed)
            return;
        ++m_nextReport;
    }
}

void TransferQueue::tick()
{
    showProgress();
    for (const QElapsedTimer &wait : m_replyWait) {
        if (wait.isValid() && wait.elapsed() > ReplyWait::kReplyTimeoutMs) {
            stopAll(ExitTimeout, Kelda::KeldaErrorString::Get(Kelda::KE_ReplyTimeout));
            return;
        }
    }
}

void TransferQueue::stopAll(ExitCode code, const QString &message)
{
    if (m_stopped)
        return;
    m_stopped = true;
    if (m_result == ExitOk)
        m_result = code;
    m_progress.finish();
    m_session.fail(code, message);
    m_loop.quit();
}

void TransferQueue::showProgress()
{
    if (!m_progress.isEnabled() || !m_workers)
        return;
    m_progress.update(QStringLiteral("%1 of %2 files, %3")
                          .arg(m_succeeded + m_failed)
                          .arg(m_states.size())
                          .arg(byteProgressText(m_workers->copiedBytes(), m_totalBytes)));
}

} // namespace KeldaCli
