#pragma once

#include "transferqueue.h"

#include <QHash>
#include <QString>

#include <vector>

namespace KeldaCli {

// Fetches the files of one group: each is requested under a read lock and
// copied from where the server keeps it into a local folder. The lock
// belongs to the group: the caller gives it back once, after the last copy.
class DownloadQueue : public TransferQueue
{
    Q_OBJECT

public:
    struct Item
    {
        unsigned int fileId = 0;
        QString name;
        QString destination;
    };

    DownloadQueue(Session &session, int jobs, const QString &guid, std::vector<Item> items);

    // Whether any request went out, so that a lock may be held.
    bool requested() const { return m_requested; }
    qint64 copiedBytes() const { return m_bytes; }

protected:
    void begin(int index) override;
    void copied(int index, const QString &error) override;
    void report(int index) override;
    void abandon(int index) override;
    QString describe(int index) const override;

private:
    void answered(const QString &requestId, const QString &path, int error, const QString &text);

    QString m_guid;
    std::vector<Item> m_items;
    // The RequestFile requests under way, by request id.
    QHash<QString, int> m_requesting;
    bool m_requested = false;
    qint64 m_bytes = 0;
};

} // namespace KeldaCli
