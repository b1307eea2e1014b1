#include "auditrecord.h"

#include "accessrules.h"
#include "archiveengine.h"
#include "keldaxml.h"
#include "request.h"

#include <QDateTime>

namespace Kelda {

namespace {

// Bounded, and without the NUL character, which PostgreSQL refuses in text:
// a record must never fail for what a client sent.
QString clientText(QString text)
{
    text.truncate(AuditRecord::MaxText);
    text.remove(QChar(0));
    return text;
}

} // namespace

AuditRecord AuditRecord::of(const Request &request, const RequestOrigin &origin, int result,
                            std::optional<qint64> fileId)
{
    AuditRecord record;
    record.atMs = QDateTime::currentMSecsSinceEpoch();
    record.peerAddress = origin.peerAddress;
    record.certificateUser = origin.certificateUser;
    const QString userName = request.text(Tag::UserName);
    if (AccessRules::carriesLockIdentity(request.command)) {
        record.claimedUser = clientText(AccessRules::userOf(userName));
        record.application = clientText(AccessRules::applicationOf(userName));
    } else {
        record.claimedUser = clientText(userName);
        record.application = clientText(request.text(Tag::Application));
    }
    record.command = clientText(request.command);
    record.guid = clientText(request.texts(Tag::Guid).join(QLatin1Char(' ')));
    if (!fileId && request.has(Tag::FileId))
        fileId = request.number(Tag::FileId, -1);
    record.fileId = fileId;
    record.result = result;
    return record;
}

} // namespace Kelda
