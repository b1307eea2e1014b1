#pragma once

#include "filedescriptor.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <sys/stat.h>

#include <atomic>
#include <optional>

namespace Kelda {

class ReadPace;

// How a long read is steered from outside; both optional. A stopped read
// fails.
struct ReadControl
{
    const std::atomic<bool> *stop = nullptr;
    ReadPace *pace = nullptr;
};

// A directory below one of the server's roots (base path, network storage,
// exchange folder), reached one path component at a time from the root
// without following a symbolic link. Whatever a client or a local user
// plants below a root, every read, write and removal made through this
// class stays inside it; a link anywhere on the way is refused, never
// followed. The root itself is the administrator's choice and is opened as
// configured.
//
// Only regular files are read or copied: FIFOs, devices and sockets are
// refused before anything waits on them. New files and directories are
// created exclusively, so nothing that is there already is overwritten.
// Failures come back as false or an invalid object with a sentence in
// *error that names the path.
class ConfinedDirectory
{
public:
    enum class Creation { Existing, CreateMissing };
    enum class Kind { Missing, Regular, Directory, Link, Other };

    // What reading a whole file found.
    struct Digest
    {
        qint64 size = 0;
        qint64 modifiedNs = 0; // since the epoch
        QByteArray sha256;
    };

    ConfinedDirectory() = default;

    // The directory at path, which must be root itself or lie below it;
    // CreateMissing makes the missing components on the way.
    static ConfinedDirectory open(const QString &root, const QString &path, Creation creation, QString *error);
    // The same with this directory as the root, already open: no walk from
    // the file system's root to it.
    ConfinedDirectory openWithin(const QString &path, Creation creation, QString *error) const;
    // Removes the directory at path below root if it is empty once its
    // empty sub-directories are gone; never root itself, nothing above path.
    static void removeEmptyTree(const QString &root, const QString &path);

    bool isOpen() const { return m_fd.isValid(); }
    // Whether the open that made this object failed because a component is
    // missing (as opposed to being a link or no directory).
    bool wasMissing() const { return m_missing; }
    QString path() const { return m_path; }

    // A directory entry, without following a link.
    Kind kindOf(const QString &name) const;
    ConfinedDirectory subdirectory(const QString &name, QString *error) const;
    // Creates name as a new directory; fails when anything is there.
    ConfinedDirectory createSubdirectory(const QString &name, QString *error) const;
    QStringList entryNames() const;

    // Whether name is a regular file, looked at without following a link.
    bool checkRegularFile(const QString &name, QString *error) const;
    std::optional<qint64> regularFileSize(const QString &name, QString *error) const;
    // The whole content, when name is a regular file of at most maxBytes.
    std::optional<QByteArray> readFile(const QString &name, qint64 maxBytes, QString *error) const;
    // Writes a file that must not exist yet.
    bool writeNewFile(const QString &name, const QByteArray &content, QString *error) const;
    // Reads the regular file name once and digests it. A file that changes
    // while it is read (its size or time moves) fails.
    std::optional<Digest> digestFile(const QString &name, QString *error, const ReadControl &control = {}) const;
    // The same for a file of at most largest bytes; a larger one is not
    // opened: the result is empty without an error. *size receives the size
    // found whenever name is a regular file.
    std::optional<Digest> digestSmallFile(const QString &name, qint64 largest, qint64 *size, QString *error) const;
    // Copies the regular file name into target under the same name, which
    // must not exist there yet; the copy is flushed to disk before this
    // returns, so that its source may be removed. *copied, when given,
    // receives the digest of the bytes copied.
    bool copyFileTo(const QString &name, const ConfinedDirectory &target, QString *error, Digest *copied = nullptr,
                    const ReadControl &control = {}) const;
    // Removes name when it is a regular file; a missing file counts as
    // removed, anything else is left and refused.
    bool removeFile(const QString &name, QString *error) const;
    // Removes the empty directories below this one, deepest first.
    void removeEmptySubdirectories() const;
    // Removes the directory name below this one if it is empty once its
    // empty sub-directories are gone.
    bool removeEmptySubdirectory(const QString &name) const;

    // A single path component that leads neither up nor sideways.
    static bool isPlainName(const QString &name);

private:
    ConfinedDirectory(FileDescriptor fd, const QString &path);

    // Splits path, which must be cleanRoot or lie below it, into the
    // components below cleanRoot.
    static bool componentsBelow(const QString &cleanRoot, const QString &path, QStringList *components, QString *error);
    // Opens the directory components lead to below this one.
    ConfinedDirectory descend(const QStringList &components, Creation creation, QString *error) const;
    ConfinedDirectory openChild(const QString &name, Creation creation, QString *error) const;
    // The fast way to a directory below this one; closed when it did not
    // work out, and the caller walks.
    ConfinedDirectory openBelow(const QStringList &components, Creation creation, QString *error) const;
    bool statRegular(const QString &name, struct stat *status, QString *error) const;
    FileDescriptor openRegular(const QString &name, struct stat *status, QString *error) const;
    // Opens what statRegular found a regular file, and checks it still is.
    FileDescriptor openLookedAt(const QString &name, struct stat *status, QString *error) const;
    std::optional<Digest> digestOpened(const FileDescriptor &fd, const struct stat &before, const QString &name,
                                       QString *error, const ReadControl &control) const;
    QString childPath(const QString &name) const;
    bool removeEmptyChild(const QString &name, int depth) const;
    void removeEmptySubdirectories(int depth) const;

    FileDescriptor m_fd;
    QString m_path;
    bool m_missing = false;
};

} // namespace Kelda
