#include "xmlseparator.h"

#include <QBuffer>
#include <QSignalSpy>
#include <QTest>
#include <QtEndian>

namespace {

// Hands the separator what the test feeds it, announcing each delivery as a socket does.
class FeedDevice : public QBuffer
{
public:
    FeedDevice() { open(QIODevice::ReadWrite); }
    void feed(const QByteArray &bytes)
    {
        buffer().append(bytes);
        emit readyRead();
    }
    QByteArray written;

protected:
    qint64 writeData(const char *data, qint64 size) override
    {
        written.append(data, int(size));
        return size;
    }
};

QByteArray le(const QByteArray &payload)
{
    const quint32 size = qToLittleEndian(quint32(payload.size()));
    return QByteArray(reinterpret_cast<const char *>(&size), 4) + payload;
}

QByteArray be(const QByteArray &payload)
{
    const quint32 size = qToBigEndian(quint32(payload.size()));
    return QByteArray(reinterpret_cast<const char *>(&size), 4) + payload;
}

QByteArrayList messages(const QSignalSpy &spy)
{
    QByteArrayList result;
    for (const QList<QVariant> &arguments : spy)
        result << arguments.at(0).toByteArray();
    return result;
}

} // namespace

class TestXmlSeparator : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void framing_data();
    void framing();
    void burstIsFramedOneMessagePerTurn();
    void malformedXmlStopsReading();
    void oversizedMessageIsRefused_data();
    void oversizedMessageIsRefused();
    void hugeAnnouncementHoldsOnlyWhatArrived_data();
    void hugeAnnouncementHoldsOnlyWhatArrived();
    void arrivingPayloadIsShown_data();
    void arrivingPayloadIsShown();
};

void TestXmlSeparator::framing_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<int>("chunkSize"); // 0: all in one read
    QTest::addColumn<QByteArrayList>("expected");
    QTest::addColumn<QByteArray>("answerFrame"); // what sendXml("<a/>") writes afterwards, compression asked for

    const QByteArray payload(70000, 'p'); // a length with three significant bytes
    QTest::newRow("detect big-endian, byte by byte") << 0 << be(payload) << 1 << QByteArrayList{payload} << be("<a/>");
    QTest::newRow("detect little-endian, byte by byte")
        << 0 << le(payload) << 1 << QByteArrayList{payload} << le("<a/>");
    const QByteArray document("<?xml version=\"1.0\"?><r><c>text</c></r>");
    QTest::newRow("detect plain xml") << 0 << document << 1 << QByteArrayList{document} << QByteArray("<a/>");

    // Close to deflate's best ratio of about 1032:1; a size header claiming more is not trusted.
    const QByteArray runs(1000000, 'a');
    const QByteArray packed = qCompress(runs, 9);
    QByteArray implausible = packed;
    qToBigEndian<quint32>(quint32(packed.size() - 4) * 1032 + 4096, implausible.data());
    QTest::newRow("compressed payload, compressed answer")
        << 3 << le(packed) << 0 << QByteArrayList{runs} << le(qCompress("<a/>"));
    QTest::newRow("compression off after a zero-length payload")
        << 3 << le(packed) + le({}) + le(packed) << 0 << QByteArrayList{runs, {}, packed} << le("<a/>");
    QTest::newRow("expanded size beyond the limit")
        << 3 << le(implausible) << 0 << QByteArrayList{implausible} << le("<a/>");

    QTest::newRow("xml: white space, '>' in attribute and text, non-ASCII, byte by byte")
        << 1
        << QByteArray("\r\n <r a='x>y'><c>1 > 0 Gr\xc3\xbc\xc3\x9f"
                      "e \xe2\x82\xac</c></r>\n \t<s/>\n")
        << 1
        << QByteArrayList{"<r a='x>y'><c>1 > 0 Gr\xc3\xbc\xc3\x9f"
                          "e \xe2\x82\xac</c></r>",
                          "<s/>"}
        << QByteArray("<a/>");
    QByteArray large = QByteArrayLiteral("<?xml version=\"1.0\"?>\n<root>\n");
    while (large.size() < 10 * 1024 * 1024)
        large += QByteArrayLiteral("<item a=\"1\">text &gt; more > still text</item>\n");
    large += QByteArrayLiteral("</root>");
    QTest::newRow("xml: 10 MB document in one read")
        << 1 << large + "\n<tail/>" << 0 << QByteArrayList{large, "<tail/>"} << QByteArray("<a/>");
}

