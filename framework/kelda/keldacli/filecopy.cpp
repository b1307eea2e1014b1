#include "filecopy.h"

#include "filedigest.h"

#include <QFile>
#include <QSaveFile>
#include <QRandomGenerator>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace KeldaCli {

namespace {

constexpr int kBlockSize = 1 << 20;

QString copyBlocks(QFile &in, QIODevice &out, const QString &to, QByteArray &buffer, std::atomic<qint64> &copied,
                   Kelda::FileDigest *digest)
{
    if (buffer.size() < kBlockSize)
        buffer.resize(kBlockSize);
    for (;;) {
        const qint64 got = in.read(buffer.data(), buffer.size());
        if (got < 0)
            return QStringLiteral("cannot read '%1': %2").arg(in.fileName(), in.errorString());
        if (got == 0)
            return QString();
        if (out.write(buffer.constData(), got) != got)
            return QStringLiteral("cannot write '%1': %2").arg(to, out.errorString());
        if (digest)
            digest->add(buffer.constData(), size_t(got));
        copied += got;
    }
}

QString durableCopy(QFile &in, const QString &to, QByteArray &buffer, std::atomic<qint64> &copied,
                    Kelda::FileDigest *digest)
{
    QSaveFile out(to);
    if (!out.open(QIODevice::WriteOnly))
        return QStringLiteral("cannot write '%1': %2").arg(to, out.errorString());
    const QString error = copyBlocks(in, out, to, buffer, copied, digest);
    if (!error.isEmpty())
        return error;
    if (!out.commit())
        return QStringLiteral("cannot write '%1': %2").arg(to, out.errorString());
    return QString();
}

// A name of its own beside the destination, made with the permissions a
// new file gets (unlike a QTemporaryFile's, which are the owner's only).
QString plainCopy(QFile &in, const QString &to, QByteArray &buffer, std::atomic<qint64> &copied,
                  Kelda::FileDigest *digest)
{
    QFile out(
        QStringLiteral("%1.part-%2").arg(to).arg(QRandomGenerator::global()->generate(), 8, 16, QLatin1Char('0')));
    if (!out.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        return QStringLiteral("cannot write '%1': %2").arg(out.fileName(), out.errorString());
    QString error = copyBlocks(in, out, to, buffer, copied, digest);
    out.close();
    if (error.isEmpty() && out.error() != QFileDevice::NoError)
        error = QStringLiteral("cannot write '%1': %2").arg(to, out.errorString());
    // rename(2) replaces an existing file in one step, unlike QFile::rename.
    if (error.isEmpty() &&
        std::rename(QFile::encodeName(out.fileName()).constData(), QFile::encodeName(to).constData()) != 0)
        error = QStringLiteral("cannot write '%1': %2").arg(to, QString::fromLocal8Bit(std::strerror(errno)));
    if (!error.isEmpty())
        out.remove();
    return error;
}

} // namespace

QString copyFile(const QString &from, const QString &to, CopyMode mode, QByteArray &buffer, std::atomic<qint64> &copied,
                 QByteArray *digest)
{
    QFile in(from);
    if (!in.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read '%1': %2").arg(from, in.errorString());
    std::unique_ptr<Kelda::FileDigest> hash = digest ? std::make_unique<Kelda::FileDigest>() : nullptr;
    const QString error = mode == CopyMode::Durable ? durableCopy(in, to, buffer, copied, hash.get())
                                                    : plainCopy(in, to, buffer, copied, hash.get());
    if (hash && error.isEmpty())
        *digest = hash->finish().toHex();
    return error;
}

} // namespace KeldaCli
