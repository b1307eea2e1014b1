#include "rawclient.h"

#include "keldaxml.h"
#include "serverprocess.h"
#include "testcertificates.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QSslKey>
#include <QSslConfiguration>
#include <QtEndian>

void RawClient::setIdentity(const QString &certificate, const QString &key)
{
    m_certificate = certificate;
    m_key = key;
}

bool RawClient::connectTo(quint16 port, int timeoutMs)
{
    if (!ServerProcess::usesTls() && m_certificate.isEmpty()) {
        m_socket.connectToHost(QStringLiteral("127.0.0.1"), port);
        return m_socket.waitForConnected(timeoutMs);
    }
    const TestCertificates *certificates = TestCertificates::shared();
    if (!certificates)
        return false;
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setCaCertificates(QSslCertificate::fromPath(certificates->authority()));
    if (!m_certificate.isEmpty()) {
        tls.setLocalCertificate(QSslCertificate::fromPath(m_certificate).value(0));
        QFile file(m_key);
        if (!file.open(QIODevice::ReadOnly))
            return false;
        const QByteArray pem = file.readAll();
        const QSslKey key(pem, QSsl::Ec);
        tls.setPrivateKey(key.isNull() ? QSslKey(pem, QSsl::Rsa) : key);
    }
    m_socket.setSslConfiguration(tls);
    m_socket.connectToHostEncrypted(QStringLiteral("127.0.0.1"), port);
    return m_socket.waitForEncrypted(timeoutMs);
}

void RawClient::sendFrame(const QByteArray &payload)
{
    QByteArray frame(4, '\0');
    qToLittleEndian<quint32>(quint32(payload.size()), frame.data());
    sendBytes(frame + payload);
}

void RawClient::sendBytes(const QByteArray &bytes)
{
    m_socket.write(bytes);
    m_socket.waitForBytesWritten(10000);
}

QByteArray RawClient::receive(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        m_input += m_socket.readAll();
        if (m_input.size() >= 4) {
            const quint32 length = qFromLittleEndian<quint32>(m_input.constData());
            if (quint32(m_input.size()) >= length + 4) {
                const QByteArray payload = m_input.mid(4, int(length));
                m_input.remove(0, int(length) + 4);
                return payload;
            }
        }
        if (deadline.hasExpired() || m_socket.state() != QAbstractSocket::ConnectedState)
            return QByteArray();
        m_socket.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
    }
}

bool RawClient::waitForClose(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (m_socket.state() == QAbstractSocket::ConnectedState && !deadline.hasExpired()) {
        m_socket.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
        m_socket.readAll();
    }
    return m_socket.state() != QAbstractSocket::ConnectedState;
}

QByteArray RawClient::exchange(const QString &command, const QString &children, int timeoutMs)
{
    sendFrame(request(command, command, children));
    return receive(timeoutMs);
}

QByteArray RawClient::request(const QString &command, const QString &requestId, const QString &children)
{
    return QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                          "<s:Envelope xmlns:s=\"%1\"><s:Header><s:Version>1.0</s:Version>"
                          "<s:RequestId>%2</s:RequestId></s:Header><s:Body><m:%3 xmlns:m=\"%4\">%5</m:%3>"
                          "</s:Body></s:Envelope>\n")
        .arg(Kelda::Ns::Envelope, requestId, command, Kelda::Ns::Message, children)
        .toUtf8();
}
