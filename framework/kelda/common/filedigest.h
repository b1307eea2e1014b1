#pragma once

#include <QByteArray>
#include <QString>

#include <memory>

namespace Kelda {

// The SHA-256 digest of a stream of bytes, through OpenSSL's EVP interface,
// which uses the processor's SHA instructions where it has them.
class FileDigest
{
public:
    FileDigest();
    ~FileDigest();
    FileDigest(const FileDigest &) = delete;
    FileDigest &operator=(const FileDigest &) = delete;

    void add(const char *data, size_t size);
    // The 32 bytes of the digest; the object starts afresh afterwards.
    QByteArray finish();

    // The name stored and sent beside a digest.
    static QString algorithm() { return QStringLiteral("SHA-256"); }
    // Lower-case hexadecimal, the form stored, sent and printed.
    static QString hex(const QByteArray &digest) { return QString::fromLatin1(digest.toHex()); }

    // Frees what OpenSSL keeps for the calling thread (for its digests, and
    // for libpq's TLS). A QThread calls it last in run(): QThread::wait()
    // returns before the thread's own clean-up, so a process ending right
    // after could free that state at exit while the thread frees it too.
    static void releaseThreadState();

private:
    struct Context;
    std::unique_ptr<Context> m_context;
};

} // namespace Kelda
