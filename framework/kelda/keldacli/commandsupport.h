#pragma once

#include "cliformat.h"
#include "clisession.h"
#include "exitcode.h"

#include "filegroupdata.h"
#include "keldaclient.h"
#include "keldaurl.h"

#include <QCommandLineParser>
#include <QObject>
#include <QString>

#include <functional>

// What the subcommands share: argument checks, the wait for one reply, and
// the options that several commands offer.
namespace KeldaCli {

extern const QString kDryRunOption;
extern const QString kJobsOption;

bool isGuid(const QString &text);
// A GUID or a kelda URL; `url` is the group's URL for a bare GUID.
bool readTarget(const QString &text, Kelda::KeldaUrl &url);

ExitCode expectArguments(const QCommandLineParser &parser, Session &session, int min, int max);
// The single GUID argument of the group commands.
ExitCode guidArgument(const QCommandLineParser &parser, Session &session, QString &guid);

void addDryRunOption(QCommandLineParser &parser);
void addJobsOption(QCommandLineParser &parser);
// The value of --jobs, checked.
ExitCode jobsOption(const QCommandLineParser &parser, Session &session, int &jobs);

// Sends one request and waits for its reply signal. `send` returns the
// request id; `signal` is connected to `onReply`, which returns true for
// the reply of that id.
template <typename Signal, typename OnReply>
ExitCode request(Session &session, Signal signal, const std::function<QString()> &send, OnReply onReply)
{
    // A dropped connection would otherwise only show after the full wait for
    // operations that return no request id.
    if (!session.client().IsConnected())
        return session.blockingFailure();
    ReplyWait wait(session.client());
    QString requestId;
    QObject::connect(&session.client(), signal, &wait, [&](auto... args) {
        if (onReply(requestId, args...))
            wait.finish();
    });
    requestId = send();
    if (requestId.isEmpty())
        return session.blockingFailure();
    return session.waitResult(wait.exec());
}

// The reply of a three-argument signal (request id, error, text).
struct Outcome
{
    int error = 0;
    QString text;
};

template <typename Signal>
ExitCode simpleRequest(Session &session, Signal signal, const std::function<QString()> &send, bool anyRequestId = false)
{
    Outcome outcome;
    const ExitCode code =
        request(session, signal, send, [&](const QString &expected, QString id, int error, QString text) {
            if (!anyRequestId && id != expected)
                return false;
            outcome = {error, text};
            return true;
        });
    if (code != ExitOk)
        return code;
    return outcome.error == Kelda::KE_NoError ? ExitOk : session.serverError(outcome.error, outcome.text);
}

// Operations that return no request id are matched by their signal alone;
// this stands for the id so that request() sees something was sent.
extern const QString kUnnamedRequest;

ExitCode queryMetaData(Session &session, const QString &guid, Kelda::FileGroupData &group);

// What the archive recorded of the files of group `guid`; with `verify`
// after the server read them again. The server's answer lands in `outcome`
// unreported, so that the caller can tell a server without the command
// (KE_UnknownReplyCommand) from a failure.
ExitCode requestChecksums(Session &session, const QString &guid, bool verify, std::vector<FileChecksum> &files,
                          Outcome &outcome);

// The message for a fetched copy whose digest is not the archive's.
QString digestMismatchText(const QString &expected, const QByteArray &actual);

// "64.0 KiB", "3.5 MiB": sizes in messages.
QString sizeText(qint64 bytes);
// "1 file", "3 files".
QString countText(qint64 count, const char *noun);

} // namespace KeldaCli
