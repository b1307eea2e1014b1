#pragma once

#include "filedescriptor.h"

#include <QByteArray>
#include <QString>

#include <memory>

namespace Kelda {

class SpoolFolder;

// One answer document, kept as it is written and read back as its client
// takes it: in memory while it is small, beyond MemoryBytes in a file
// without a name in the spool folder, so that the server holds little of an
// answer however large it grows. The file's disk counts against the
// folder's budget until the spool is destroyed, which also removes the
// file. One thread writes it, then hands it over to the one that reads it.
class AnswerSpool
{
public:
    explicit AnswerSpool(std::shared_ptr<SpoolFolder> folder);
    ~AnswerSpool();
    AnswerSpool(const AnswerSpool &) = delete;
    AnswerSpool &operator=(const AnswerSpool &) = delete;

    // Adds bytes at the end; false, keeping none of them, when the answer
    // would outgrow its limit or the folder's budget, or the disk fails
    // (errorString() says which).
    bool append(const QByteArray &bytes);
    qint64 size() const { return m_size; }
    bool isInMemory() const { return !m_file.isValid(); }
    // The whole document while it is in memory, which then holds nothing.
    QByteArray takeMemory();
    QString errorString() const { return m_error; }

    // The next at most maxBytes after those read before; empty at the end,
    // and on a failure to read, with errorString() set.
    QByteArray read(qint64 maxBytes);
    qint64 remaining() const { return m_size - m_readAt; }

    // Bytes of an answer kept in memory before it goes to disk.
    static constexpr qint64 MemoryBytes = 1024 * 1024;

private:
    bool spill();
    bool writeToFile(qint64 at, const char *data, qint64 length);
    // what names the folder as %1.
    QString systemError(const QString &what, int code) const;

    const std::shared_ptr<SpoolFolder> m_folder;
    QByteArray m_memory;
    FileDescriptor m_file;
    qint64 m_size = 0;
    qint64 m_reserved = 0;
    qint64 m_readAt = 0;
    QString m_error;
};

} // namespace Kelda
