#pragma once

#include <QString>

#include <optional>

namespace Kelda {

// News of a new group that one server sends to all servers sharing its
// database, so that converters registered anywhere hear of it. Travels as a
// PostgreSQL notification payload: tab-separated, fields in member order.
struct GroupAnnouncement
{
    static const QString Channel;

    QString sender; // instance id of the server that created the group
    QString guid;
    int fileType = 0;
    QString path;

    QString payload() const;
    static std::optional<GroupAnnouncement> fromPayload(const QString &payload);
};

} // namespace Kelda
