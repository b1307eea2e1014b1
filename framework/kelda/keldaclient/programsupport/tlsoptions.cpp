#include "tlsoptions.h"

#include "keldaclient.h"

#include <QCommandLineParser>

namespace Kelda {

namespace {

const QString kCa = QStringLiteral("tls-ca");
const QString kCert = QStringLiteral("tls-cert");
const QString kKey = QStringLiteral("tls-key");

} // namespace

void TlsOptions::Add(QCommandLineParser &parser)
{
    parser.addOption({kCa,
                      QStringLiteral("Speak TLS and trust only a server certified by this authority (PEM); over "
                                     "TlsCaFile of the configuration."),
                      QStringLiteral("FILE")});
    parser.addOption({kCert, QStringLiteral("This user's certificate (PEM), for servers that ask for one."),
                      QStringLiteral("FILE")});
    parser.addOption({kKey, QStringLiteral("The unencrypted key (PEM) of --tls-cert."), QStringLiteral("FILE")});
}

bool TlsOptions::Read(const QCommandLineParser &parser, TlsOptions *options, QString *error)
{
    options->caFile = parser.value(kCa);
    options->certFile = parser.value(kCert);
    options->keyFile = parser.value(kKey);
    if (options->caFile.isEmpty() && (parser.isSet(kCert) || parser.isSet(kKey))) {
        *error = QStringLiteral("--tls-cert and --tls-key need --tls-ca, the authority that certifies the server");
        return false;
    }
    if (parser.isSet(kCert) != parser.isSet(kKey)) {
        *error = QStringLiteral("--tls-cert and --tls-key go together");
        return false;
    }
    return true;
}

void TlsOptions::Apply() const
{
    if (!caFile.isEmpty())
        KeldaClient::SetTlsFiles(caFile, certFile, keyFile);
}

} // namespace Kelda
