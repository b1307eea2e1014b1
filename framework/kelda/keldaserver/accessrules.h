#pragma once

#include "keldaerror.h"

#include <QString>
#include <QStringList>

#include <optional>

namespace Kelda {

struct Request;
struct RequestOrigin;

// Who may do what, once clients are identified by their certificates. The
// protocol lets a request name any user; with identified clients the name
// must be the certificate's, and groups belong to their creators:
//
// - every user a request claims (the creator of a new group, the user part
//   of a lock identity, the user moving a group) is the certificate's user,
//   or the request is refused with 11, a request for a read lock with 9;
// - deleting a group or one of its files, moving it to network storage and
//   exporting it are for its creator and the administrators; importing is
//   for administrators; registering as a converter for the converter users;
// - locks are released by their own identity only, which the first rule
//   already ensures;
// - queries and reads stay open to every identified user.
//
// Without identified clients every check passes, as the protocol always
// behaved on a trusted machine.
class AccessRules
{
public:
    AccessRules() = default;
    AccessRules(bool identified, const QStringList &admins, const QStringList &converters);

    bool identified() const { return m_identified; }
    bool isAdmin(const QString &user) const { return m_admins.contains(user); }

    // The refusal of a request whose claimed users are not the caller.
    struct Refusal
    {
        KeldaError code;
        QString text;
    };
    std::optional<Refusal> checkClaims(const Request &request, const RequestOrigin &origin) const;
    // Deleting, moving or exporting the group of that creator.
    std::optional<Refusal> checkOwner(const QString &command, const QString &creator,
                                      const RequestOrigin &origin) const;
    std::optional<Refusal> checkImport(const RequestOrigin &origin) const;
    std::optional<Refusal> checkConverter(const RequestOrigin &origin) const;

    // How a lock's holder is named to the caller: the whole identity to its
    // own user and to administrators, only the user to everyone else.
    QString holderAsSeenBy(const QString &identity, const RequestOrigin &origin) const;

    // "address|application|user": the user part, and the application part.
    static QString userOf(const QString &lockIdentity);
    static QString applicationOf(const QString &lockIdentity);
    // Commands whose UserName is a lock identity rather than a plain user.
    static bool carriesLockIdentity(const QString &command);

private:
    bool m_identified = false;
    QStringList m_admins;
    QStringList m_converters;
};

} // namespace Kelda
