// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/bulletin.h"
#include "host/web/responder.h"
#include "host/web/webserver.h"
#include "tests/host/webtest.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

#include <memory>
#include <vector>

using namespace host;
using namespace webtest;
using namespace std::chrono_literals;

// The web server alone, with peers of all kinds. All are in one thread.
class tst_WebServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void answers_data();
    void answers();
    void headAnswersWithoutBody();
    void isOnlyForItsOwnOrigin();
    void hosts_data();
    void hosts();
    void methods_data();
    void methods();
    void onlyTheFirstRequestIsAnswered();
    void nobodyReadsBodies();
    void hugeHeadersAreRefused();
    void slowPeersAreEnded_data();
    void slowPeersAreEnded();
    void servesBesidesManySilentPeers();
    void takenPort();
    void onLoopbackOfIPv6();

private:
    // Listens on a free port.
    quint16 start(std::chrono::milliseconds lifetime = WebServer::DefaultLifetime)
    {
        Snapshot snapshot;
        snapshot.taken = Responder::Clock::now();
        snapshot.port = 1;
        snapshot.isAccepting = true;
        snapshot.sinkConnected = true;
        bulletin.publish(snapshot);
        server = std::make_unique<WebServer>(responder, lifetime);
        const bool listens = server->listen({QHostAddress(QHostAddress::LocalHost), 0});
        return listens ? server->address().port : 0;
    }

    Bulletin bulletin{[this] { bulletin.publish(ConnectionRows()); }};
    Responder responder{bulletin};
    std::unique_ptr<WebServer> server;
};

void tst_WebServer::answers_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("body");

    QTest::newRow("/") << 200 << QByteArray("<!DOCTYPE html>");
    QTest::newRow("/history.json") << 200 << QByteArray("{\"bytesPerSecond\":[],");
    QTest::newRow("/ready") << 200 << QByteArray("ok\n");
    QTest::newRow("/live") << 200 << QByteArray("ok\n");
    QTest::newRow("/metrics") << 200 << QByteArray("# HELP inputhost_build_info ");
    QTest::newRow("/status.json") << 200 << QByteArray("{\"ageMs\":");
    QTest::newRow("/status.json?offset=1&limit=2&sort=-bytes&search=%31")
            << 200 << QByteArray("{\"ageMs\":");
    QTest::newRow("/status.json?sort=colour") << 400 << QByteArray("sort takes ");
    QTest::newRow("/status.json?limit=501") << 400 << QByteArray("limit takes ");
    QTest::newRow("/status.json?offset=-1") << 400 << QByteArray("offset takes ");
    QTest::newRow("/nothing") << 404 << QByteArray("There are ");
    QTest::newRow("/../../etc/passwd") << 404 << QByteArray("There are ");
    QTest::newRow("/metrics/") << 404 << QByteArray("There are ");
}

void tst_WebServer::answers()
{
    QFETCH(const QByteArray, body);
    const QByteArray answer = get(start(), QTest::currentDataTag());
    QTEST(codeOf(answer), "code");
    QVERIFY2(bodyOf(answer).startsWith(body), answer.constData());
}

void tst_WebServer::headAnswersWithoutBody()
{
    const QByteArray answer = ask(start(), request("/ready", "HEAD"));
    QCOMPARE(codeOf(answer), 200);
    QVERIFY2(answer.contains("\r\nContent-Length: 3\r\n"), answer.constData());
    QCOMPARE(bodyOf(answer), QByteArray());
}

void tst_WebServer::isOnlyForItsOwnOrigin()
{
    const QByteArray answer = ask(
            start(), request("/status.json", "GET", "Host: localhost\r\nOrigin: http://evil\r\n"));
    QCOMPARE(codeOf(answer), 200);
    QVERIFY(!answer.contains("Access-Control"));
    for (const char *line : {"X-Content-Type-Options: nosniff", "Cache-Control: no-store",
                             "Content-Security-Policy: default-src 'none'; base-uri",
                             "Cross-Origin-Resource-Policy: same-origin"})
        QVERIFY2(answer.contains(QByteArray("\r\n") + line), answer.constData());
}

void tst_WebServer::hosts_data()
{
    QTest::addColumn<QByteArray>("headers");
    QTest::addColumn<int>("code");

    QTest::newRow("name") << QByteArray("Host: localhost:1\r\n") << 200;
    QTest::newRow("address") << QByteArray("Host: 127.0.0.1\r\n") << 200;
    QTest::newRow("another one") << QByteArray("Host: evil.example\r\n") << 403;
    QTest::newRow("another address") << QByteArray("Host: 10.0.0.1\r\n") << 403;
    QTest::newRow("two") << QByteArray("Host: localhost\r\nHost: evil.example\r\n") << 403;
    QTest::newRow("empty") << QByteArray("Host:\r\n") << 403;
    QTest::newRow("none") << QByteArray() << 400; // HTTP/1.1 wants one
}

