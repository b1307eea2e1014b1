#pragma once

#include "transferqueue.h"

#include <QString>

#include <vector>

namespace KeldaCli {

// Fetches the files of one group into a local folder, under the group's
// read lock: the first request takes the lock and names the directory the
// server keeps the group in, the files are copied from there. The caller
// gives the lock back once, after the last copy. A copy whose digest is not
// the archive's is removed and fails the run with ExitDigestMismatch.
class DownloadQueue : public TransferQueue
{
    Q_OBJECT

public:
    struct Item
    {
        unsigned int fileId = 0;
        QString name;
        QString destination;
        // The archive's SHA-256 in hex; empty when there is none to compare.
        QString digest;
    };

    DownloadQueue(Session &session, int jobs, const QString &guid, std::vector<Item> items);

    // Whether any request went out, so that a lock may be held.
    bool requested() const { return m_requested; }
    qint64 copiedBytes() const { return m_bytes; }

protected:
    void begin(int index) override;
    QString send(int index) override;
    void copied(int index, const QString &error, const QByteArray &digest) override;
    void report(int index) override;
    void abandon(int index) override;
    QString describe(int index) const override;

private:
    void fetch(int index);
    void granted(const QString &requestId, const QString &path, int error, const QString &text);
    void releaseHeld();

    QString m_guid;
    std::vector<Item> m_items;
    // Where the first granted request found the group's files.
    QString m_directory;
    // Items wait while the request that may name the directory is out.
    bool m_lockPending = false;
    std::vector<int> m_held;
    bool m_requested = false;
    qint64 m_bytes = 0;
};

} // namespace KeldaCli
