#include "filecopier.h"

#include "filedigest.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <vector>

namespace Kelda {

FileCopier::Result FileCopier::digest(const QString &source)
{
    return read(source, QString());
}

FileCopier::Result FileCopier::copy(const QString &source, const QString &target)
{
    return read(source, target);
}

FileCopier::Result FileCopier::read(const QString &source, const QString &target)
{
    Result result;
    QFile in(source);
    if (!in.open(QIODevice::ReadOnly)) {
        result.missing = !QFileInfo::exists(source);
        result.error = QStringLiteral("Cannot read %1: %2").arg(source, in.errorString());
        return result;
    }
    QSaveFile out(target);
    if (!target.isEmpty() && (!QDir().mkpath(QFileInfo(target).absolutePath()) || !out.open(QIODevice::WriteOnly))) {
        result.error = QStringLiteral("Cannot write %1: %2").arg(target, out.errorString());
        return result;
    }
    FileDigest digest;
    std::vector<char> buffer(static_cast<size_t>(ChunkBytes));
    for (;;) {
        const qint64 got = in.read(buffer.data(), ChunkBytes);
        if (got < 0) {
            result.error = QStringLiteral("Cannot read %1: %2").arg(source, in.errorString());
            return result;
        }
        if (got == 0)
            break;
        digest.add(buffer.data(), size_t(got));
        result.size += got;
        if (!target.isEmpty() && out.write(buffer.data(), got) != got) {
            result.error = QStringLiteral("Cannot write %1: %2").arg(target, out.errorString());
            return result;
        }
    }
    if (!target.isEmpty() && !out.commit()) {
        result.error = QStringLiteral("Cannot write %1: %2").arg(target, out.errorString());
        return result;
    }
    result.sha256 = FileDigest::hex(digest.finish());
    result.ok = true;
    return result;
}

} // namespace Kelda
