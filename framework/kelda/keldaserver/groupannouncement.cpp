#include "groupannouncement.h"

#include <QStringList>

namespace Kelda {

const QString GroupAnnouncement::Channel = QStringLiteral("kelda_new_group");

QString GroupAnnouncement::payload() const
{
    return QStringList{sender, guid, QString::number(fileType), path}.join(QLatin1Char('\t'));
}

std::optional<GroupAnnouncement> GroupAnnouncement::fromPayload(const QString &payload)
{
    // The path is last and may itself hold tabs.
    const QStringList parts = payload.split(QLatin1Char('\t'));
    if (parts.size() < 4 || parts.at(0).isEmpty() || parts.at(1).isEmpty())
        return std::nullopt;
    bool ok = false;
    const int type = parts.at(2).toInt(&ok);
    if (!ok)
        return std::nullopt;
    return GroupAnnouncement{parts.at(0), parts.at(1), type, parts.mid(3).join(QLatin1Char('\t'))};
}

} // namespace Kelda
