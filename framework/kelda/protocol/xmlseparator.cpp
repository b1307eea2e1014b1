#include "xmlseparator.h"

#include "framereader.h"

#include <QIODevice>
#include <QTimer>
#include <QXmlStreamReader>
#include <QtEndian>

#include <new>

namespace {

constexpr int kLengthSize = 4;

// qCompress output: the expanded size as a big-endian quint32, then a zlib
// stream. The shortest zlib stream (empty input) has 8 bytes.
constexpr int kCompressedSizeHeader = 4;
constexpr int kMinimalZlibStream = 8;
// Deflate cannot expand beyond about 1032:1; a size header claiming more is
// corrupt, and trusting it would let one bad frame allocate gigabytes.
constexpr qint64 kMaxDeflateRatio = 1032;
constexpr qint64 kExpansionSlack = 1024;

Kelda::FrameReader::ByteOrder byteOrder(qint32 mode)
{
    return mode == XmlSeparator::BigEndianMode ? Kelda::FrameReader::ByteOrder::BigEndian
                                               : Kelda::FrameReader::ByteOrder::LittleEndian;
}

bool isXmlSpace(char c)
{
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

// An unknown mode frames as the default one rather than swallowing input.
qint32 knownMode(qint32 mode)
{
    return mode >= XmlSeparator::DetectMode && mode <= XmlSeparator::LittleEndianMode ? mode
                                                                                      : XmlSeparator::PlainXmlMode;
}

bool isZlibHeader(uchar cmf, uchar flg)
{
    const bool deflate = (cmf & 0x0F) == 8;
    const bool windowFits = (cmf >> 4) <= 7;
    const bool checksumOk = (cmf * 256 + flg) % 31 == 0;
    // qUncompress cannot supply a preset dictionary.
    const bool noDictionary = (flg & 0x20) == 0;
    return deflate && windowFits && checksumOk && noDictionary;
}

// Judged from the size header and the zlib header, which follows it, and the
// payload's whole size: the first bytes of a payload tell as much as all.
constexpr int kCompressionJudgedBy = kCompressedSizeHeader + 2;

bool plausiblyCompressed(const uchar *head, qint64 payloadSize)
{
    if (payloadSize < kCompressedSizeHeader + kMinimalZlibStream)
        return false;
    if (!isZlibHeader(head[kCompressedSizeHeader], head[kCompressedSizeHeader + 1]))
        return false;
    const qint64 expandedSize = qFromBigEndian<quint32>(head);
    const qint64 streamSize = payloadSize - kCompressedSizeHeader;
    return expandedSize <= streamSize * kMaxDeflateRatio + kExpansionSlack;
}

} // namespace

XmlSeparator::XmlSeparator(QIODevice *device, QObject *parent)
    : XmlSeparator(device, PlainXmlMode, parent)
{ }

XmlSeparator::XmlSeparator(QIODevice *device, qint32 mode, QObject *parent)
    : QObject(parent)
    , m_iMode(knownMode(mode))
    , m_pReader(new QXmlStreamReader)
    , m_pFrames(new Kelda::FrameReader(DefaultMaxFrameLength, byteOrder(m_iMode)))
    , m_pDevice(device)
{
    connectDevice();
    connect(this, &XmlSeparator::queued_xmlReceived, this, &XmlSeparator::deliver, Qt::QueuedConnection);
}

XmlSeparator::~XmlSeparator() = default;

void XmlSeparator::setCompression(bool compress)
{
    m_bCompressOutgoing = compress;
}

int XmlSeparator::compressionLevel() const
{
    return m_iCompressionLevel;
}

void XmlSeparator::setCompressionLevel(int level)
{
    m_iCompressionLevel = level;
}

QIODevice *XmlSeparator::device() const
{
    return m_pDevice;
}

quint32 XmlSeparator::maxFrameLength() const
{
    return m_uMaxFrameLength;
}

void XmlSeparator::setMaxFrameLength(quint32 bytes)
{
    m_uMaxFrameLength = qMin(bytes, LargestMaxFrameLength);
    m_pFrames->setMaxFrame(m_uMaxFrameLength);
}

bool XmlSeparator::isPlausiblyCompressed(const QByteArray &payload)
{
    return plausiblyCompressed(reinterpret_cast<const uchar *>(payload.constData()), payload.size());
}

qint64 XmlSeparator::bufferedCapacity() const
{
    return qint64(m_input.capacity()) + qint64(m_message.capacity()) + m_pFrames->bufferedCapacity();
}

bool XmlSeparator::sendXml(const QByteArray &message)
{
    if (!m_pDevice || !m_pDevice->isWritable())
        return false;

    QByteArray frame;
    switch (m_iMode) {
    case PlainXmlMode:
        frame = message;
        break;
    case BigEndianMode:
    case LittleEndianMode: {
        const QByteArray payload = m_bCompressOutgoing ? qCompress(message, m_iCompressionLevel) : message;
        frame.resize(kLengthSize);
        auto *head = reinterpret_cast<uchar *>(frame.data());
        if (m_iMode == BigEndianMode)
            qToBigEndian<quint32>(quint32(payload.size()), head);
        else
            qToLittleEndian<quint32>(quint32(payload.size()), head);
        frame += payload;
        break;
    }
    default:
        // Until the peer has spoken there is no framing to answer in.
        return false;
    }
    return m_pDevice->write(frame) == frame.size();
}

void XmlSeparator::setEnabled(bool bEnabled)
{
    if (bEnabled)
        resume();
    else
        pause();
}

void XmlSeparator::setDisabled(bool bDisabled)
{
    setEnabled(!bDisabled);
}

void XmlSeparator::pause()
{
    disconnectDevice();
}

void XmlSeparator::resume()
{
    connectDevice();
    readNewData();
}

void XmlSeparator::reset()
{
    m_pReader->clear();
    m_pFrames->reset();
    m_iShownBytes = 0;
    m_message.clear();
    m_input.clear();
    m_iInputOffset = 0;
    connectDevice();
}

void XmlSeparator::readNewData()
{
    // A peer must not be able to take the process down: whatever it sends,
    // a failed allocation ends this connection, not the thread's event loop.
    try {
        frameNewData();
    } catch (const std::bad_alloc &) {
        refuseFrame(quint64(pendingInput()) + quint64(m_message.size()));
    }
}

void XmlSeparator::refuseFrame(quint64 length)
{
    disconnectDevice();
    m_pReader->clear();
    m_pFrames->reset();
    m_iShownBytes = 0;
    m_message = QByteArray();
    m_input = QByteArray();
    m_iInputOffset = 0;
    emit frameTooLarge(length);
}

void XmlSeparator::frameNewData()
{
    if (m_iMode == DetectMode && !detectMode())
        return;

    switch (m_iMode) {
    case PlainXmlMode:
        appendDeviceData();
        frameXmlDocuments();
        compactInput();
        break;
    case BigEndianMode:
    case LittleEndianMode:
        frameLengthPrefixed();
        break;
    default:
        break;
    }
}

void XmlSeparator::connectDevice()
{
    disconnectDevice();
    if (m_pDevice)
        connect(m_pDevice.data(), &QIODevice::readyRead, this, &XmlSeparator::readNewData);
    m_bReading = true;
}

void XmlSeparator::disconnectDevice()
{
    if (m_pDevice)
        disconnect(m_pDevice.data(), &QIODevice::readyRead, this, &XmlSeparator::readNewData);
    m_bReading = false;
    m_bFrameScheduled = false;
}

void XmlSeparator::appendDeviceData()
{
    if (!m_pDevice || !m_pDevice->isReadable())
        return;
    compactInput();
    m_input += m_pDevice->readAll();
}

bool XmlSeparator::detectMode()
{
    // Only looked at: the framing chosen reads the bytes itself.
    char head[kLengthSize];
    if (!m_pDevice || !m_pDevice->isReadable() || m_pDevice->peek(head, kLengthSize) < kLengthSize)
        return false;
    // A big-endian length below 16 MiB starts with a zero byte, a
    // little-endian one ends with one; XML text contains no zero bytes.
    if (head[0] == 0)
        m_iMode = BigEndianMode;
    else if (head[3] == 0)
        m_iMode = LittleEndianMode;
    else
        m_iMode = PlainXmlMode;
    m_pFrames->setByteOrder(byteOrder(m_iMode));
    return true;
}

void XmlSeparator::frameXmlDocuments()
{
    // The reader is fed no further than the next '>', so it never sees the
    // start of the next document while the current one is still open, and a
    // document always ends at the end of a piece.
    QByteArray piece = takePiece(m_message.isEmpty());
    while (!piece.isEmpty()) {
        if (quint64(m_message.size()) + quint64(piece.size()) > m_uMaxFrameLength) {
            refuseFrame(quint64(m_message.size()) + quint64(piece.size()));
            return;
        }
        m_message += piece;
        m_pReader->addData(piece);
        switch (parseFedData()) {
        case ParseResult::NeedMoreData:
            piece = takePiece(false);
            break;
        case ParseResult::DocumentComplete:
            ++m_iUndelivered;
            emit queued_xmlReceived(m_message);
            m_message.clear();
            m_pReader->clear();
            piece = takePiece(true);
            break;
        case ParseResult::Failed: {
            const QString errorText = m_pReader->errorString();
            // The broken document is dropped so that a resume starts on the
            // input behind it rather than failing on the same reader state.
            m_message.clear();
            m_pReader->clear();
            disconnectDevice();
            emit errorOccured(errorText);
            return;
        }
        }
    }
}

XmlSeparator::ParseResult XmlSeparator::parseFedData()
{
    for (;;) {
        const QXmlStreamReader::TokenType token = m_pReader->readNext();
        if (m_pReader->hasError()) {
            return m_pReader->error() == QXmlStreamReader::PrematureEndOfDocumentError ? ParseResult::NeedMoreData
                                                                                       : ParseResult::Failed;
        }
        if (token == QXmlStreamReader::EndDocument)
            return ParseResult::DocumentComplete;
    }
}

void XmlSeparator::frameLengthPrefixed()
{
    QByteArray payload;
    if (!takeLengthPrefixed(payload))
        return;
    if (m_bTryDecompress && isPlausiblyCompressed(payload)) {
        const quint32 expandedSize = qFromBigEndian<quint32>(payload.constData());
        if (expandedSize > m_uMaxFrameLength) {
            refuseFrame(expandedSize);
            return;
        }
    }
    ++m_iUndelivered;
    emit queued_xmlReceived(expandPayload(payload));

    // One message per event-loop turn: a burst of replies reaches the owner
    // spread out, interleaved with its other events.
    if (m_pDevice && m_pDevice->bytesAvailable() > 0)
        scheduleNextFrame();
}

bool XmlSeparator::takeLengthPrefixed(QByteArray &payload)
{
    if (!m_pDevice || !m_pDevice->isReadable())
        return false;
    for (;;) {
        switch (m_pFrames->read(*m_pDevice)) {
        case Kelda::FrameReader::Step::NeedData:
            showArrivingPayload();
            return false;
        case Kelda::FrameReader::Step::Announced:
            // Refused on the announcement alone, so that memory stays
            // bounded by the bytes actually received.
            m_pFrames->admit();
            break;
        case Kelda::FrameReader::Step::TooLarge:
            refuseFrame(m_pFrames->announcedLength());
            return false;
        case Kelda::FrameReader::Step::Complete:
            m_iShownBytes = 0;
            payload = m_pFrames->takeFrame();
            return true;
        }
    }
}

void XmlSeparator::showArrivingPayload()
{
    const qint64 received = m_pFrames->receivedBytes();
    if (received <= m_iShownBytes || m_iUndelivered > 0)
        return;
    // A compressed payload is expanded, and then read, whole once it is in:
    // its bytes tell nothing before. Until the first payload shows that the
    // peer does not compress, a payload waits for the bytes that tell.
    const auto *head = reinterpret_cast<const uchar *>(m_pFrames->payloadData());
    if (m_bTryDecompress &&
        (received < kCompressionJudgedBy || plausiblyCompressed(head, m_pFrames->announcedLength())))
        return;
    m_iShownBytes = received;
    emit payloadArriving(QByteArray::fromRawData(m_pFrames->payloadData(), int(received)));
}

void XmlSeparator::deliver(const QByteArray &message)
{
    --m_iUndelivered;
    emit xmlReceived(message);
}

QByteArray XmlSeparator::expandPayload(const QByteArray &payload)
{
    if (!m_bTryDecompress)
        return payload;
    if (isPlausiblyCompressed(payload)) {
        const QByteArray expanded = qUncompress(payload);
        if (!expanded.isEmpty())
            return expanded;
    }
    // A peer that sent one payload plain does not compress: stop trying, and
    // do not send it compressed payloads either.
    m_bTryDecompress = false;
    m_bCompressOutgoing = false;
    return payload;
}

QByteArray XmlSeparator::takePiece(bool skipWhiteSpace)
{
    const int size = m_input.size();
    int begin = m_iInputOffset;
    if (skipWhiteSpace) {
        while (begin < size && isXmlSpace(m_input.at(begin)))
            ++begin;
    }
    const int close = m_input.indexOf('>', begin);
    const int end = close < 0 ? size : close + 1;
    m_iInputOffset = end;
    return m_input.mid(begin, end - begin);
}

qint64 XmlSeparator::pendingInput() const
{
    return m_input.size() - m_iInputOffset;
}

void XmlSeparator::compactInput()
{
    if (m_iInputOffset == 0)
        return;
    if (m_iInputOffset >= m_input.size()) {
        m_input.clear();
        m_iInputOffset = 0;
    } else if (m_iInputOffset * 2 >= m_input.size()) {
        // Dropping only once the consumed part outweighs the rest keeps the
        // copying proportional to the input, however many frames it holds.
        m_input.remove(0, m_iInputOffset);
        m_iInputOffset = 0;
    }
}

void XmlSeparator::scheduleNextFrame()
{
    if (m_bFrameScheduled)
        return;
    m_bFrameScheduled = true;
    QTimer::singleShot(0, this, [this] {
        if (!m_bFrameScheduled)
            return;
        m_bFrameScheduled = false;
        if (m_bReading)
            readNewData();
    });
}
