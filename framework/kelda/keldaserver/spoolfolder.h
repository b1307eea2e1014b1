#pragma once

#include "filedescriptor.h"

#include <QString>

#include <atomic>

namespace Kelda {

// Where large answers wait on disk for their clients, and how much of the
// disk they may take together. Their files have no name (they are gone the
// moment they are closed, also after a crash), and they are made through a
// descriptor of the folder opened once at start, so that nothing done to
// the folder's path later redirects them. Thread-safe once open.
class SpoolFolder
{
public:
    // maxBytes: the disk all spooled answers may take together; maxAnswer:
    // the largest one answer may grow.
    SpoolFolder(qint64 maxBytes, qint64 maxAnswer);

    // Creates the folder when missing and opens it; false with *error set.
    bool open(const QString &path, QString *error);
    QString path() const { return m_path; }

    // A new file without a name, open for reading and writing; -1 with
    // errno set when none can be made.
    int createFile() const;

    // Takes bytes of the disk budget; false, taking nothing, when they do
    // not fit.
    bool reserve(qint64 bytes);
    void release(qint64 bytes);
    qint64 used() const { return m_used.load(); }

    qint64 maxBytes() const { return m_maxBytes; }
    qint64 maxAnswer() const { return m_maxAnswer; }

private:
    const qint64 m_maxBytes;
    const qint64 m_maxAnswer;
    QString m_path;
    FileDescriptor m_folder;
    std::atomic<qint64> m_used{0};
};

} // namespace Kelda
