#include "xmlseparator.h"

#include <QSignalSpy>
#include <QTest>
#include <QtEndian>

#include <cstring>

namespace {

// A sequential device whose incoming bytes the test hands over, announcing
// each delivery with readyRead() as a socket does.
class FeedDevice : public QIODevice
{
public:
    FeedDevice() { open(QIODevice::ReadWrite | QIODevice::Unbuffered); }
    void feed(const QByteArray &bytes)
    {
        m_incoming = m_incoming.mid(m_readPos) + bytes;
        m_readPos = 0;
        emit readyRead();
    }
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override { return m_incoming.size() - m_readPos; }
    QByteArray written;

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        const int count = int(qMin<qint64>(maxSize, bytesAvailable()));
        std::memcpy(data, m_incoming.constData() + m_readPos, size_t(count));
        m_readPos += count;
        return count;
    }
    qint64 writeData(const char *data, qint64 size) override
    {
        written.append(data, int(size));
        return size;
    }

private:
    QByteArray m_incoming;
    int m_readPos = 0;
};

QByteArray frame(XmlSeparator::Mode mode, const QByteArray &payload)
{
    QByteArray head(4, '\0');
    if (mode == XmlSeparator::BigEndianMode)
        qToBigEndian<quint32>(quint32(payload.size()), head.data());
    else
        qToLittleEndian<quint32>(quint32(payload.size()), head.data());
    return head + payload;
}

QByteArray le(const QByteArray &payload) { return frame(XmlSeparator::LittleEndianMode, payload); }
QByteArray be(const QByteArray &payload) { return frame(XmlSeparator::BigEndianMode, payload); }

const QByteArray kDocument = QByteArrayLiteral("<?xml version=\"1.0\"?><r><c>text</c></r>");
const QByteArray kText = QByteArrayLiteral("<r>compressible compressible compressible</r>");

QByteArray withSizeHeader(QByteArray packed, quint32 size)
{
    qToBigEndian<quint32>(size, packed.data());
    return packed;
}

} // namespace

class TestXmlSeparator : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void framing_data();
    void framing();
    void burstIsFramedOneMessagePerTurn();
    void corruptCompressedPayloadIsDeliveredAsIs();
    void compressionHeaderCheck_data();
    void compressionHeaderCheck();
    void malformedXmlStopsReading_data();
    void malformedXmlStopsReading();
    void largeDocumentInOneRead();
};

void TestXmlSeparator::framing_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<int>("chunkSize");
    QTest::addColumn<QByteArrayList>("messages");
    QTest::addColumn<QByteArray>("answerFrame"); // what sendXml("<a/>") writes afterwards

    const QByteArray packed = qCompress(kText);
    const QByteArray payload(42, 'p');
    QTest::newRow("little-endian, byte by byte") << 3 << le("hello") << 1 << QByteArrayList{"hello"} << le("<a/>");
    QTest::newRow("big-endian, byte by byte") << 2 << be("hello") << 1 << QByteArrayList{"hello"} << be("<a/>");
    QTest::newRow("empty payload ends expansion")
        << 3 << le({}) + le(packed) << 0 << QByteArrayList{{}, packed} << le("<a/>");
    QTest::newRow("compressed payloads expand until a plain one")
        << 3 << le(packed) + le("<p/>") + le(packed) << 0 << QByteArrayList{kText, "<p/>", packed} << le("<a/>");
    const QByteArray implausible = withSizeHeader(packed, 0x7FFFFFF0u);
    QTest::newRow("implausible size is plain") << 3 << le(implausible) << 0 << QByteArrayList{implausible}
                                               << le("<a/>");
    QTest::newRow("detect plain xml") << 0 << kDocument << 1 << QByteArrayList{kDocument} << QByteArray("<a/>");
    QTest::newRow("detect big-endian") << 0 << be(payload) << 1 << QByteArrayList{payload} << be("<a/>");
    QTest::newRow("detect little-endian") << 0 << le(payload) << 1 << QByteArrayList{payload} << le("<a/>");
    QTest::newRow("xml: white space between documents")
        << 1 << QByteArray("\r\n <a/>\n \t<b x='1'/>\n") << 0 << QByteArrayList{"<a/>", "<b x='1'/>"}
        << QByteArray("<a/>");
    QTest::newRow("xml: '>' in attribute and text") << 1 << QByteArray("<r a='x>y'>1 > 0</r><s/>") << 0
                                                    << QByteArrayList{"<r a='x>y'>1 > 0</r>", "<s/>"}
                                                    << QByteArray("<a/>");
    QTest::newRow("xml: split inside tags") << 1 << QByteArray("<r a='1'><c>t</c></r> <s/>") << 2
                                            << QByteArrayList{"<r a='1'><c>t</c></r>", "<s/>"} << QByteArray("<a/>");
    QTest::newRow("xml: non-ASCII text") << 1 << QByteArray("<r>Gr\xc3\xbc\xc3\x9f" "e \xe2\x82\xac</r><s/>") << 0
                                         << QByteArrayList{"<r>Gr\xc3\xbc\xc3\x9f" "e \xe2\x82\xac</r>", "<s/>"}
                                         << QByteArray("<a/>");
}

