#pragma once

#include "servermetrics.h"

#include <QString>

#include <memory>
#include <utility>
#include <vector>

namespace Kelda {

// How full the file systems of the storage folders are, for the metrics.
// Asking a network file system can hang for as long as its server is away:
// the look is taken on a thread of its own, never the network thread, and a
// scrape shows the last answer while at most one look is under way.
class StorageUsage
{
public:
    // Each folder with the name the metrics give it ("base", "nas", ...).
    explicit StorageUsage(std::vector<std::pair<QString, QString>> folders);

    // Starts a look unless one is under way.
    void refresh();
    // The last answers; -1 for a folder not yet or not answered.
    std::vector<ServerMetrics::Gauges::Storage> latest() const;

private:
    struct Shared;
    std::shared_ptr<Shared> m_shared;
};

} // namespace Kelda
