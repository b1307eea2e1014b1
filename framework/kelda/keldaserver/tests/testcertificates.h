#pragma once

#include <QString>
#include <QTemporaryDir>

// Certificates for the TLS tests, made at run time with the openssl tool:
// an authority, a certificate for the server on 127.0.0.1 and localhost,
// one per user on demand, and a second, foreign authority whose users no
// server trusts. Every file is PEM; keys are unencrypted.
class TestCertificates
{
public:
    // The set shared by one test program; made on first use. Null, with a
    // message on stderr, when openssl cannot make it.
    static TestCertificates *shared();

    QString authority() const { return path(QStringLiteral("ca.pem")); }
    QString serverCertificate() const { return path(QStringLiteral("server.pem")); }
    QString serverKey() const { return path(QStringLiteral("server.key")); }
    QString foreignAuthority() const { return path(QStringLiteral("foreign-ca.pem")); }

    // A client certificate whose common name is user, signed by the
    // authority or by the foreign one; made when first asked for. Empty
    // when openssl failed.
    QString userCertificate(const QString &user, bool foreign = false);
    QString userKey(const QString &user, bool foreign = false);

    QString errorString() const { return m_error; }

private:
    bool create();
    bool makeAuthority(const QString &name, const QString &commonName);
    bool makeSigned(const QString &name, const QString &commonName, const QString &authority,
                    const QString &extensions);
    bool run(const QStringList &arguments);
    QString path(const QString &name) const { return m_dir.filePath(name); }
    static QString userFile(const QString &user, bool foreign);

    QTemporaryDir m_dir;
    QString m_error;
};
