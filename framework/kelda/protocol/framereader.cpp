#include "framereader.h"

#include <QIODevice>
#include <QtEndian>

#include <new>

#ifdef __linux__
#include <sys/mman.h>
#endif

namespace Kelda {

namespace {

// The first piece of a payload whose bytes have not arrived yet: small
// enough that an announcement costs little, large enough that small frames
// take one allocation.
constexpr qint64 kFirstPiece = 64 * 1024;

// Large payloads land in memory the kernel has never handed out: asking for
// huge pages makes it clear that memory 2 MiB at a time instead of faulting
// in every 4 KiB page, which otherwise costs more than the copy itself.
constexpr qint64 kHugePage = 2 * 1024 * 1024;

void preferHugePages(QByteArray &buffer)
{
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    if (buffer.size() < 2 * kHugePage)
        return;
    const auto begin = reinterpret_cast<quintptr>(buffer.data());
    const quintptr first = (begin + kHugePage - 1) & ~quintptr(kHugePage - 1);
    const quintptr last = (begin + quintptr(buffer.size())) & ~quintptr(kHugePage - 1);
    if (last > first)
        madvise(reinterpret_cast<void *>(first), last - first, MADV_HUGEPAGE);
#else
    Q_UNUSED(buffer);
#endif
}

} // namespace

FrameReader::FrameReader(quint32 maxFrame, ByteOrder order)
    : m_maxFrame(maxFrame)
    , m_order(order)
{ }

FrameReader::Step FrameReader::read(QIODevice &device)
{
    switch (m_state) {
    case State::Header:
        return readHeader(device);
    case State::Announced:
        return Step::Announced;
    case State::Payload:
        return readPayload(device);
    case State::Complete:
        return Step::Complete;
    case State::Refused:
        return Step::TooLarge;
    }
    return Step::NeedData;
}

FrameReader::Step FrameReader::readHeader(QIODevice &device)
{
    const qint64 got = device.read(reinterpret_cast<char *>(m_header) + m_headerBytes, 4 - m_headerBytes);
    if (got > 0)
        m_headerBytes += int(got);
    if (m_headerBytes < 4)
        return Step::NeedData;
    m_length =
        m_order == ByteOrder::LittleEndian ? qFromLittleEndian<quint32>(m_header) : qFromBigEndian<quint32>(m_header);
    if (m_length > m_maxFrame) {
        m_state = State::Refused;
        return Step::TooLarge;
    }
    m_state = State::Announced;
    return Step::Announced;
}

FrameReader::Step FrameReader::readPayload(QIODevice &device)
{
    for (;;) {
        if (!makeRoom(device.bytesAvailable())) {
            m_state = State::Refused;
            return Step::TooLarge;
        }
        const qint64 got = device.read(m_payload.data() + m_received, m_payload.size() - m_received);
        if (got <= 0)
            break;
        m_received += got;
        if (m_received == qint64(m_length)) {
            m_state = State::Complete;
            return Step::Complete;
        }
    }
    return Step::NeedData;
}

bool FrameReader::makeRoom(qint64 available)
{
    const qint64 size = m_payload.size();
    if (size - m_received > 0)
        return true;
    // Doubling keeps the copies of a growing buffer linear in the frame;
    // large buffers are mapped memory, which realloc moves without copying.
    const qint64 wanted = qMax(qMax(m_received + available, 2 * size), kFirstPiece);
    try {
        m_payload.resize(int(qMin(wanted, qint64(m_length))));
        preferHugePages(m_payload);
    } catch (const std::bad_alloc &) {
        return false;
    }
    return true;
}

void FrameReader::admit()
{
    if (m_state != State::Announced)
        return;
    m_payload = QByteArray();
    m_received = 0;
    m_state = m_length == 0 ? State::Complete : State::Payload;
}

QByteArray FrameReader::takeFrame()
{
    if (m_state != State::Complete)
        return QByteArray();
    QByteArray payload;
    payload.swap(m_payload);
    reset();
    return payload;
}

void FrameReader::reset()
{
    m_payload = QByteArray();
    m_state = State::Header;
    m_headerBytes = 0;
    m_length = 0;
    m_received = 0;
}

} // namespace Kelda