void tst_WebServer::hosts()
{
    QFETCH(const QByteArray, headers);
    QTEST(codeOf(ask(start(), request("/ready", "GET", headers))), "code");
}

void tst_WebServer::methods_data()
{
    QTest::addColumn<QByteArray>("method");
    for (const char *method : {"POST", "PUT", "DELETE", "OPTIONS", "TRACE", "PATCH", "get", "X"})
        QTest::newRow(method) << QByteArray(method);
}

void tst_WebServer::methods()
{
    QFETCH(const QByteArray, method);
    const QByteArray answer = ask(start(), request("/ready", method));
    QCOMPARE(codeOf(answer), 405);
    QVERIFY2(answer.contains("\r\nAllow: GET, HEAD\r\n"), answer.constData());
}

void tst_WebServer::onlyTheFirstRequestIsAnswered()
{
    const QByteArray answer = ask(start(), request("/ready").repeated(100));
    QCOMPARE(answer.count("HTTP/1.1 "), 1);
}

void tst_WebServer::nobodyReadsBodies()
{
    const QByteArray headers = "Host: localhost\r\nContent-Length: 1000000000000\r\n";
    const QByteArray answer = ask(start(), request("/ready", "GET", headers) + "body");
    QCOMPARE(codeOf(answer), 200);
}

void tst_WebServer::hugeHeadersAreRefused()
{
    WebPeer peer(start());
    peer.send("GET /ready HTTP/1.1\r\nHost: localhost\r\nX: " + QByteArray(1000000, 'x'));
    const QByteArray answer = peer.toTheEnd(); // may be lost in a reset
    QVERIFY2(answer.isEmpty() || codeOf(answer) == 431, answer.left(100).constData());
}

void tst_WebServer::slowPeersAreEnded_data()
{
    QTest::addColumn<QByteArray>("sent");
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("half a request") << QByteArray("GET /ready HT");
    QTest::newRow("half the headers") << QByteArray("GET /ready HTTP/1.1\r\nHost: loc");
}

void tst_WebServer::slowPeersAreEnded()
{
    QFETCH(const QByteArray, sent);
    constexpr std::chrono::milliseconds Lifetime = 100ms;
    const quint16 port = start(Lifetime);
    QElapsedTimer time;
    time.start();
    WebPeer peer(port);
    peer.send(sent);
    QCOMPARE(codeOf(peer.toTheEnd()), 0);
    QVERIFY(time.elapsed() >= Lifetime.count() * 95 / 100);
}

// They take all places, and have them no longer than their time.
void tst_WebServer::servesBesidesManySilentPeers()
{
    const quint16 port = start(300ms);
    std::vector<std::unique_ptr<WebPeer>> silent;
    for (unsigned n = 0; n < 4 * WebServer::MostConnections; ++n)
        silent.push_back(std::make_unique<WebPeer>(port));
    int code = 0;
    QTRY_VERIFY_WITH_TIMEOUT((code = codeOf(get(port, "/ready"))) != 0, HangGuardMs);
    QCOMPARE(code, 200);
}

void tst_WebServer::takenPort()
{
    const quint16 port = start();
    WebServer second(responder);
    QVERIFY(!second.listen({QHostAddress(QHostAddress::LocalHost), port}));
    QCOMPARE(second.errorString(),
             QStringLiteral("Cannot listen on 127.0.0.1:%1: %2")
                     .arg(port)
                     .arg(qt_error_string(EADDRINUSE)));
}

void tst_WebServer::onLoopbackOfIPv6()
{
    start();
    WebServer v6(responder);
    if (!v6.listen({QHostAddress(QHostAddress::LocalHostIPv6), 0}))
        QSKIP("This machine has no IPv6");
    QTcpSocket socket;
    socket.connectToHost(QHostAddress(QHostAddress::LocalHostIPv6), v6.address().port);
    socket.write(request("/ready", "GET", "Host: [::1]:1\r\n"));
    QTRY_VERIFY_WITH_TIMEOUT(socket.state() == QAbstractSocket::UnconnectedState, HangGuardMs);
    QCOMPARE(codeOf(socket.readAll()), 200);
}

QTEST_GUILESS_MAIN(tst_WebServer)
#include "tst_webserver.moc"