void TestXmlSeparator::framing()
{
    QFETCH(int, mode);
    QFETCH(QByteArray, stream);
    QFETCH(int, chunkSize);
    QFETCH(QByteArrayList, expected);
    QFETCH(QByteArray, answerFrame);

    FeedDevice device;
    XmlSeparator separator(&device, mode);
    separator.setCompression(true);
    QSignalSpy received(&separator, &XmlSeparator::xmlReceived);
    const int step = chunkSize > 0 ? chunkSize : stream.size();
    for (int i = 0; i < stream.size(); i += step)
        device.feed(stream.mid(i, step));

    QTRY_COMPARE_WITH_TIMEOUT(received.count(), expected.size(), 30000);
    QCOMPARE(messages(received), expected);
    QVERIFY(separator.sendXml("<a/>"));
    QCOMPARE(device.written, answerFrame);
}

// A payload that fails to expand is passed on as it is, and does not hold up the ones behind it.
void TestXmlSeparator::burstIsFramedOneMessagePerTurn()
{
    const QByteArray garbled = qCompress(QByteArray(100, 'x')).chopped(4); // no checksum
    FeedDevice device;
    XmlSeparator separator(&device, XmlSeparator::LittleEndianMode);
    QSignalSpy framed(&separator, &XmlSeparator::queued_xmlReceived);
    QSignalSpy received(&separator, &XmlSeparator::xmlReceived);
    QTest::ignoreMessage(QtWarningMsg, "qUncompress: Z_DATA_ERROR: Input data is corrupted");
    device.feed(le(garbled) + le("<two/>") + le("<three/>"));
    QCOMPARE(framed.count(), 1);
    QCOMPARE(received.count(), 0); // never from inside the read routine
    QTRY_COMPARE(messages(received), (QByteArrayList{garbled, "<two/>", "<three/>"}));
}

void TestXmlSeparator::malformedXmlStopsReading()
{
    FeedDevice device;
    XmlSeparator separator(&device);
    QSignalSpy received(&separator, &XmlSeparator::xmlReceived);
    QSignalSpy errors(&separator, &XmlSeparator::errorOccured);
    device.feed("<a></b><c/>");
    device.feed("<d/>");
    QCOMPARE(errors.count(), 1);
    QCOMPARE(device.bytesAvailable(), qint64(4)); // no longer read
    separator.resume();
    QTRY_COMPARE(messages(received), (QByteArrayList{"<c/>", "<d/>"}));
    QCOMPARE(errors.count(), 1);
}

void TestXmlSeparator::oversizedMessageIsRefused_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<QByteArrayList>("expected"); // delivered before the refusal
    QTest::addColumn<quint64>("refusedLength");

    QByteArray hugeHeader(4, '\0');
    qToLittleEndian<quint32>(0x7FFFFFF0u, hugeHeader.data());
    QTest::newRow("announced beyond the limit, refused on the header")
        << 3 << le("<ok/>") + hugeHeader + "<partial" << QByteArrayList{"<ok/>"} << quint64(0x7FFFFFF0u);
    QTest::newRow("exactly the limit is accepted")
        << 3 << le(QByteArray(64, 'x')) << QByteArrayList{QByteArray(64, 'x')} << quint64(0);
    QTest::newRow("compressed, expanding beyond the limit")
        << 3 << le(qCompress(QByteArray(65, 'x'))) << QByteArrayList() << quint64(65);
    QTest::newRow("xml document growing beyond the limit")
        << 1 << QByteArray("<r>") + QByteArray(70, 'x') + "</r>" << QByteArrayList() << quint64(77);
}

// Nothing of a refused message is collected; the owner hears of it and
// closes the connection.
void TestXmlSeparator::oversizedMessageIsRefused()
{
    QFETCH(int, mode);
    QFETCH(QByteArray, stream);
    QFETCH(QByteArrayList, expected);
    QFETCH(quint64, refusedLength);

    FeedDevice device;
    XmlSeparator separator(&device, mode);
    separator.setMaxFrameLength(64);
    QSignalSpy received(&separator, &XmlSeparator::xmlReceived);
    QSignalSpy refused(&separator, &XmlSeparator::frameTooLarge);
    device.feed(stream);
    QTRY_COMPARE(messages(received), expected);
    QCOMPARE(refused.count(), refusedLength ? 1 : 0);
    const qint64 unread = device.bytesAvailable();
    device.feed(le("<after/>"));
    if (!refusedLength) {
        QTRY_COMPARE(received.count(), expected.size() + 1);
        return;
    }
    QCOMPARE(refused.first().first().toULongLong(), refusedLength);
    QCOMPARE(device.bytesAvailable(), unread + le("<after/>").size()); // reading has stopped
}

