#include "faultproxy.h"

#include "threadrunner.h"

#include <QHostAddress>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QtEndian>

#include <sys/socket.h>

// Everything here runs on the proxy's thread; the FaultProxy methods reach
// it through the proxy's ThreadRunner and wait until it is done.
class FaultProxyWorker : public QObject
{
public:
    FaultProxyWorker(quint16 upstreamPort, std::atomic<int> &connections)
        : m_upstreamPort(upstreamPort)
        , m_connections(connections)
    {
        QObject::connect(&m_server, &QTcpServer::newConnection, this, [this] { accept(); });
    }

    quint16 listen() { return m_server.listen(QHostAddress::LocalHost, 0) ? m_server.serverPort() : 0; }

    quint16 m_upstreamPort;
    FaultProxy::Fault m_armedFault = FaultProxy::Fault::None;
    int m_armedAmount = 0;
    bool m_faultArmed = false;
    QByteArray m_answer;
    bool m_answerArmed = false;
    bool m_closeAfterAnswer = false;
    FaultProxy::Rewrite m_rewrite;
    std::function<void()> m_requestHook;

    void shutDown()
    {
        m_server.close();
        const QList<Pair *> pairs = m_pairs;
        for (Pair *pair : pairs)
            closePair(pair);
    }

private:
    struct Pair
    {
        QTcpSocket *client = nullptr;
        QTcpSocket *server = nullptr;
        QByteArray requests;
        QByteArray answerInput;
        FaultProxy::Fault fault = FaultProxy::Fault::None;
        qint64 amount = 0;
        FaultProxy::Rewrite rewrite;
        int answers = 0;
        QByteArray slices;
        QTimer *sliceTimer = nullptr;
    };

    static constexpr int LengthSize = 4;

    void accept()
    {
        while (QTcpSocket *client = m_server.nextPendingConnection()) {
            ++m_connections;
            auto *pair = new Pair;
            pair->client = client;
            pair->server = new QTcpSocket(this);
            pair->client->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            pair->sliceTimer = new QTimer(client);
            pair->sliceTimer->setInterval(0);
            m_pairs << pair;
            connect(client, &QTcpSocket::readyRead, this, [this, pair] { fromClient(pair); });
            connect(client, &QTcpSocket::disconnected, this, [this, pair] { closePair(pair); });
            connect(pair->server, &QTcpSocket::readyRead, this, [this, pair] { fromServer(pair); });
            connect(pair->server, &QTcpSocket::disconnected, this, [this, pair] { closePair(pair); });
            connect(pair->server, &QTcpSocket::errorOccurred, this, [this, pair] { closePair(pair); });
            connect(pair->sliceTimer, &QTimer::timeout, this, [this, pair] { sendOneSlice(pair); });
            pair->server->connectToHost(QHostAddress::LocalHost, m_upstreamPort);
        }
    }

    // Whole frames from the front of buffer; an incomplete rest stays.
    static QList<QByteArray> takeFrames(QByteArray &buffer)
    {
        QList<QByteArray> frames;
        while (buffer.size() >= LengthSize) {
            const qint64 length = qFromLittleEndian<quint32>(buffer.constData());
            if (buffer.size() - LengthSize < length)
                break;
            frames << buffer.left(int(LengthSize + length));
            buffer.remove(0, int(LengthSize + length));
        }
        return frames;
    }

    void fromClient(Pair *pair)
    {
        pair->requests += pair->client->readAll();
        for (const QByteArray &frame : takeFrames(pair->requests)) {
            if (m_requestHook)
                std::exchange(m_requestHook, nullptr)();
            if (m_faultArmed) {
                m_faultArmed = false;
                pair->fault = m_armedFault;
                pair->amount = m_armedAmount;
            }
            if (m_rewrite)
                pair->rewrite = std::exchange(m_rewrite, nullptr);
            if (m_answerArmed) {
                m_answerArmed = false;
                pair->client->write(m_answer);
                if (m_closeAfterAnswer)
                    closePair(pair);
                return;
            }
            pair->server->write(frame);
        }
    }

