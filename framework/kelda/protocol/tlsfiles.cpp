#include "tlsfiles.h"

#include <QFile>

namespace Kelda {

namespace TlsFiles {

namespace {

bool read(const QString &path, QByteArray *content, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("Cannot read %1: %2").arg(path, file.errorString());
        return false;
    }
    *content = file.readAll();
    return true;
}

QSslKey privateKey(const QByteArray &pem)
{
    // A PEM key names its algorithm only in its header, which QSslKey does
    // not read: try each.
    for (const QSsl::KeyAlgorithm algorithm : {QSsl::Rsa, QSsl::Ec, QSsl::Dsa}) {
        const QSslKey key(pem, algorithm, QSsl::Pem, QSsl::PrivateKey);
        if (!key.isNull())
            return key;
    }
    return QSslKey();
}

} // namespace

bool readCertificates(const QString &path, QList<QSslCertificate> *certificates, QString *error)
{
    QByteArray pem;
    if (!read(path, &pem, error))
        return false;
    *certificates = QSslCertificate::fromData(pem, QSsl::Pem);
    if (certificates->isEmpty()) {
        *error = QStringLiteral("%1 holds no PEM certificate").arg(path);
        return false;
    }
    return true;
}

bool readPrivateKey(const QString &path, QSslKey *key, QString *error)
{
    QByteArray pem;
    if (!read(path, &pem, error))
        return false;
    *key = privateKey(pem);
    if (key->isNull()) {
        *error = QStringLiteral("%1 holds no unencrypted PEM private key").arg(path);
        return false;
    }
    return true;
}

} // namespace TlsFiles

} // namespace Kelda
