#pragma once

#include "keldaclient.h"

#include "commandsender.h"
#include "workerthread.h"

#include <QDateTime>
#include <QString>
#include <QStringList>

#include <atomic>

namespace Kelda {

class KeldaClientPrivate
{
public:
    explicit KeldaClientPrivate(KeldaClient *owner);

    // Stops the sender's thread; the destructor of the client calls it
    // between its traces. Does nothing the second time.
    void StopSender();

    QString CreateFileGroupHelper(bool wait, const QString &version, const QDateTime &lifecycle, const QString &detail,
                                  const QString &comment, FileType fileType, quint64 reservedStorage,
                                  const QString &fileGroupName, QString &localPath, QString guid);

    void StartSender(QString application, const QString &user, const QString &teamMembership);

    // The private slots. The sender's connection signals arrive through the
    // first two in the client's thread; the reply signals are relayed
    // straight to the public ones, and the last two, which emit two of
    // those, stay for code that names them.
    void SlotConnected(QString a_basePath);
    void SlotDisconnected();
    void EmitCreateFileGroupSg(QString a_sGuid, QString a_sPath);
    void EmitAddFileSg(QString a_sRequestId, unsigned int a_fileId);

    // The common preconditions of every operation that talks to the server;
    // a failure is traced as "<operation>: no kelda available" or
    // "<operation>: no commandsender available".
    bool CheckPreconditions(const QString &operation) const;

    // The skeleton of the asynchronous operations: preconditions, Start
    // trace, send, End trace with the sender's error. Returns the request id,
    // or an empty string when nothing was sent.
    template <typename Send> QString Async(const QString &operation, const QString &startArguments, Send send);

    // The skeleton of the blocking operations: preconditions, Start trace,
    // send under a waiter, wait, End trace. True when the reply arrived in
    // time; values then holds what the reply carried. The End trace shows
    // the text result where there is one, else the sender's error.
    template <typename Send>
    bool Blocking(const QString &operation, const QString &startArguments, Send send,
                  CommandSender::ReplyValues &values, bool textResult = false);

    bool m_explicitServer = false;
    CommandSender *m_sender = nullptr;
    KeldaClient *m_owner;
    QString m_basePath;
    std::atomic<bool> m_connected{false};
    // Runs the sender and deletes it. Last, so that it stops first.
    WorkerThread m_thread{QStringLiteral("commandSenderThread")};
};

} // namespace Kelda
