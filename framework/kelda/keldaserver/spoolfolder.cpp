#include "spoolfolder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kelda {

SpoolFolder::SpoolFolder(qint64 maxBytes, qint64 maxAnswer)
    : m_maxBytes(maxBytes)
    , m_maxAnswer(maxAnswer)
{ }

bool SpoolFolder::open(const QString &path, QString *error)
{
    // Only the server looks inside: its clients may share the storage.
    if (!QDir().mkpath(QFileInfo(path).absolutePath()) ||
        (::mkdir(QFile::encodeName(path).constData(), 0700) != 0 && errno != EEXIST)) {
        *error = QStringLiteral("Cannot create the spool folder %1: %2")
                     .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    m_folder =
        FileDescriptor(::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!m_folder.isValid()) {
        *error = QStringLiteral("Cannot open the spool folder %1: %2")
                     .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    m_path = path;
    return true;
}

int SpoolFolder::createFile() const
{
    const int fd = ::openat(m_folder.get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR))
        return fd;
    // A file system without unnamed files: a fresh name, removed at once.
    for (int attempt = 0; attempt < 16; ++attempt) {
        const QByteArray name = "answer-" + QByteArray::number(QRandomGenerator::system()->generate64(), 16);
        const int named =
            ::openat(m_folder.get(), name.constData(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (named >= 0) {
            ::unlinkat(m_folder.get(), name.constData(), 0);
            return named;
        }
        if (errno != EEXIST)
            return -1;
    }
    return -1;
}

bool SpoolFolder::reserve(qint64 bytes)
{
    qint64 used = m_used.load();
    do {
        if (used + bytes > m_maxBytes)
            return false;
    } while (!m_used.compare_exchange_weak(used, used + bytes));
    return true;
}

void SpoolFolder::release(qint64 bytes)
{
    m_used -= bytes;
}

} // namespace Kelda
