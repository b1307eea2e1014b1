// The stream framer in every mode, fed the same bytes twice: in one piece,
// and split at points drawn from the input. Whatever the bytes, both feeds
// must frame the same messages, no message may exceed the limit, and a
// plain XML message must be one complete document.

#include "fuzzsupport.h"
#include "xmlseparator.h"

#include <QCoreApplication>
#include <QIODevice>
#include <QVector>
#include <QXmlStreamReader>

#include <algorithm>

namespace {

// A sequential device whose bytes arrive when the test says so.
class FeedDevice : public QIODevice
{
public:
    FeedDevice() { open(QIODevice::ReadWrite); }
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override { return m_pending.size() + QIODevice::bytesAvailable(); }

    void feed(const QByteArray &bytes)
    {
        m_pending += bytes;
        emit readyRead();
    }

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        const qint64 n = qMin<qint64>(maxSize, m_pending.size());
        memcpy(data, m_pending.constData(), size_t(n));
        m_pending.remove(0, int(n));
        return n;
    }
    qint64 writeData(const char *, qint64 size) override { return size; }

private:
    QByteArray m_pending;
};

struct Outcome
{
    QVector<QByteArray> messages;
    int errors = 0;
    bool refused = false;

    bool operator==(const Outcome &other) const
    {
        return messages == other.messages && errors == other.errors && refused == other.refused;
    }
};

// Runs the event loop until the framer has nothing left to deliver: queued
// messages and scheduled reads each need a turn.
void Drain(const Outcome &outcome)
{
    int idleTurns = 0;
    while (idleTurns < 3) {
        const int before = outcome.messages.size();
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        idleTurns = outcome.messages.size() == before ? idleTurns + 1 : 0;
    }
}

Outcome Frame(qint32 mode, quint32 maxLength, const QVector<QByteArray> &chunks)
{
    Outcome outcome;
    FeedDevice device;
    XmlSeparator framer(&device, mode);
    framer.setMaxFrameLength(maxLength);
    QObject::connect(&framer, &XmlSeparator::xmlReceived,
                     [&outcome](const QByteArray &message) { outcome.messages << message; });
    QObject::connect(&framer, &XmlSeparator::errorOccured, [&outcome](const QString &) { ++outcome.errors; });
    QObject::connect(&framer, &XmlSeparator::frameTooLarge, [&outcome](quint64) { outcome.refused = true; });
    for (const QByteArray &chunk : chunks) {
        device.feed(chunk);
        Drain(outcome);
    }
    Drain(outcome);
    return outcome;
}

bool IsPrefix(const QVector<QByteArray> &shorter, const QVector<QByteArray> &longer)
{
    return shorter.size() <= longer.size() && std::equal(shorter.begin(), shorter.end(), longer.begin());
}

bool IsOneDocument(const QByteArray &message)
{
    QXmlStreamReader reader(message);
    while (!reader.atEnd())
        reader.readNext();
    return !reader.hasError();
}

// Small limits reach the refusal paths; the default exercises the rest.
quint32 MaxLengthFor(quint8 choice)
{
    switch (choice % 4) {
    case 0:
        return 16;
    case 1:
        return 300;
    case 2:
        return 4096;
    default:
        return XmlSeparator::DefaultMaxFrameLength;
    }
}

QVector<QByteArray> Split(const QByteArray &stream, quint16 seed)
{
    QVector<QByteArray> chunks;
    quint32 state = seed * 2654435761u + 1u;
    int position = 0;
    while (position < stream.size()) {
        state = state * 1103515245u + 12345u;
        // Mostly tiny pieces, now and then a long one.
        const int length = (state >> 16) % 8 == 0 ? int((state >> 8) % 512) + 1 : int((state >> 16) % 4) + 1;
        chunks << stream.mid(position, length);
        position += length;
    }
    return chunks;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3)
        return 0;
    KeldaFuzz::EnsureApplication();
    const qint32 mode = data[0] % 4;
    const quint32 maxLength = MaxLengthFor(data[0] >> 2);
    const quint16 seed = quint16(data[1] | (data[2] << 8));
    const QByteArray stream(reinterpret_cast<const char *>(data) + 3, int(size - 3));

    const Outcome whole = Frame(mode, maxLength, {stream});
    const Outcome split = Frame(mode, maxLength, Split(stream, seed));
    const bool plain = mode == XmlSeparator::PlainXmlMode ||
        (mode == XmlSeparator::DetectMode && stream.size() >= 4 && stream.at(0) != 0 && stream.at(3) != 0);
    if (!plain || (whole.errors == 0 && !whole.refused && split.errors == 0 && !split.refused)) {
        if (!(whole == split))
            KeldaFuzz::Fail("the same bytes framed differently when split");
    } else if (!IsPrefix(whole.messages, split.messages) && !IsPrefix(split.messages, whole.messages)) {
        // QXmlStreamReader fed in pieces may keep waiting on malformed
        // content that it rejects when fed at once; the framer then waits
        // too, until the size limit. Up to there, both runs must agree.
        KeldaFuzz::Fail("the messages before a malformed document differ when split");
    }

    for (const QByteArray &message : whole.messages) {
        if (quint32(message.size()) > maxLength)
            KeldaFuzz::Fail("a message longer than the limit was delivered");
        if (plain && !IsOneDocument(message))
            KeldaFuzz::Fail("a plain XML message is not one complete document");
    }
    return 0;
}