void TestXmlSeparator::framing()
{
    QFETCH(int, mode);
    QFETCH(QByteArray, stream);
    QFETCH(int, chunkSize);
    QFETCH(QByteArrayList, messages);
    QFETCH(QByteArray, answerFrame);

    FeedDevice device;
    XmlSeparator separator(&device, mode);
    QSignalSpy received(&separator, &XmlSeparator::xmlReceived);
    // In detect mode there is no framing to answer in before the peer spoke.
    QCOMPARE(separator.sendXml("<a/>"), mode != XmlSeparator::DetectMode);
    device.written.clear();

    const int step = chunkSize > 0 ? chunkSize : stream.size();
    for (int i = 0; i < stream.size(); i += step)
        device.feed(stream.mid(i, step));

    QTRY_COMPARE_WITH_TIMEOUT(received.count(), messages.size(), 2000);
    for (int i = 0; i < messages.size(); ++i)
        QCOMPARE(received.at(i).at(0).toByteArray(), messages.at(i));
    QVERIFY(separator.sendXml("<a/>"));
    QCOMPARE(device.written, answerFrame);
}

void TestXmlSeparator::burstIsFramedOneMessagePerTurn()
{
    FeedDevice device;
    XmlSeparator separator(&device, XmlSeparator::LittleEndianMode);
    QSignalSpy framed(&separator, &XmlSeparator::queued_xmlReceived);
    QSignalSpy received(&separator, &XmlSeparator::xmlReceived);

    device.feed(le("<one/>") + le("<two/>") + le("<three/>"));
    QCOMPARE(framed.count(), 1);
    QCOMPARE(received.count(), 0); // never from inside the read routine

    QTRY_COMPARE_WITH_TIMEOUT(received.count(), 3, 2000);
    QCOMPARE(received.at(0).at(0).toByteArray(), QByteArray("<one/>"));
    QCOMPARE(received.at(2).at(0).toByteArray(), QByteArray("<three/>"));
}

void TestXmlSeparator::corruptCompressedPayloadIsDeliveredAsIs()
{
    QByteArray garbled = qCompress(kText);
    for (int i = 6; i < garbled.size(); ++i)
        garbled[i] = char(0xFF - i);

    FeedDevice device;
    XmlSeparator separator(&device, XmlSeparator::LittleEndianMode);
    QSignalSpy received(&separator, &XmlSeparator::xmlReceived);
    QTest::ignoreMessage(QtWarningMsg, "qUncompress: Z_DATA_ERROR: Input data is corrupted");
    device.feed(le(garbled));
    QVERIFY(received.wait(1000));
    QCOMPARE(received.at(0).at(0).toByteArray(), garbled);
}

