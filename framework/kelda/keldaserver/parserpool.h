#pragma once

#include "requestdecoder.h"

#include <QThread>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace Kelda {

// Threads that decode large or compressed requests, so that however a
// request is shaped, the thread that serves the sockets never spends more
// than a cheap read on it. The owner keeps at most one payload of a
// connection here at a time, which keeps each connection's order.
// Hand-overs use the standard mutex and condition variable, which thread
// checkers see.
class ParserPool
{
public:
    struct Job
    {
        quint64 connectionId = 0;
        QByteArray payload;
        bool tryExpand = false;
    };
    struct Result
    {
        quint64 connectionId = 0;
        RequestDecoder::Decoded decoded;
    };
    // Called on a pool thread.
    using Delivery = std::function<void(Result)>;

    ParserPool(int threads, const RequestDecoder::Limits &limits, Delivery delivery);
    ~ParserPool();
    ParserPool(const ParserPool &) = delete;
    ParserPool &operator=(const ParserPool &) = delete;

    void post(Job job);
    // Drops what waits, lets the payloads being decoded finish, and ends
    // the threads.
    void stopAndWait();

private:
    class Worker;
    void serve();

    const RequestDecoder::Limits m_limits;
    const Delivery m_delivery;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Job> m_queue;
    bool m_stopping = false;
    std::vector<std::unique_ptr<QThread>> m_threads;
};

} // namespace Kelda
