#pragma once

#include <QString>

#include <optional>

namespace Kelda {

struct Request;
struct RequestOrigin;

// One entry of the audit trail: who asked for what, from where, and what
// came of it.
struct AuditRecord
{
    qint64 atMs = 0; // UTC, milliseconds since the epoch
    QString peerAddress;
    // The user of the client's verified certificate; empty when clients are
    // not identified by certificate.
    QString certificateUser;
    // The user and application the request names: for a lock identity its
    // user and application parts.
    QString claimedUser;
    QString application;
    QString command;
    // The file groups the request names, separated by spaces (an export may
    // name several), or empty.
    QString guid;
    std::optional<qint64> fileId;
    int result = 0;

    // Texts clients send are cut to this many characters: the trail must
    // not grow with whatever a client chooses to send.
    static constexpr int MaxText = 256;

    // The record of a request carried out now; fileId, when given, is the
    // file the request acted on (which may differ from the one it asked
    // for).
    static AuditRecord of(const Request &request, const RequestOrigin &origin, int result,
                          std::optional<qint64> fileId = std::nullopt);
};

} // namespace Kelda