void TestXmlSeparator::hugeAnnouncementHoldsOnlyWhatArrived_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("head"); // what announces the message
    QTest::addColumn<int>("sliceSize");

    const quint32 huge = XmlSeparator::LargestMaxFrameLength;
    QByteArray bigEndian(4, '\0');
    qToBigEndian<quint32>(huge, bigEndian.data());
    QByteArray littleEndian(4, '\0');
    qToLittleEndian<quint32>(huge, littleEndian.data());
    QTest::newRow("little-endian, 4 KiB slices") << int(XmlSeparator::LittleEndianMode) << littleEndian << 4096;
    QTest::newRow("big-endian, 64 KiB slices") << int(XmlSeparator::BigEndianMode) << bigEndian << 65536;
    QTest::newRow("little-endian, one slice") << int(XmlSeparator::LittleEndianMode) << littleEndian << (1 << 20);
    QTest::newRow("xml document that never closes, 4 KiB slices")
        << int(XmlSeparator::PlainXmlMode) << QByteArray("<r>") << 4096;
}

// A peer announcing about 2 GB and sending 1 MiB costs about 1 MiB: nothing
// is set aside for what is only announced.
void TestXmlSeparator::hugeAnnouncementHoldsOnlyWhatArrived()
{
    QFETCH(int, mode);
    QFETCH(QByteArray, head);
    QFETCH(int, sliceSize);
    constexpr qint64 kBody = 1 << 20;
    // Buffers grow geometrically, and plain XML is held both as input and
    // as the message being collected.
    constexpr qint64 kFactor = 4;
    constexpr qint64 kSlack = 64 * 1024;

    FeedDevice device;
    XmlSeparator separator(&device, mode);
    separator.setMaxFrameLength(XmlSeparator::LargestMaxFrameLength);
    QSignalSpy framed(&separator, &XmlSeparator::queued_xmlReceived);
    QSignalSpy refused(&separator, &XmlSeparator::frameTooLarge);
    qint64 received = head.size();
    device.feed(head);
    const QByteArray slice(sliceSize, 'x');
    while (received < head.size() + kBody) {
        device.feed(slice);
        received += slice.size();
        QVERIFY2(
            separator.bufferedCapacity() <= kFactor * received + kSlack,
            qPrintable(
                QStringLiteral("%1 bytes held after %2 received").arg(separator.bufferedCapacity()).arg(received)));
    }
    QVERIFY(separator.bufferedCapacity() >= kBody); // what arrived is kept
    QCOMPARE(framed.count(), 0);
    QCOMPARE(refused.count(), 0);
}

void TestXmlSeparator::arrivingPayloadIsShown_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("before"); // a message in the same first read
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<QByteArray>("expected");
    QTest::addColumn<bool>("shown");

    QByteArray payload("<r>");
    while (payload.size() < 5000)
        payload += "<g>text</g>";
    payload += "</r>";
    const int le = XmlSeparator::LittleEndianMode;
    QTest::newRow("plain payload") << le << QByteArray() << ::le(payload) << payload << true;
    QTest::newRow("behind a message not handed on yet") << le << ::le("<a/>") << ::le(payload) << payload << true;
    QTest::newRow("compressed payload, expanded whole")
        << le << QByteArray() << ::le(qCompress(payload)) << payload << false;
    QTest::newRow("plain xml") << int(XmlSeparator::PlainXmlMode) << QByteArray() << payload << payload << false;
}

// While a length-prefixed payload arrives, what is in is shown, growing, and
// only after every earlier message has been handed on; a compressed one is
// not, its bytes tell nothing before they are expanded.
void TestXmlSeparator::arrivingPayloadIsShown()
{
    QFETCH(int, mode);
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, stream);
    QFETCH(QByteArray, expected);
    QFETCH(bool, shown);

    FeedDevice device;
    XmlSeparator separator(&device, mode);
    QSignalSpy received(&separator, &XmlSeparator::xmlReceived);
    QByteArrayList arrived;
    // The bytes shown are the separator's own buffer, valid during the signal only.
    connect(&separator, &XmlSeparator::payloadArriving, this, [&](const QByteArray &bytes) {
        arrived << QByteArray(bytes.constData(), bytes.size());
        QCOMPARE(received.count(), before.isEmpty() ? 0 : 1);
    });
    const int step = stream.size() / 4;
    device.feed(before + stream.left(step));
    separator.readNewData();
    QTRY_COMPARE(received.count(), before.isEmpty() ? 0 : 1);
    for (int i = step; i < stream.size(); i += step)
        device.feed(stream.mid(i, step));

    QTRY_COMPARE(messages(received).value(before.isEmpty() ? 0 : 1), expected);
    QCOMPARE(!arrived.isEmpty(), shown);
    for (int i = 0; i < arrived.size(); ++i) {
        QVERIFY(expected.startsWith(arrived.at(i)) && arrived.at(i).size() < expected.size());
        QVERIFY(i == 0 || arrived.at(i).size() > arrived.at(i - 1).size());
    }
}

QTEST_GUILESS_MAIN(TestXmlSeparator)
#include "tst_xmlseparator.moc"
