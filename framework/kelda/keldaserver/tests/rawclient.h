#pragma once

#include "replyfields.h"

#include <QByteArray>
#include <QString>
#include <QSslSocket>

// A bare protocol peer for tests: frames documents with the 4-byte
// little-endian length by its own code and reads framed answers with
// bounded waits. It can also send what no real client would.
class RawClient
{
public:
    // TLS with this client certificate, whatever the test run's transport;
    // call before connectTo().
    void setIdentity(const QString &certificate, const QString &key);
    bool connectTo(quint16 port, int timeoutMs = 10000);
    void sendFrame(const QByteArray &payload);
    void sendBytes(const QByteArray &bytes);
    // The next framed document; empty when none came within timeoutMs.
    QByteArray receive(int timeoutMs = 10000);
    // Whether the server closed the connection within timeoutMs.
    bool waitForClose(int timeoutMs = 10000);
    // Sends the request, the command naming it, and returns the framed
    // answer; empty when none came within timeoutMs.
    QByteArray exchange(const QString &command, const QString &children, int timeoutMs = 15000);
    ReplyFields ask(const QString &command, const QString &children, int timeoutMs = 15000)
    {
        return ReplyFields::read(exchange(command, children, timeoutMs));
    }

    // A request document as the client writes it.
    static QByteArray request(const QString &command, const QString &requestId, const QString &children);

private:
    // Plain TCP unless the test runs over TLS.
    QSslSocket m_socket;
    QByteArray m_input;
    QString m_certificate;
    QString m_key;
};
