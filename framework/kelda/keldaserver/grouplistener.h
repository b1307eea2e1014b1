#pragma once

#include "databaselocation.h"
#include "groupannouncement.h"

#include <QThread>

#include <atomic>

#include <functional>

namespace Kelda {

// Hears of groups that other servers sharing the PostgreSQL database
// create, so that converters registered here can be told. Owns a connection
// of its own on a thread with an event loop, which the driver's
// notifications need. A lost connection is opened again with a bounded
// back-off; what was announced while it was gone is not heard.
class GroupListener : public QThread
{
public:
    using Heard = std::function<void(const GroupAnnouncement &)>;

    // Announcements of ownInstanceId are left out: the server tells its own
    // converters directly.
    GroupListener(const DatabaseLocation &database, const QString &ownInstanceId, Heard heard);
    ~GroupListener() override;

    void stop();

    // How often the connection is checked while nothing is heard.
    static constexpr int CheckMs = 1000;
    static constexpr int MaxPauseMs = 2000;

protected:
    void run() override;

private:
    const DatabaseLocation m_database;
    const QString m_ownInstanceId;
    const Heard m_heard;
    std::atomic<bool> m_stopping{false};
};

} // namespace Kelda
