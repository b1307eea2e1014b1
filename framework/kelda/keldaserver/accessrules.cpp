#include "accessrules.h"

#include "archiveengine.h"
#include "keldaxml.h"
#include "request.h"

namespace Kelda {

namespace {

// Commands that act in a user's name: without one they claim nobody, which
// is not the caller either. Any other command's UserName is not read.
bool claimsUser(const QString &command)
{
    return AccessRules::carriesLockIdentity(command) || command == Tag::CreateFileGroup ||
        command == Tag::CreateTovinFileGroup || command == Tag::MoveToNas;
}

} // namespace

bool AccessRules::carriesLockIdentity(const QString &command)
{
    return command == Tag::RequestFile || command == Tag::CloseFile;
}

AccessRules::AccessRules(bool identified, const QStringList &admins, const QStringList &converters)
    : m_identified(identified)
    , m_admins(admins)
    , m_converters(converters)
{ }

QString AccessRules::userOf(const QString &lockIdentity)
{
    return lockIdentity.section(QLatin1Char('|'), 2);
}

QString AccessRules::applicationOf(const QString &lockIdentity)
{
    return lockIdentity.section(QLatin1Char('|'), 1, 1);
}

std::optional<AccessRules::Refusal> AccessRules::checkClaims(const Request &request, const RequestOrigin &origin) const
{
    if (!m_identified || !claimsUser(request.command))
        return std::nullopt;
    const QString claimed = request.text(Tag::UserName);
    const QString user = carriesLockIdentity(request.command) ? userOf(claimed) : claimed;
    if (user == origin.certificateUser)
        return std::nullopt;
    // Asking for a read lock is a read; everything else here changes.
    const bool read = request.command == Tag::RequestFile && !request.flag(Tag::WriteLock);
    return Refusal{read ? KE_NoReadPermission : KE_NoWritePermission,
                   QStringLiteral("%1 may not act as \"%2\"").arg(origin.certificateUser, user)};
}

std::optional<AccessRules::Refusal> AccessRules::checkOwner(const QString &command, const QString &creator,
                                                            const RequestOrigin &origin) const
{
    if (!m_identified || origin.certificateUser == creator || isAdmin(origin.certificateUser))
        return std::nullopt;
    return Refusal{KE_NoWritePermission,
                   QStringLiteral("%1 is for the group's creator %2 and administrators").arg(command, creator)};
}

std::optional<AccessRules::Refusal> AccessRules::checkImport(const RequestOrigin &origin) const
{
    if (!m_identified || isAdmin(origin.certificateUser))
        return std::nullopt;
    return Refusal{KE_NoWritePermission, QStringLiteral("ImportArchive is for administrators")};
}

std::optional<AccessRules::Refusal> AccessRules::checkConverter(const RequestOrigin &origin) const
{
    if (!m_identified || m_converters.contains(origin.certificateUser))
        return std::nullopt;
    return Refusal{KE_NoWritePermission,
                   QStringLiteral("%1 is not among the converters this server admits").arg(origin.certificateUser)};
}

QString AccessRules::holderAsSeenBy(const QString &identity, const RequestOrigin &origin) const
{
    if (!m_identified || userOf(identity) == origin.certificateUser || isAdmin(origin.certificateUser))
        return identity;
    return userOf(identity);
}

} // namespace Kelda
