#include "answerspool.h"

#include "spoolfolder.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <unistd.h>

namespace Kelda {

AnswerSpool::AnswerSpool(std::shared_ptr<SpoolFolder> folder)
    : m_folder(std::move(folder))
{ }

AnswerSpool::~AnswerSpool()
{
    m_file.reset();
    m_folder->release(m_reserved);
}

bool AnswerSpool::append(const QByteArray &bytes)
{
    if (m_size + bytes.size() > m_folder->maxAnswer()) {
        m_error = QStringLiteral("The answer would exceed the %1 bytes one answer may have (--max-answer); narrow "
                                 "the query")
                      .arg(m_folder->maxAnswer());
        return false;
    }
    if (isInMemory() && m_memory.size() + bytes.size() <= MemoryBytes) {
        m_memory += bytes;
        m_size += bytes.size();
        return true;
    }
    if (isInMemory() && !spill())
        return false;
    if (!writeToFile(m_size, bytes.constData(), bytes.size()))
        return false;
    m_size += bytes.size();
    return true;
}

bool AnswerSpool::spill()
{
    FileDescriptor file(m_folder->createFile());
    if (!file.isValid()) {
        m_error = systemError(QStringLiteral("Cannot make a spool file in %1"), errno);
        return false;
    }
    m_file = std::move(file);
    if (writeToFile(0, m_memory.constData(), m_memory.size())) {
        m_memory = QByteArray();
        return true;
    }
    m_file.reset();
    return false;
}

bool AnswerSpool::writeToFile(qint64 at, const char *data, qint64 length)
{
    if (!m_folder->reserve(length)) {
        m_error = QStringLiteral("The server has no room for this answer now: spooled answers take %1 of the %2 "
                                 "bytes they may (--max-spool); try again later")
                      .arg(m_folder->used())
                      .arg(m_folder->maxBytes());
        return false;
    }
    m_reserved += length;
    qint64 written = 0;
    while (written < length) {
        const ssize_t step = ::pwrite(m_file.get(), data + written, size_t(length - written), at + written);
        if (step < 0 && errno == EINTR)
            continue;
        if (step <= 0) {
            m_error = systemError(QStringLiteral("Cannot write the answer to the spool folder %1"),
                                  step < 0 ? errno : ENOSPC);
            return false;
        }
        written += step;
    }
    return true;
}

QByteArray AnswerSpool::takeMemory()
{
    m_size = 0;
    return std::exchange(m_memory, QByteArray());
}

QByteArray AnswerSpool::read(qint64 maxBytes)
{
    const qint64 length = qMin(maxBytes, remaining());
    if (length <= 0)
        return QByteArray();
    if (isInMemory()) {
        const QByteArray piece = m_memory.mid(int(m_readAt), int(length));
        m_readAt += length;
        return piece;
    }
    QByteArray piece(int(length), Qt::Uninitialized);
    qint64 done = 0;
    while (done < length) {
        const ssize_t step = ::pread(m_file.get(), piece.data() + done, size_t(length - done), m_readAt + done);
        if (step < 0 && errno == EINTR)
            continue;
        if (step <= 0) {
            m_error = systemError(QStringLiteral("Cannot read the answer back from the spool folder %1"),
                                  step < 0 ? errno : EIO);
            return QByteArray();
        }
        done += step;
    }
    m_readAt += length;
    return piece;
}

QString AnswerSpool::systemError(const QString &what, int code) const
{
    return QStringLiteral("%1: %2").arg(what.arg(m_folder->path()), QString::fromLocal8Bit(std::strerror(code)));
}

} // namespace Kelda
