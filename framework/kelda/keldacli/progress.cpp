#include "progress.h"

#include "filedigest.h"

#include <QIODevice>

#include <unistd.h>

namespace KeldaCli {

namespace {

constexpr qint64 kBlockSize = 1 << 20;
constexpr qint64 kRedrawMs = 200;
constexpr double kMiB = 1024.0 * 1024.0;

QString mebibytes(qint64 bytes)
{
    return QStringLiteral("%1 MiB").arg(double(bytes) / kMiB, 0, 'f', 1);
}

} // namespace

Progress::Progress(const QString &label, FILE *stream, bool allowed)
    : m_label(label)
    , m_stream(stream)
    , m_enabled(allowed && isatty(fileno(stream)) == 1)
{
    m_sinceDraw.start();
}

Progress::~Progress()
{
    finish();
}

void Progress::update(const QString &status)
{
    if (!m_enabled)
        return;
    m_status = status;
    m_pending = true;
    // Work that ends within the first redraw interval shows nothing.
    if (m_sinceDraw.elapsed() >= kRedrawMs)
        draw();
}

void Progress::draw()
{
    m_sinceDraw.start();
    // "\033[K" clears what a longer previous line left behind.
    std::fprintf(m_stream, "\r%s: %s\033[K", qPrintable(m_label), qPrintable(m_status));
    std::fflush(m_stream);
    m_drawn = true;
    m_pending = false;
}

void Progress::finish()
{
    if (!m_drawn)
        return;
    if (m_pending)
        draw();
    std::fputc('\n', m_stream);
    std::fflush(m_stream);
    m_drawn = false;
}

QString byteProgressText(qint64 done, qint64 total)
{
    if (total <= 0)
        return mebibytes(done);
    const qint64 percent = done >= total ? 100 : done * 100 / total;
    return QStringLiteral("%1 of %2 (%3 %)").arg(mebibytes(done), mebibytes(total)).arg(percent);
}

bool copyWithProgress(QIODevice &in, QIODevice &out, qint64 total, Progress &progress, QString &error,
                      Kelda::FileDigest *digest)
{
    QByteArray block(int(kBlockSize), Qt::Uninitialized);
    qint64 done = 0;
    for (;;) {
        const qint64 got = in.read(block.data(), kBlockSize);
        if (got < 0) {
            error = QStringLiteral("cannot read: %1").arg(in.errorString());
            return false;
        }
        if (got == 0)
            break;
        if (out.write(block.constData(), got) != got) {
            error = QStringLiteral("cannot write: %1").arg(out.errorString());
            return false;
        }
        if (digest)
            digest->add(block.constData(), size_t(got));
        done += got;
        progress.update(byteProgressText(done, total));
    }
    return true;
}

} // namespace KeldaCli
