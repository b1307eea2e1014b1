#pragma once

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>

#include <memory>

namespace Kelda {
class FrameReader;
}

class QIODevice;
class QXmlStreamReader;

// Cuts the byte stream of a device into complete messages and frames outgoing
// messages for the same device.
//
// Messages are either consecutive XML documents (PlainXmlMode) or payloads
// behind a 4-byte length (BigEndianMode, LittleEndianMode); DetectMode picks
// one of those from the first four bytes received. Length-prefixed payloads
// in qCompress format are expanded on arrival until the first payload that is
// not compressed shows that the peer does not compress.
//
// Every message found is emitted as queued_xmlReceived from inside
// readNewData() and reaches xmlReceived one event-loop turn later, so a
// listener never runs inside the read routine. The one exception is
// payloadArriving, which shows a payload while it arrives.
class XmlSeparator : public QObject
{
    Q_OBJECT

public:
    enum Mode : qint32 { DetectMode = 0, PlainXmlMode = 1, BigEndianMode = 2, LittleEndianMode = 3 };

    explicit XmlSeparator(QIODevice *device, QObject *parent = nullptr);
    XmlSeparator(QIODevice *device, qint32 mode, QObject *parent = nullptr);
    ~XmlSeparator() override;

    // Compression of outgoing length-prefixed payloads; off unless set.
    void setCompression(bool compress);
    int compressionLevel() const;
    void setCompressionLevel(int level);

    QIODevice *device() const;

    // The longest message accepted, in bytes. A length-prefixed frame that
    // announces more, or a plain XML document that grows beyond it, is
    // refused with frameTooLarge() before its bytes are collected, and
    // reading stops: the owner is expected to close the connection.
    quint32 maxFrameLength() const;
    void setMaxFrameLength(quint32 bytes);

    // The default limit, and the largest one a QByteArray can hold together
    // with its length prefix.
    static constexpr quint32 DefaultMaxFrameLength = 1u << 30;
    static constexpr quint32 LargestMaxFrameLength = 0x7FFFFFFFu - 4096u;

    // Whether a length-prefixed payload is in qCompress format and small
    // enough when expanded to be worth trying. Judged from the header alone.
    static bool isPlausiblyCompressed(const QByteArray &payload);

    // The memory held for messages still incomplete: what the input and
    // message buffers have allocated, in bytes.
    qint64 bufferedCapacity() const;

Q_SIGNALS:
    void xmlReceived(const QByteArray &message);
    // Spelled so for compatibility: existing connections use this name.
    void errorOccured(const QString &sErrorString);
    void queued_xmlReceived(const QByteArray &message);
    // A message over the limit, or one whose bytes could not be stored.
    // Emitted from inside readNewData(); reading has stopped.
    void frameTooLarge(quint64 length);
    // The bytes of a length-prefixed payload that arrived so far, emitted
    // from inside readNewData() whenever more arrived while the payload is
    // still incomplete, for payloads that are handed on as they are (not
    // expanded). received points into the growing buffer and is valid only
    // during the emission: connect directly, on this object's thread, and
    // leave the device and this object alone. A payload is shown only once
    // every earlier message has reached xmlReceived, so a listener sees a
    // payload arrive and then its message, with no other in between.
    void payloadArriving(const QByteArray &received);

public Q_SLOTS:
    bool sendXml(const QByteArray &message);
    void setEnabled(bool bEnabled);
    void setDisabled(bool bDisabled);
    void pause();
    void resume();
    void reset();
    void readNewData();

private:
    void frameNewData();
    void refuseFrame(quint64 length);
    enum class ParseResult { NeedMoreData, DocumentComplete, Failed };

    void connectDevice();
    void disconnectDevice();
    void appendDeviceData();
    bool detectMode();
    void frameXmlDocuments();
    ParseResult parseFedData();
    void frameLengthPrefixed();
    bool takeLengthPrefixed(QByteArray &payload);
    void showArrivingPayload();
    void deliver(const QByteArray &message);
    QByteArray expandPayload(const QByteArray &payload);
    QByteArray takePiece(bool skipWhiteSpace);
    qint64 pendingInput() const;
    void compactInput();
    void scheduleNextFrame();

    qint32 m_iMode;
    std::unique_ptr<QXmlStreamReader> m_pReader;
    // Length-prefixed payloads go from the device straight into the buffer
    // that is handed out; m_input serves plain XML only.
    std::unique_ptr<Kelda::FrameReader> m_pFrames;
    QPointer<QIODevice> m_pDevice;
    QByteArray m_message;
    QByteArray m_input;
    int m_iCompressionLevel = -1;
    bool m_bCompressOutgoing = false;
    bool m_bTryDecompress = true;
    quint32 m_uMaxFrameLength = DefaultMaxFrameLength;

    // Bytes at the front of m_input that are already framed. Consumed input
    // is dropped in bulk so that framing stays linear in the input size.
    int m_iInputOffset = 0;
    bool m_bReading = false;
    bool m_bFrameScheduled = false;
    // Messages emitted as queued_xmlReceived that have not reached
    // xmlReceived yet.
    int m_iUndelivered = 0;
    // The bytes of the payload under way that payloadArriving has shown.
    qint64 m_iShownBytes = 0;
};
