#include "parserpool.h"

namespace Kelda {

class ParserPool::Worker : public QThread
{
public:
    explicit Worker(ParserPool *pool)
        : m_pool(pool)
    {
        setObjectName(QStringLiteral("parserThread"));
    }

protected:
    void run() override { m_pool->serve(); }

private:
    ParserPool *const m_pool;
};

ParserPool::ParserPool(int threads, const RequestDecoder::Limits &limits, Delivery delivery)
    : m_limits(limits)
    , m_delivery(std::move(delivery))
{
    for (int i = 0; i < threads; ++i) {
        m_threads.push_back(std::make_unique<Worker>(this));
        m_threads.back()->start();
    }
}

ParserPool::~ParserPool()
{
    stopAndWait();
}

void ParserPool::post(Job job)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping)
            return;
        m_queue.push_back(std::move(job));
    }
    m_wake.notify_one();
}

void ParserPool::stopAndWait()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        m_queue.clear();
    }
    m_wake.notify_all();
    for (const auto &thread : m_threads)
        thread->wait();
    // The threads end by taking the mutex: taking it here as well orders
    // their last accesses, their own objects' included, before the objects
    // go, for thread checkers, which cannot see inside QThread::wait(). A
    // thread that started only after the stop above has taken it just once.
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
    }
    m_threads.clear();
}

void ParserPool::serve()
{
    for (;;) {
        Job job;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [this] { return !m_queue.empty() || m_stopping; });
            if (m_stopping)
                return;
            job = std::move(m_queue.front());
            m_queue.pop_front();
        }
        Result result;
        result.connectionId = job.connectionId;
        result.decoded = RequestDecoder::decode(job.payload, job.tryExpand, m_limits);
        job.payload = QByteArray();
        m_delivery(std::move(result));
    }
}

} // namespace Kelda
