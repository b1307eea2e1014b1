#include "httprequestreader.h"
#include "servermetrics.h"

#include <QtTest>

using namespace Kelda;

// The monitoring endpoint's request reader and the text it serves, without
// sockets.
class TestServerMetrics : public QObject
{
    Q_OBJECT

private slots:
    void requestHead_data();
    void requestHead();
    void splitHeadsReadTheSame();
    void textFormat();
};

void TestServerMetrics::requestHead_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("status"); // 0: complete, -1: needs more, else refused with it
    QTest::addColumn<QByteArray>("path");
    QTest::newRow("metrics") << QByteArray("GET /metrics HTTP/1.1\r\nHost: x\r\nAccept: */*\r\n\r\n") << 0
                             << QByteArray("/metrics");
    QTest::newRow("query string dropped")
        << QByteArray("GET /healthz?probe=1 HTTP/1.0\r\n\r\n") << 0 << QByteArray("/healthz");
    QTest::newRow("unfinished") << QByteArray("GET /metrics HTTP/1.1\r\nHost: x\r\n") << -1 << QByteArray();
    QTest::newRow("post") << QByteArray("POST /metrics HTTP/1.1\r\n\r\n") << 405 << QByteArray();
    QTest::newRow("a body behind a get") << QByteArray("GET /metrics HTTP/1.1\r\nContent-Length: 5\r\n\r\n") << 400
                                         << QByteArray();
    QTest::newRow("bytes behind the head")
        << QByteArray("GET /metrics HTTP/1.1\r\n\r\nGET /x HTTP/1.1\r\n\r\n") << 400 << QByteArray();
    QTest::newRow("chunked") << QByteArray("GET / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n") << 400
                             << QByteArray();
    QTest::newRow("bare newlines") << QByteArray("GET /metrics HTTP/1.1\nHost: x\r\n\r\n") << 400 << QByteArray();
    QTest::newRow("header without colon")
        << QByteArray("GET /metrics HTTP/1.1\r\nHost x\r\n\r\n") << 400 << QByteArray();
    QTest::newRow("control character") << QByteArray("GET /met\x01rics HTTP/1.1\r\n\r\n") << 400 << QByteArray();
    QTest::newRow("relative target") << QByteArray("GET metrics HTTP/1.1\r\n\r\n") << 400 << QByteArray();
    QTest::newRow("HTTP/2") << QByteArray("GET /metrics HTTP/2.0\r\n\r\n") << 505 << QByteArray();
    QTest::newRow("not HTTP") << QByteArray("\x16\x03\x01\x02\x05\r\n\r\n") << 400 << QByteArray();
    QTest::newRow("head too long") << "GET /metrics HTTP/1.1\r\nX: " + QByteArray(5000, 'a') << 431 << QByteArray();
}

void TestServerMetrics::requestHead()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, status);
    QFETCH(QByteArray, path);
    HttpRequestReader reader;
    const HttpRequestReader::State state = reader.feed(bytes);
    switch (status) {
    case 0:
        QCOMPARE(state, HttpRequestReader::State::Complete);
        QCOMPARE(reader.path(), path);
        break;
    case -1:
        QCOMPARE(state, HttpRequestReader::State::NeedMore);
        break;
    default:
        QCOMPARE(state, HttpRequestReader::State::Refused);
        QCOMPARE(reader.status(), status);
    }
}

void TestServerMetrics::splitHeadsReadTheSame()
{
    const QByteArray head("GET /healthz HTTP/1.1\r\nHost: localhost:9100\r\n\r\n");
    for (int cut = 1; cut < head.size(); ++cut) {
        HttpRequestReader reader;
        QCOMPARE(reader.feed(head.left(cut)), HttpRequestReader::State::NeedMore);
        QCOMPARE(reader.feed(head.mid(cut)), HttpRequestReader::State::Complete);
        QCOMPARE(reader.path(), QByteArray("/healthz"));
    }
}

void TestServerMetrics::textFormat()
{
    ServerMetrics metrics;
    metrics.requestAnswered(QStringLiteral("AddFile"), 0, 3000000); // 3 ms
    metrics.requestAnswered(QStringLiteral("AddFile"), 0, 200000000); // 200 ms
    metrics.requestAnswered(QStringLiteral("AddFile"), 7, 1000000);
    metrics.requestAnswered(QStringLiteral("Ex\"pl\node"), 57, 1000);
    metrics.movesFailed += 2;
    ServerMetrics::Gauges gauges;
    gauges.connections = 3;
    gauges.storage.push_back({QStringLiteral("base"), 100, 50});
    const QByteArray text = metrics.render(gauges);
    const auto has = [&text](const char *line) { return text.contains(QByteArray(line) + '\n'); };
    QVERIFY(has("kelda_requests_total{command=\"AddFile\",code=\"0\"} 2"));
    QVERIFY(has("kelda_requests_total{command=\"AddFile\",code=\"7\"} 1"));
    // Buckets count every answer at or below their bound.
    QVERIFY(has("kelda_request_duration_seconds_bucket{command=\"AddFile\",le=\"0.001\"} 1"));
    QVERIFY(has("kelda_request_duration_seconds_bucket{command=\"AddFile\",le=\"0.005\"} 2"));
    QVERIFY(has("kelda_request_duration_seconds_bucket{command=\"AddFile\",le=\"0.25\"} 3"));
    QVERIFY(has("kelda_request_duration_seconds_bucket{command=\"AddFile\",le=\"+Inf\"} 3"));
    QVERIFY(has("kelda_request_duration_seconds_count{command=\"AddFile\"} 3"));
    QVERIFY(has("kelda_requests_total{command=\"Ex\\\"pl\\node\",code=\"57\"} 1"));
    QVERIFY(has("kelda_nas_moves_total{outcome=\"failed\"} 2"));
    QVERIFY(has("kelda_connections 3"));
    QVERIFY(has("kelda_storage_free_bytes{folder=\"base\"} 50"));
    // Every sample line belongs to a declared family.
    for (const QByteArray &line : text.split('\n')) {
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        const QByteArray family = line.left(line.indexOf(line.contains('{') ? '{' : ' '));
        QVERIFY2(text.contains("# TYPE " + family + ' ') ||
                     text.contains("# TYPE " + family.left(family.lastIndexOf('_')) + ' '),
                 line.constData());
    }
}

QTEST_GUILESS_MAIN(TestServerMetrics)
#include "tst_servermetrics.moc"
