#pragma once

#include <QList>
#include <QSslCertificate>
#include <QSslKey>
#include <QString>

namespace Kelda {

// Reading the PEM files both ends take for TLS. Each function fails with a
// message that names the file.
namespace TlsFiles {

// The certificates in the file, at least one.
bool readCertificates(const QString &path, QList<QSslCertificate> *certificates, QString *error);

// The unencrypted private key in the file, whichever algorithm it is for.
bool readPrivateKey(const QString &path, QSslKey *key, QString *error);

} // namespace TlsFiles

} // namespace Kelda
