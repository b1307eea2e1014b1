#include "confineddirectory.h"

#include "filedigest.h"
#include "readpace.h"

#include <QDir>
#include <QFile>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#endif

#include <cerrno>
#include <cstring>
#include <memory>

namespace Kelda {

namespace {

// Group directories are flat; anything deeper than this below one is not
// walked when empty directories are cleared away, which bounds the
// descriptors and stack a planted tree can take.
constexpr int kMaxDepth = 32;
constexpr size_t kCopyBuffer = 256 * 1024;
// Large enough that a read's cost is the digest's, not the system call's.
constexpr size_t kDigestBuffer = 1024 * 1024;
constexpr size_t kSmallestBuffer = 4096;

qint64 modifiedNs(const struct stat &status)
{
    return qint64(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
}

QByteArray encoded(const QString &name)
{
    return QFile::encodeName(name);
}

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// What an errno from walking or opening means to whoever reads the trace.
QString describe(const QString &path, int error)
{
    switch (error) {
    case ELOOP:
        return QStringLiteral("%1 is a symbolic link, which the server does not follow").arg(path);
    case ENOTDIR:
        return QStringLiteral("%1 is not a directory").arg(path);
    case ENOENT:
        return QStringLiteral("%1 does not exist").arg(path);
    case EEXIST:
        return QStringLiteral("%1 exists already; nothing was overwritten").arg(path);
    default:
        return QStringLiteral("%1: %2").arg(path, systemError(error));
    }
}

QString kindText(mode_t mode)
{
    if (S_ISLNK(mode))
        return QStringLiteral("a symbolic link");
    if (S_ISDIR(mode))
        return QStringLiteral("a directory");
    if (S_ISFIFO(mode))
        return QStringLiteral("a FIFO");
    if (S_ISCHR(mode) || S_ISBLK(mode))
        return QStringLiteral("a device");
    if (S_ISSOCK(mode))
        return QStringLiteral("a socket");
    return QStringLiteral("no regular file");
}

bool writeAll(int fd, const char *data, size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        data += written;
        size -= size_t(written);
    }
    return true;
}

ssize_t readSome(int fd, char *data, size_t size)
{
    for (;;) {
        const ssize_t got = ::read(fd, data, size);
        if (got >= 0 || errno != EINTR)
            return got;
    }
}

void setError(QString *error, const QString &text)
{
    if (error)
        *error = text;
}

// A read buffer no larger than the file it is for. Most archived files are
// small, and a megabyte cleared and mapped for each of them cost more than
// reading them.
class ReadBuffer
{
public:
    ReadBuffer(qint64 fileSize, size_t largest)
        : m_size(size_t(qBound(qint64(kSmallestBuffer), fileSize, qint64(largest))))
        , m_data(new char[m_size])
    { }
    char *data() const { return m_data.get(); }
    size_t size() const { return m_size; }

private:
    size_t m_size;
    std::unique_ptr<char[]> m_data;
};

// Opens the directory at relative below dirFd in one call, refusing a
// symbolic link anywhere on the way and any step out of dirFd. -1 when the
// kernel cannot (no openat2) or the path does not resolve; the caller then
// walks it component by component, which also says what went wrong.
int openDirectoryBeneath(int dirFd, const QByteArray &relative)
{
#if defined(SYS_openat2) && defined(RESOLVE_BENEATH)
    struct open_how how;
    std::memset(&how, 0, sizeof how);
    how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    for (;;) {
        const long fd = ::syscall(SYS_openat2, dirFd, relative.constData(), &how, sizeof how);
        if (fd >= 0 || errno != EINTR)
            return int(fd);
    }
#else
    Q_UNUSED(dirFd)
    Q_UNUSED(relative)
    return -1;
#endif
}

} // namespace

ConfinedDirectory::ConfinedDirectory(FileDescriptor fd, const QString &path)
    : m_fd(std::move(fd))
    , m_path(path)
{ }

bool ConfinedDirectory::isPlainName(const QString &name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..") &&
        !name.contains(QLatin1Char('/')) && !name.contains(QChar(0));
}

QString ConfinedDirectory::childPath(const QString &name) const
{
    return m_path.endsWith(QLatin1Char('/')) ? m_path + name : m_path + QLatin1Char('/') + name;
}

ConfinedDirectory ConfinedDirectory::open(const QString &root, const QString &path, Creation creation, QString *error)
{
    const QString cleanRoot = QDir::cleanPath(root);
    QStringList components;
    if (!componentsBelow(cleanRoot, path, &components, error))
        return ConfinedDirectory();
    // The root is followed as configured; below it nothing is.
    const int rootFd = ::open(encoded(cleanRoot).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ConfinedDirectory current(FileDescriptor(rootFd), cleanRoot);
    if (!current.isOpen()) {
        const int failure = errno;
        setError(error, describe(cleanRoot, failure));
        current.m_missing = failure == ENOENT;
        return current;
    }
    if (components.isEmpty())
        return current;
    return current.descend(components, creation, error);
}

ConfinedDirectory ConfinedDirectory::openWithin(const QString &path, Creation creation, QString *error) const
{
    QStringList components;
    if (!componentsBelow(m_path, path, &components, error))
        return ConfinedDirectory();
    // This directory itself is not handed out twice: its own descriptor
    // stays with its owner.
    if (components.isEmpty())
        return open(m_path, path, creation, error);
    return descend(components, creation, error);
}

bool ConfinedDirectory::componentsBelow(const QString &cleanRoot, const QString &path, QStringList *components,
                                        QString *error)
{
    const QString cleanPath = QDir::cleanPath(path);
    if (cleanPath == cleanRoot)
        return true;
    const QString prefix = cleanRoot.endsWith(QLatin1Char('/')) ? cleanRoot : cleanRoot + QLatin1Char('/');
    if (QDir::isRelativePath(cleanPath) || !cleanPath.startsWith(prefix)) {
        setError(error, QStringLiteral("%1 does not lie below %2").arg(path, cleanRoot));
        return false;
    }
    *components = cleanPath.mid(prefix.size()).split(QLatin1Char('/'));
    return true;
}

ConfinedDirectory ConfinedDirectory::descend(const QStringList &components, Creation creation, QString *error) const
{
    ConfinedDirectory resolved = openBelow(components, creation, error);
    if (resolved.isOpen())
        return resolved;
    ConfinedDirectory current = openChild(components.first(), creation, error);
    for (int i = 1; i < components.size() && current.isOpen(); ++i)
        current = current.openChild(components.at(i), creation, error);
    return current;
}

ConfinedDirectory ConfinedDirectory::openBelow(const QStringList &components, Creation creation, QString *error) const
{
    const QString relative = components.join(QLatin1Char('/'));
    if (relative.contains(QChar(0)))
        return ConfinedDirectory();
    const int fd = openDirectoryBeneath(m_fd.get(), encoded(relative));
    if (fd >= 0)
        return ConfinedDirectory(FileDescriptor(fd), childPath(relative));
    // A new group's directory: its parent is usually there already.
    if (errno != ENOENT || creation != Creation::CreateMissing || components.size() < 2)
        return ConfinedDirectory();
    const ConfinedDirectory parent = openBelow(components.mid(0, components.size() - 1), Creation::Existing, error);
    return parent.isOpen() ? parent.openChild(components.last(), creation, error) : ConfinedDirectory();
}

ConfinedDirectory ConfinedDirectory::openChild(const QString &name, Creation creation, QString *error) const
{
    if (!isPlainName(name)) {
        setError(error, QStringLiteral("\"%1\" below %2 is no plain name").arg(name, m_path));
        return ConfinedDirectory();
    }
    const QByteArray child = encoded(name);
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int fd = ::openat(m_fd.get(), child.constData(), flags);
    if (fd < 0 && errno == ENOENT && creation == Creation::CreateMissing) {
        // Another thread or server may make it at the same moment.
        if (::mkdirat(m_fd.get(), child.constData(), 0777) == 0 || errno == EEXIST)
            fd = ::openat(m_fd.get(), child.constData(), flags);
    }
    ConfinedDirectory result(FileDescriptor(fd), childPath(name));
    if (fd < 0) {
        int failure = errno;
        // O_DIRECTORY may speak first and call a link no directory.
        struct stat status;
        if (failure == ENOTDIR && ::fstatat(m_fd.get(), child.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISLNK(status.st_mode))
            failure = ELOOP;
        setError(error, describe(result.m_path, failure));
        result.m_missing = failure == ENOENT;
    }
    return result;
}

ConfinedDirectory ConfinedDirectory::subdirectory(const QString &name, QString *error) const
{
    return openChild(name, Creation::Existing, error);
}

ConfinedDirectory ConfinedDirectory::createSubdirectory(const QString &name, QString *error) const
{
    if (!isPlainName(name)) {
        setError(error, QStringLiteral("\"%1\" below %2 is no plain name").arg(name, m_path));
        return ConfinedDirectory();
    }
    if (::mkdirat(m_fd.get(), encoded(name).constData(), 0777) != 0) {
        setError(error, describe(childPath(name), errno));
        return ConfinedDirectory();
    }
    return openChild(name, Creation::Existing, error);
}

ConfinedDirectory::Kind ConfinedDirectory::kindOf(const QString &name) const
{
    if (!isPlainName(name))
        return Kind::Other;
    struct stat status;
    if (::fstatat(m_fd.get(), encoded(name).constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? Kind::Missing : Kind::Other;
    if (S_ISREG(status.st_mode))
        return Kind::Regular;
    if (S_ISLNK(status.st_mode))
        return Kind::Link;
    return S_ISDIR(status.st_mode) ? Kind::Directory : Kind::Other;
}

QStringList ConfinedDirectory::entryNames() const
{
    QStringList names;
    // A descriptor of its own: reading entries moves its position.
    const int fd = ::openat(m_fd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return names;
    DIR *listing = ::fdopendir(fd);
    if (!listing) {
        ::close(fd);
        return names;
    }
    while (const dirent *entry = ::readdir(listing)) {
        const QString name = QFile::decodeName(entry->d_name);
        if (name != QLatin1String(".") && name != QLatin1String(".."))
            names.append(name);
    }
    ::closedir(listing);
    return names;
}

bool ConfinedDirectory::statRegular(const QString &name, struct stat *status, QString *error) const
{
    if (!isPlainName(name)) {
        setError(error, QStringLiteral("\"%1\" below %2 is no plain name").arg(name, m_path));
        return false;
    }
    if (::fstatat(m_fd.get(), encoded(name).constData(), status, AT_SYMLINK_NOFOLLOW) != 0) {
        setError(error, describe(childPath(name), errno));
        return false;
    }
    if (!S_ISREG(status->st_mode)) {
        setError(error, QStringLiteral("%1 is %2, not a regular file").arg(childPath(name), kindText(status->st_mode)));
        return false;
    }
    return true;
}

FileDescriptor ConfinedDirectory::openRegular(const QString &name, struct stat *status, QString *error) const
{
    // Looked at before opening: opening a device or FIFO may itself have
    // effects or wait.
    if (!statRegular(name, status, error))
        return FileDescriptor();
    return openLookedAt(name, status, error);
}

FileDescriptor ConfinedDirectory::openLookedAt(const QString &name, struct stat *status, QString *error) const
{
    const QString path = childPath(name);
    const QByteArray child = encoded(name);
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    // The server's reads (digests, copies, checks) are no use of the file:
    // its access time stays, and no inode is written for it. Only the
    // file's owner may ask for that.
    FileDescriptor fd(::openat(m_fd.get(), child.constData(), flags | O_NOATIME));
    if (!fd.isValid() && errno == EPERM)
        fd = FileDescriptor(::openat(m_fd.get(), child.constData(), flags));
    if (!fd.isValid()) {
        setError(error, describe(path, errno));
        return fd;
    }
    // The entry may have been replaced between the look and the open.
    if (::fstat(fd.get(), status) != 0 || !S_ISREG(status->st_mode)) {
        setError(error, QStringLiteral("%1 is not a regular file").arg(path));
        return FileDescriptor();
    }
    return fd;
}

bool ConfinedDirectory::checkRegularFile(const QString &name, QString *error) const
{
    struct stat status;
    return statRegular(name, &status, error);
}

std::optional<qint64> ConfinedDirectory::regularFileSize(const QString &name, QString *error) const
{
    struct stat status;
    if (!statRegular(name, &status, error))
        return std::nullopt;
    return qint64(status.st_size);
}

std::optional<QByteArray> ConfinedDirectory::readFile(const QString &name, qint64 maxBytes, QString *error) const
{
    struct stat status;
    const FileDescriptor fd = openRegular(name, &status, error);
    if (!fd.isValid())
        return std::nullopt;
    const QString tooLarge = QStringLiteral("%1 is larger than %2 bytes").arg(childPath(name)).arg(maxBytes);
    if (status.st_size > maxBytes) {
        setError(error, tooLarge);
        return std::nullopt;
    }
    // The size is only a hint: the file may grow while it is read.
    QByteArray content;
    content.reserve(int(status.st_size));
    const ReadBuffer buffer(status.st_size, 64 * 1024);
    for (;;) {
        const ssize_t got = readSome(fd.get(), buffer.data(), buffer.size());
        if (got < 0) {
            setError(error, describe(childPath(name), errno));
            return std::nullopt;
        }
        if (got == 0)
            return content;
        if (content.size() + got > maxBytes) {
            setError(error, tooLarge);
            return std::nullopt;
        }
        content.append(buffer.data(), int(got));
    }
}

bool ConfinedDirectory::writeNewFile(const QString &name, const QByteArray &content, QString *error) const
{
    const QString path = childPath(name);
    if (!isPlainName(name)) {
        setError(error, QStringLiteral("\"%1\" below %2 is no plain name").arg(name, m_path));
        return false;
    }
    const QByteArray child = encoded(name);
    const FileDescriptor fd(
        ::openat(m_fd.get(), child.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!fd.isValid()) {
        setError(error, describe(path, errno));
        return false;
    }
    if (!writeAll(fd.get(), content.constData(), size_t(content.size()))) {
        setError(error, describe(path, errno));
        ::unlinkat(m_fd.get(), child.constData(), 0);
        return false;
    }
    return true;
}

std::optional<ConfinedDirectory::Digest> ConfinedDirectory::digestFile(const QString &name, QString *error,
                                                                       const ReadControl &control) const
{
    struct stat before;
    const FileDescriptor fd = openRegular(name, &before, error);
    if (!fd.isValid())
        return std::nullopt;
    ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return digestOpened(fd, before, name, error, control);
}

std::optional<ConfinedDirectory::Digest> ConfinedDirectory::digestSmallFile(const QString &name, qint64 largest,
                                                                            qint64 *size, QString *error) const
{
    struct stat status;
    if (!statRegular(name, &status, error))
        return std::nullopt;
    *size = status.st_size;
    if (status.st_size > largest)
        return std::nullopt;
    const FileDescriptor fd = openLookedAt(name, &status, error);
    if (!fd.isValid())
        return std::nullopt;
    *size = status.st_size;
    if (status.st_size > largest)
        return std::nullopt;
    return digestOpened(fd, status, name, error, {});
}

std::optional<ConfinedDirectory::Digest> ConfinedDirectory::digestOpened(const FileDescriptor &fd,
                                                                         const struct stat &before, const QString &name,
                                                                         QString *error,
                                                                         const ReadControl &control) const
{
    FileDigest digest;
    const ReadBuffer buffer(before.st_size, kDigestBuffer);
    qint64 read = 0;
    for (;;) {
        if (control.stop && *control.stop) {
            setError(error, QStringLiteral("Stopped while reading %1").arg(childPath(name)));
            return std::nullopt;
        }
        const ssize_t got = readSome(fd.get(), buffer.data(), buffer.size());
        if (got < 0) {
            setError(error, describe(childPath(name), errno));
            return std::nullopt;
        }
        if (got == 0)
            break;
        digest.add(buffer.data(), size_t(got));
        read += got;
        if (control.pace)
            control.pace->consumed(got, control.stop);
    }
    struct stat after;
    if (::fstat(fd.get(), &after) != 0 || after.st_size != before.st_size || read != after.st_size ||
        modifiedNs(after) != modifiedNs(before)) {
        setError(error, QStringLiteral("%1 changed while it was read").arg(childPath(name)));
        return std::nullopt;
    }
    return Digest{read, modifiedNs(after), digest.finish()};
}

bool ConfinedDirectory::copyFileTo(const QString &name, const ConfinedDirectory &target, QString *error, Digest *copied,
                                   const ReadControl &control) const
{
    struct stat status;
    const FileDescriptor in = openRegular(name, &status, error);
    if (!in.isValid())
        return false;
    ::posix_fadvise(in.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    const QString to = target.childPath(name);
    const QByteArray child = encoded(name);
    const FileDescriptor out(::openat(target.m_fd.get(), child.constData(),
                                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                      (status.st_mode & 0777) | S_IRUSR | S_IWUSR));
    if (!out.isValid()) {
        setError(error, describe(to, errno));
        return false;
    }
    const auto fail = [&](int failure) {
        setError(error, QStringLiteral("Cannot copy %1 to %2: %3").arg(childPath(name), to, systemError(failure)));
        ::unlinkat(target.m_fd.get(), child.constData(), 0);
        return false;
    };
    FileDigest digest;
    qint64 total = 0;
    const ReadBuffer buffer(status.st_size, kCopyBuffer);
    for (;;) {
        if (control.stop && *control.stop)
            return fail(EINTR);
        const ssize_t got = readSome(in.get(), buffer.data(), buffer.size());
        if (got == 0)
            break;
        if (got < 0 || !writeAll(out.get(), buffer.data(), size_t(got)))
            return fail(errno);
        if (copied)
            digest.add(buffer.data(), size_t(got));
        total += got;
        if (control.pace)
            control.pace->consumed(got, control.stop);
    }
    if (::fsync(out.get()) != 0)
        return fail(errno);
    if (copied)
        *copied = Digest{total, modifiedNs(status), digest.finish()};
    return true;
}

bool ConfinedDirectory::removeFile(const QString &name, QString *error) const
{
    switch (kindOf(name)) {
    case Kind::Missing:
        return true;
    case Kind::Regular:
        break;
    default:
        setError(error, QStringLiteral("%1 is not a regular file; it is left in place").arg(childPath(name)));
        return false;
    }
    // Should the entry be swapped for a link meanwhile, unlinkat removes
    // the link, never what it points to.
    if (::unlinkat(m_fd.get(), encoded(name).constData(), 0) != 0 && errno != ENOENT) {
        setError(error, describe(childPath(name), errno));
        return false;
    }
    return true;
}

void ConfinedDirectory::removeEmptySubdirectories() const
{
    removeEmptySubdirectories(0);
}

void ConfinedDirectory::removeEmptySubdirectories(int depth) const
{
    for (const QString &name : entryNames()) {
        if (kindOf(name) == Kind::Directory)
            removeEmptyChild(name, depth + 1);
    }
}

bool ConfinedDirectory::removeEmptySubdirectory(const QString &name) const
{
    return removeEmptyChild(name, 0);
}

bool ConfinedDirectory::removeEmptyChild(const QString &name, int depth) const
{
    if (depth > kMaxDepth)
        return false;
    const ConfinedDirectory child = openChild(name, Creation::Existing, nullptr);
    if (!child.isOpen())
        return false;
    child.removeEmptySubdirectories(depth);
    // Fails with ENOTEMPTY when anything is left, which is meant.
    return ::unlinkat(m_fd.get(), encoded(name).constData(), AT_REMOVEDIR) == 0;
}

void ConfinedDirectory::removeEmptyTree(const QString &root, const QString &path)
{
    const QString cleanRoot = QDir::cleanPath(root);
    const QString cleanPath = QDir::cleanPath(path);
    if (cleanPath == cleanRoot) {
        const ConfinedDirectory top = open(cleanRoot, cleanRoot, Creation::Existing, nullptr);
        if (top.isOpen())
            top.removeEmptySubdirectories();
        return;
    }
    const int cut = cleanPath.lastIndexOf(QLatin1Char('/'));
    const ConfinedDirectory parent = open(cleanRoot, cleanPath.left(qMax(cut, 1)), Creation::Existing, nullptr);
    if (parent.isOpen())
        parent.removeEmptyChild(cleanPath.mid(cut + 1), 0);
}

} // namespace Kelda
