// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/receivingsocket.h"
#include "tcpinput/tcpclient2.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/movableclock.h"
#include "tests/kit/nativesocket.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <functional>
#include <memory>
#include <utility>

namespace {

const QHostAddress LocalAddress(QStringLiteral("127.61.9.1"));
const QHostAddress PeerAddress(QStringLiteral("127.61.9.2"));

//! A message handler that does something inside of the first line that holds a text.
class LineHook
{
public:
    LineHook(const QString &text, std::function<void()> what)
        : previous(qInstallMessageHandler(&LineHook::handle))
    {
        wanted = text;
        action = std::move(what);
    }
    ~LineHook()
    {
        qInstallMessageHandler(previous);
        action = {};
    }
    Q_DISABLE_COPY_MOVE(LineHook)

    static bool hasActed() { return !action; }

private:
    static void handle(QtMsgType, const QMessageLogContext &, const QString &line)
    {
        if (!action || !line.contains(wanted))
            return;
        std::exchange(action, {})();
    }

    const QtMessageHandler previous;

    static inline QString wanted;
    static inline std::function<void()> action;
};

//! A client as a worker has it, with the device at its other end. It keeps the offers.
struct PlainClient
{
    PlainClient()
    {
        SocketPair pair = SocketPair::connected(LocalAddress, PeerAddress);
        device = std::move(pair.device);
        accepted = pair.accepted.release();
        auto *socket = new ReceivingSocket(accepted, Endpoints::of(accepted));
        client = std::make_unique<TcpClient2>(nullptr, QStringLiteral("given"), socket, 600000);
        client->offerTo([this](const QByteArray &data) { offers.append(data); });
    }

    // The bytes are in the kernel when this returns.
    bool sendUnseen(const QByteArray &bytes) const
    {
        return device.send(bytes) && NativeSocket::waitForArrival(accepted, int(bytes.size()));
    }
    // The end is in the kernel when this returns.
    bool endUnseen()
    {
        device.close();
        return NativeSocket::waitForPeerEnd(accepted);
    }

    NativeSocket device;
    int accepted = -1;
    QList<QByteArray> offers;
    std::unique_ptr<TcpClient2> client;
};

#define WAIT_FOR(condition) QTRY_VERIFY_WITH_TIMEOUT(condition, HangGuardMs)

} // namespace

// A client that its ReceivingSocket calls directly. It ends from within what it calls itself: its
// taker, its signal, and a log line in which the host's handler runs the event loop.
class tst_PlainClient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { clock = std::make_unique<MovableClock>(); }
    void cleanup() { clock.reset(); }

    void lastOfferComesOnce();
    void endsInItsTaker();
    void peerEndsInALogLine_data();
    void peerEndsInALogLine();
    void endsInTheLineOfACut();

private:
    std::unique_ptr<MovableClock> clock;
};

// Also if an offer of these bytes was due.
void tst_PlainClient::lastOfferComesOnce()
{
    PlainClient connection;
    QVERIFY(connection.sendUnseen("abc"));
    connection.client->mdisconnected();
    QCOMPARE(connection.offers, QList<QByteArray>({"abc"}));
}

void tst_PlainClient::endsInItsTaker()
{
    PlainClient connection;
    TcpClient2 *const client = connection.client.get();
    client->offerTo([&](const QByteArray &data) {
        connection.offers.append(data);
        client->mdisconnected();
    });
    QSignalSpy offered(client, &TcpClient2::readyRead);
    QSignalSpy ended(client, &TcpClient2::disconnected);
    QVERIFY(connection.sendUnseen("abc"));
    WAIT_FOR(!ended.isEmpty());
    QCOMPARE(ended.size(), 1);
    QCOMPARE(connection.offers, QList<QByteArray>({"abc", "abc"})); // one, and the last one
    QCOMPARE(offered.size(), 1); // the last one; the first ended before its signal
}

void tst_PlainClient::peerEndsInALogLine_data()
{
    QTest::addColumn<QString>("line");
    QTest::newRow("first read") << QStringLiteral("TCP READ");
    QTest::newRow("large read") << QStringLiteral("msgsize");
    QTest::newRow("closing") << QStringLiteral("closing connection");
}

void tst_PlainClient::peerEndsInALogLine()
{
    QFETCH(QString, line);
    const QByteArray sent(1001, 'x');
    PlainClient connection;
    QSignalSpy ended(connection.client.get(), &TcpClient2::disconnected);
    QVERIFY(connection.sendUnseen(sent));
    {
        bool peerEnded = false;
        const LineHook hook(line, [&] {
            peerEnded = connection.endUnseen();
            QCoreApplication::processEvents();
        });
        connection.client->mdisconnected();
        QVERIFY(LineHook::hasActed());
        QVERIFY(peerEnded);
    }
    QCOMPARE(connection.offers, QList<QByteArray>({sent}));
    QCOMPARE(ended.size(), 1);
}

void tst_PlainClient::endsInTheLineOfACut()
{
    PlainClient connection;
    TcpClient2 *const client = connection.client.get();
    QVERIFY(connection.sendUnseen(QByteArray(100, 'x')));
    WAIT_FOR(connection.offers.size() == 1);
    {
        const LineHook hook(QStringLiteral("triggering"), [&] { client->mdisconnected(); });
        client->cutInbuf(10);
        QVERIFY(LineHook::hasActed());
    }
    QCOMPARE(connection.offers, QList<QByteArray>({QByteArray(100, 'x'), QByteArray(90, 'x')}));
}

QTEST_GUILESS_MAIN(tst_PlainClient)
#include "tst_plainclient.moc"
