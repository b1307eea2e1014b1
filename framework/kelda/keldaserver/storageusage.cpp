#include "storageusage.h"

#include <mutex>
#include <thread>

namespace Kelda {

// Outlives this object when a look hangs: the thread holds its own share.
struct StorageUsage::Shared
{
    std::vector<std::pair<QString, QString>> folders;
    std::mutex mutex;
    std::vector<ServerMetrics::Gauges::Storage> latest;
    bool looking = false;
};

StorageUsage::StorageUsage(std::vector<std::pair<QString, QString>> folders)
    : m_shared(std::make_shared<Shared>())
{
    m_shared->folders = std::move(folders);
    for (const auto &folder : m_shared->folders)
        m_shared->latest.push_back({folder.first, -1, -1});
}

void StorageUsage::refresh()
{
    {
        const std::lock_guard<std::mutex> lock(m_shared->mutex);
        if (m_shared->looking)
            return;
        m_shared->looking = true;
    }
    std::thread([shared = m_shared] {
        std::vector<ServerMetrics::Gauges::Storage> found;
        for (const auto &folder : shared->folders) {
            const QPair<qint64, qint64> bytes = ServerMetrics::fileSystemBytes(folder.second);
            found.push_back({folder.first, bytes.first, bytes.second});
        }
        const std::lock_guard<std::mutex> lock(shared->mutex);
        shared->latest = std::move(found);
        shared->looking = false;
    }).detach();
}

std::vector<ServerMetrics::Gauges::Storage> StorageUsage::latest() const
{
    const std::lock_guard<std::mutex> lock(m_shared->mutex);
    return m_shared->latest;
}

} // namespace Kelda