void TestXmlSeparator::compressionHeaderCheck_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<bool>("plausible");

    const QByteArray packed = qCompress(QByteArray(5000, 'a'), 9);
    const quint32 zlibLimit = quint32(packed.size() - 4) * 1032;
    QByteArray dictionary = packed;
    dictionary[5] = char(0xBB); // preset dictionary flag, header check still valid
    QByteArray badCheck = packed;
    badCheck[5] = char(badCheck.at(5) + 1);

    QTest::newRow("qCompress output") << packed << true;
    QTest::newRow("size at the deflate limit") << withSizeHeader(packed, zlibLimit) << true;
    QTest::newRow("size beyond the deflate limit") << withSizeHeader(packed, zlibLimit + 4096) << false;
    QTest::newRow("xml declaration") << kDocument << false;
    QTest::newRow("compressed empty input") << qCompress(QByteArray()) << false;
    QTest::newRow("preset dictionary") << dictionary << false;
    QTest::newRow("header check wrong") << badCheck << false;
}

void TestXmlSeparator::compressionHeaderCheck()
{
    QFETCH(QByteArray, payload);
    QFETCH(bool, plausible);
    QCOMPARE(XmlSeparator::isPlausiblyCompressed(payload), plausible);
}

void TestXmlSeparator::malformedXmlStopsReading_data()
{
    QTest::addColumn<bool>("viaReset");
    QTest::addColumn<QByteArrayList>("messagesAfterRecovery");

    // Reset drops the input left behind the broken document; resume frames it.
    QTest::newRow("reset") << true << QByteArrayList{"<d/>", "<e/>"};
    QTest::newRow("resume") << false << QByteArrayList{"<c/>", "<d/>"};
}

void TestXmlSeparator::malformedXmlStopsReading()
{
    QFETCH(bool, viaReset);
    QFETCH(QByteArrayList, messagesAfterRecovery);

    FeedDevice device;
    XmlSeparator separator(&device);
    QSignalSpy received(&separator, &XmlSeparator::xmlReceived);
    QSignalSpy errors(&separator, &XmlSeparator::errorOccured);

    device.feed("<a></b><c/>");
    device.feed("<d/>");
    QCOMPARE(errors.count(), 1);
    QCOMPARE(device.bytesAvailable(), qint64(4)); // no longer read

    if (viaReset) {
        separator.reset();
        device.feed("<e/>");
    } else {
        separator.resume();
    }
    QTRY_COMPARE_WITH_TIMEOUT(received.count(), messagesAfterRecovery.size(), 1000);
    for (int i = 0; i < messagesAfterRecovery.size(); ++i)
        QCOMPARE(received.at(i).at(0).toByteArray(), messagesAfterRecovery.at(i));
    QCOMPARE(errors.count(), 1);
}

void TestXmlSeparator::largeDocumentInOneRead()
{
    const QByteArray item = QByteArrayLiteral("<item a=\"1\">text &gt; more > still text</item>\n");
    QByteArray document = QByteArrayLiteral("<?xml version=\"1.0\"?>\n<root>\n");
    while (document.size() < 10 * 1024 * 1024)
        document += item;
    document += QByteArrayLiteral("</root>");

    FeedDevice device;
    XmlSeparator separator(&device);
    QSignalSpy received(&separator, &XmlSeparator::xmlReceived);
    device.feed(document + "\n<tail/>");

    QTRY_COMPARE_WITH_TIMEOUT(received.count(), 2, 60000);
    QCOMPARE(received.at(0).at(0).toByteArray(), document);
    QCOMPARE(received.at(1).at(0).toByteArray(), QByteArray("<tail/>"));
}

QTEST_GUILESS_MAIN(TestXmlSeparator)
#include "tst_xmlseparator.moc"
