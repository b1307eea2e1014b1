#pragma once

#include <QByteArray>
#include <QtGlobal>

class QIODevice;

namespace Kelda {

// Collects length-prefixed frames (a 4-byte little-endian length, then the
// payload) from a device one at a time. It never reads past the frame it is
// on, and reads a payload only once its owner has admitted the announced
// length: what is not taken waits in the socket, where the peer's window
// holds it back, rather than in this process's memory. A payload is read
// straight into a buffer of its final size.
class FrameReader
{
public:
    enum class Step {
        NeedData,  // the device has nothing more for this frame now
        Announced, // the length is known; admit() before reading on
        Complete,  // takeFrame() hands out the payload
        TooLarge   // the announced length exceeds the limit; nothing more is read
    };

    explicit FrameReader(quint32 maxFrame);

    Step read(QIODevice &device);
    void admit();
    QByteArray takeFrame();

    quint32 announcedLength() const { return m_length; }
    // Some byte of a frame has arrived and its payload is not complete yet.
    bool inFrame() const { return m_state != State::Header || m_headerBytes > 0; }
    bool awaitsAdmission() const { return m_state == State::Announced; }
    qint64 receivedBytes() const { return m_received; }

private:
    enum class State { Header, Announced, Payload, Complete, Refused };

    const quint32 m_maxFrame;
    State m_state = State::Header;
    uchar m_header[4] = {};
    int m_headerBytes = 0;
    quint32 m_length = 0;
    QByteArray m_payload;
    qint64 m_received = 0;
};

} // namespace Kelda
