#include "testcertificates.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <cstdio>
#include <memory>
#include <mutex>

namespace {

const QStringList kKeyOptions{QStringLiteral("-newkey"), QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                              QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes")};

} // namespace

TestCertificates *TestCertificates::shared()
{
    static std::unique_ptr<TestCertificates> certificates;
    static std::once_flag once;
    std::call_once(once, [] {
        auto made = std::make_unique<TestCertificates>();
        if (made->create())
            certificates = std::move(made);
        else
            std::fprintf(stderr, "Cannot make test certificates: %s\n", qPrintable(made->errorString()));
    });
    return certificates.get();
}

bool TestCertificates::run(const QStringList &arguments)
{
    QProcess openssl;
    openssl.setWorkingDirectory(m_dir.path());
    openssl.start(QStringLiteral("openssl"), arguments);
    if (!openssl.waitForFinished(30000) || openssl.exitStatus() != QProcess::NormalExit || openssl.exitCode() != 0) {
        m_error = QStringLiteral("openssl %1: %2 %3")
                      .arg(arguments.join(QLatin1Char(' ')), openssl.errorString(),
                           QString::fromLocal8Bit(openssl.readAllStandardError()));
        return false;
    }
    return true;
}

bool TestCertificates::makeAuthority(const QString &name, const QString &commonName)
{
    return run(QStringList{QStringLiteral("req"), QStringLiteral("-x509")} + kKeyOptions +
               QStringList{QStringLiteral("-keyout"), name + QStringLiteral(".key"), QStringLiteral("-out"),
                           name + QStringLiteral(".pem"), QStringLiteral("-days"), QStringLiteral("2"),
                           QStringLiteral("-subj"), QStringLiteral("/CN=") + commonName});
}

bool TestCertificates::makeSigned(const QString &name, const QString &commonName, const QString &authority,
                                  const QString &extensions)
{
    const QString extensionFile = name + QStringLiteral(".ext");
    QFile file(path(extensionFile));
    if (!file.open(QIODevice::WriteOnly) || file.write(extensions.toUtf8()) < 0) {
        m_error = QStringLiteral("Cannot write %1").arg(file.fileName());
        return false;
    }
    file.close();
    return run(QStringList{QStringLiteral("req")} + kKeyOptions +
               QStringList{QStringLiteral("-keyout"), name + QStringLiteral(".key"), QStringLiteral("-out"),
                           name + QStringLiteral(".csr"), QStringLiteral("-subj"),
                           QStringLiteral("/CN=") + commonName}) &&
        run({QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"), name + QStringLiteral(".csr"),
             QStringLiteral("-CA"), authority + QStringLiteral(".pem"), QStringLiteral("-CAkey"),
             authority + QStringLiteral(".key"), QStringLiteral("-CAcreateserial"), QStringLiteral("-out"),
             name + QStringLiteral(".pem"), QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-extfile"),
             extensionFile});
}

bool TestCertificates::create()
{
    if (!m_dir.isValid()) {
        m_error = QStringLiteral("No temporary folder");
        return false;
    }
    return makeAuthority(QStringLiteral("ca"), QStringLiteral("Kelda Test Authority")) &&
        makeAuthority(QStringLiteral("foreign-ca"), QStringLiteral("Somebody Else")) &&
        makeSigned(QStringLiteral("server"), QStringLiteral("localhost"), QStringLiteral("ca"),
                   QStringLiteral("basicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n"
                                  "subjectAltName=IP:127.0.0.1,DNS:localhost\n"));
}

QString TestCertificates::userFile(const QString &user, bool foreign)
{
    // User names may hold anything; file names hold a digest of them.
    return (foreign ? QStringLiteral("foreign-") : QStringLiteral("user-")) +
        QString::fromLatin1(QCryptographicHash::hash(user.toUtf8(), QCryptographicHash::Sha1).toHex().left(16));
}

QString TestCertificates::userCertificate(const QString &user, bool foreign)
{
    const QString name = userFile(user, foreign);
    if (!QFileInfo::exists(path(name + QStringLiteral(".pem"))) &&
        !makeSigned(name, user, foreign ? QStringLiteral("foreign-ca") : QStringLiteral("ca"),
                    QStringLiteral("basicConstraints=CA:FALSE\nextendedKeyUsage=clientAuth\n")))
        return QString();
    return path(name + QStringLiteral(".pem"));
}

QString TestCertificates::userKey(const QString &user, bool foreign)
{
    return userCertificate(user, foreign).isEmpty() ? QString()
                                                    : path(userFile(user, foreign) + QStringLiteral(".key"));
}