    void fromServer(Pair *pair)
    {
        if (!pair->rewrite) {
            toClient(pair, pair->server->readAll());
            return;
        }
        pair->answerInput += pair->server->readAll();
        for (const QByteArray &frame : takeFrames(pair->answerInput))
            toClient(pair, pair->rewrite(frame.mid(LengthSize), pair->answers++));
    }

    void toClient(Pair *pair, const QByteArray &bytes)
    {
        if (bytes.isEmpty())
            return;
        switch (pair->fault) {
        case FaultProxy::Fault::None:
            pair->client->write(bytes);
            break;
        case FaultProxy::Fault::SliceBytes:
            pair->slices += bytes;
            pair->sliceTimer->start();
            break;
        case FaultProxy::Fault::Delay: {
            QPointer<QTcpSocket> client = pair->client;
            QTimer::singleShot(int(pair->amount), client, [client, bytes] { client->write(bytes); });
            break;
        }
        case FaultProxy::Fault::CutAfter:
            pair->client->write(bytes.left(int(qMin<qint64>(pair->amount, bytes.size()))));
            pair->amount -= bytes.size();
            if (pair->amount <= 0)
                closePair(pair);
            break;
        case FaultProxy::Fault::Reset:
            resetPair(pair);
            break;
        case FaultProxy::Fault::HoldSilent:
            break;
        }
    }

    void sendOneSlice(Pair *pair)
    {
        if (pair->slices.isEmpty()) {
            pair->sliceTimer->stop();
            return;
        }
        pair->client->write(pair->slices.left(1));
        pair->client->flush();
        pair->slices.remove(0, 1);
    }

    void closePair(Pair *pair)
    {
        if (!m_pairs.removeOne(pair))
            return;
        pair->client->disconnect(this);
        pair->server->disconnect(this);
        pair->sliceTimer->stop();
        pair->client->disconnectFromHost();
        pair->server->abort();
        pair->client->deleteLater();
        pair->server->deleteLater();
        delete pair;
    }

    // SO_LINGER with a zero time makes the close send RST instead of FIN.
    void resetPair(Pair *pair)
    {
        const linger hard{1, 0};
        ::setsockopt(int(pair->client->socketDescriptor()), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        pair->client->abort();
        closePair(pair);
    }

    QTcpServer m_server{this};
    std::atomic<int> &m_connections;
    QList<Pair *> m_pairs;
};

FaultProxy::FaultProxy(quint16 upstreamPort)
{
    m_thread.setObjectName(QStringLiteral("faultProxyThread"));
    m_worker = new FaultProxyWorker(upstreamPort, m_connections);
    m_worker->moveToThread(&m_thread);
    QObject::connect(&m_thread, &QThread::finished, m_worker, &QObject::deleteLater);
    m_runner = std::make_unique<ThreadRunner>();
    m_runner->moveToThread(&m_thread);
    m_thread.start();
    m_runner->run([this] { m_port = m_worker->listen(); });
}

FaultProxy::~FaultProxy()
{
    m_runner->run([this] { m_worker->shutDown(); });
    m_thread.quit();
    m_thread.wait();
}

void FaultProxy::setUpstreamPort(quint16 port)
{
    m_runner->run([this, port] { m_worker->m_upstreamPort = port; });
}

void FaultProxy::setFault(Fault fault, int amount)
{
    m_runner->run([this, fault, amount] {
        m_worker->m_armedFault = fault;
        m_worker->m_armedAmount = amount;
        m_worker->m_faultArmed = true;
    });
}

void FaultProxy::answerNextRequestWith(const QByteArray &bytes, bool closeAfter)
{
    m_runner->run([this, bytes, closeAfter] {
        m_worker->m_answer = bytes;
        m_worker->m_closeAfterAnswer = closeAfter;
        m_worker->m_answerArmed = true;
    });
}

void FaultProxy::rewriteAnswers(Rewrite rewrite)
{
    m_runner->run([this, &rewrite] { m_worker->m_rewrite = std::move(rewrite); });
}

void FaultProxy::onNextRequest(std::function<void()> hook)
{
    m_runner->run([this, &hook] { m_worker->m_requestHook = std::move(hook); });
}
