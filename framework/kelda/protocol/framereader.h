#pragma once

#include <QByteArray>
#include <QtGlobal>

class QIODevice;

namespace Kelda {

// Collects length-prefixed frames (a 4-byte length, little-endian unless
// told otherwise, then the payload) from a device one at a time. It never
// reads past the frame it is on, and reads a payload only once its owner has
// admitted the announced length: what is not taken waits in the socket,
// where the peer's window holds it back, rather than in this process's
// memory. A payload is read straight from the device into the buffer that
// is handed out, with no copy in between; the buffer grows geometrically
// with what has arrived, never ahead of it by more than that, so that an
// announcement alone costs nothing.
class FrameReader
{
public:
    enum class Step {
        NeedData, // the device has nothing more for this frame now
        Announced, // the length is known; admit() before reading on
        Complete, // takeFrame() hands out the payload
        TooLarge // the announced length exceeds the limit; nothing more is read
    };

    enum class ByteOrder { LittleEndian, BigEndian };

    explicit FrameReader(quint32 maxFrame, ByteOrder order = ByteOrder::LittleEndian);

    void setMaxFrame(quint32 maxFrame) { m_maxFrame = maxFrame; }
    void setByteOrder(ByteOrder order) { m_order = order; }

    Step read(QIODevice &device);
    void admit();
    QByteArray takeFrame();
    // Drops the frame under way; the next byte read starts a length.
    void reset();

    quint32 announcedLength() const { return m_length; }
    // Some byte of a frame has arrived and its payload is not complete yet.
    bool inFrame() const { return m_state != State::Header || m_headerBytes > 0; }
    bool awaitsAdmission() const { return m_state == State::Announced; }
    qint64 receivedBytes() const { return m_received; }
    // The payload's first receivedBytes() bytes while they arrive; valid
    // until the next read() or reset().
    const char *payloadData() const { return m_payload.constData(); }
    qint64 bufferedCapacity() const { return m_payload.capacity(); }

private:
    enum class State { Header, Announced, Payload, Complete, Refused };

    Step readHeader(QIODevice &device);
    Step readPayload(QIODevice &device);
    bool makeRoom(qint64 available);

    quint32 m_maxFrame;
    ByteOrder m_order;
    State m_state = State::Header;
    uchar m_header[4] = {};
    int m_headerBytes = 0;
    quint32 m_length = 0;
    QByteArray m_payload;
    qint64 m_received = 0;
};

} // namespace Kelda
