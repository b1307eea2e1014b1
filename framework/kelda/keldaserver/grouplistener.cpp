#include "grouplistener.h"

#include <trace.h>

#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QTimer>
#include <QVariant>

#include <atomic>

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/keldaserver/grouplistener";

// The connection and its subscription; one at a time, opened again when
// lost.
class Subscription : public QObject
{
public:
    Subscription(const DatabaseLocation &database, const QString &ownInstanceId, GroupListener::Heard heard)
        : m_database(database)
        , m_ownInstanceId(ownInstanceId)
        , m_heard(std::move(heard))
    {
        static std::atomic<int> counter{0};
        m_name = QStringLiteral("keldaserver-listener-%1").arg(counter.fetch_add(1));
    }

    ~Subscription() override { close(); }

    // Called every CheckMs: keeps the connection alive or brings it back.
    void check()
    {
        if (m_db.isOpen()) {
            if (alive())
                return;
            close();
        }
        if (m_sinceAttempt.isValid() && m_sinceAttempt.elapsed() < m_pauseMs)
            return;
        m_sinceAttempt.start();
        if (open()) {
            m_pauseMs = GroupListener::CheckMs;
            return;
        }
        m_pauseMs = qMin(2 * m_pauseMs, int(GroupListener::MaxPauseMs));
    }

private:
    bool alive()
    {
        QSqlQuery probe(m_db);
        if (probe.exec(QStringLiteral("SELECT 1")))
            return true;
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("Lost the notification connection: %1").arg(probe.lastError().text().trimmed()));
        return false;
    }

    bool open()
    {
        m_db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), m_name);
        m_db.setHostName(m_database.host);
        m_db.setPort(m_database.port);
        m_db.setUserName(m_database.user);
        m_db.setPassword(m_database.password);
        m_db.setDatabaseName(m_database.name);
        m_db.setConnectOptions(QStringLiteral("connect_timeout=5;application_name=keldaserver-listener"));
        if (!m_db.open() || !m_db.driver()->subscribeToNotification(GroupAnnouncement::Channel)) {
            Q_TRACE_FAILURE(kSource,
                            QStringLiteral("Cannot listen on %1: %2")
                                .arg(m_database.displayName(), m_db.lastError().text().trimmed()));
            close();
            return false;
        }
        QObject::connect(m_db.driver(),
                         QOverload<const QString &, QSqlDriver::NotificationSource, const QVariant &>::of(
                             &QSqlDriver::notification),
                         this, [this](const QString &, QSqlDriver::NotificationSource, const QVariant &payload) {
                             heard(payload.toString());
                         });
        return true;
    }

    void heard(const QString &payload)
    {
        const std::optional<GroupAnnouncement> announcement = GroupAnnouncement::fromPayload(payload);
        if (!announcement) {
            Q_TRACE_FAILURE(kSource, QStringLiteral("Unreadable group announcement \"%1\"").arg(payload));
            return;
        }
        if (announcement->sender != m_ownInstanceId)
            m_heard(*announcement);
    }

    void close()
    {
        if (m_db.isValid()) {
            m_db.close();
            m_db = QSqlDatabase();
        }
        QSqlDatabase::removeDatabase(m_name);
    }

    const DatabaseLocation m_database;
    const QString m_ownInstanceId;
    const GroupListener::Heard m_heard;
    QString m_name;
    QSqlDatabase m_db;
    QElapsedTimer m_sinceAttempt;
    int m_pauseMs = GroupListener::CheckMs;
};

} // namespace

GroupListener::GroupListener(const DatabaseLocation &database, const QString &ownInstanceId, Heard heard)
    : m_database(database)
    , m_ownInstanceId(ownInstanceId)
    , m_heard(std::move(heard))
{
    setObjectName(QStringLiteral("listenerThread"));
}

GroupListener::~GroupListener()
{
    stop();
    wait();
}

void GroupListener::stop()
{
    m_stopping = true;
    quit();
}

void GroupListener::run()
{
    Subscription subscription(m_database, m_ownInstanceId, m_heard);
    QTimer timer;
    // A stop that came before the event loop ran ends it at the next tick.
    QObject::connect(&timer, &QTimer::timeout, &subscription, [this, &subscription] {
        if (m_stopping)
            quit();
        else
            subscription.check();
    });
    subscription.check();
    timer.start(CheckMs);
    exec();
}

} // namespace Kelda
