#include "tlsfiles.h"

#include <QFile>

namespace Kelda {

namespace TlsFiles {

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

} // namespace TlsFiles

} // namespace Kelda
