#include "framereader.h"

#include <QIODevice>
#include <QtEndian>

#include <new>

namespace Kelda {

FrameReader::FrameReader(quint32 maxFrame)
    : m_maxFrame(maxFrame)
{
}

FrameReader::Step FrameReader::read(QIODevice &device)
{
    switch (m_state) {
    case State::Header: {
        const qint64 got = device.read(reinterpret_cast<char *>(m_header) + m_headerBytes, 4 - m_headerBytes);
        if (got > 0)
            m_headerBytes += int(got);
        if (m_headerBytes < 4)
            return Step::NeedData;
        m_length = qFromLittleEndian<quint32>(m_header);
        if (m_length > m_maxFrame) {
            m_state = State::Refused;
            return Step::TooLarge;
        }
        m_state = State::Announced;
        return Step::Announced;
    }
    case State::Announced:
        return Step::Announced;
    case State::Payload: {
        const qint64 got = device.read(m_payload.data() + m_received, qint64(m_length) - m_received);
        if (got > 0)
            m_received += got;
        if (m_received < qint64(m_length))
            return Step::NeedData;
        m_state = State::Complete;
        return Step::Complete;
    }
    case State::Complete:
        return Step::Complete;
    case State::Refused:
        return Step::TooLarge;
    }
    return Step::NeedData;
}

void FrameReader::admit()
{
    if (m_state != State::Announced)
        return;
    try {
        // Uninitialised: pages are only touched, and so only counted
        // against the process, as the bytes arrive.
        m_payload = QByteArray(int(m_length), Qt::Uninitialized);
    } catch (const std::bad_alloc &) {
        m_state = State::Refused;
        return;
    }
    m_received = 0;
    m_state = m_length == 0 ? State::Complete : State::Payload;
}

QByteArray FrameReader::takeFrame()
{
    if (m_state != State::Complete)
        return QByteArray();
    QByteArray payload;
    payload.swap(m_payload);
    m_state = State::Header;
    m_headerBytes = 0;
    m_length = 0;
    m_received = 0;
    return payload;
}

} // namespace Kelda
