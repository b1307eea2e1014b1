#pragma once

#include "transferqueue.h"

#include <QString>

#include <vector>

namespace KeldaCli {

// Stores files in groups that exist already: each file is copied into its
// group's directory, flushed to disk, and then added. Prints one URL per
// stored file, in the order of the items.
class UploadQueue : public TransferQueue
{
    Q_OBJECT

public:
    struct Item
    {
        QString source;
        QString guid;
        QString directory;
        QString name;
        unsigned int fileId = 0;
        qint64 size = 0;
    };

    UploadQueue(Session &session, int jobs, std::vector<Item> items, qint64 totalBytes);

protected:
    void begin(int index) override;
    QString send(int index) override;
    void copied(int index, const QString &error, const QByteArray &digest) override;
    void report(int index) override;
    void abandon(int index) override;
    QString describe(int index) const override;

private:
    void added(const QString &requestId, unsigned int fileId);
    QString target(int index) const;
    void removeCopy(int index);

    std::vector<Item> m_items;
};

} // namespace KeldaCli
