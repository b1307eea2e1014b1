#pragma once

#include <QByteArray>
#include <QSslKey>
#include <QString>

namespace Kelda {

// Reading the PEM files both ends take for TLS.
namespace TlsFiles {

// The file's bytes, or false with a message that names the file.
bool read(const QString &path, QByteArray *content, QString *error);

// The private key in pem, whichever algorithm it is for; null when none.
QSslKey privateKey(const QByteArray &pem);

} // namespace TlsFiles

} // namespace Kelda
