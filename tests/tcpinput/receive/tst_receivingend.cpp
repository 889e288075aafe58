// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"
#include "tcpinput/receive/receivingsocket.h"
#include "tests/tcpinput/receive/receiver.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QTest>

#include <cerrno>

#include <sys/eventfd.h>

using namespace receivertest;

namespace {

const QStringList EndHere = {QStringLiteral("stateChanged"), QStringLiteral("readChannelFinished"),
                             QStringLiteral("disconnected")};

} // namespace

// The ends of the connection.
class tst_ReceivingEnd : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void peerEnds_data();
    void peerEnds();
    void failureIsTold();
    void endIsNoticedOnce();
    void endsHere_data();
    void endsHere();
    void endsWhileReading_data();
    void endsWhileReading();
    void destructorClosesSilently();
    void endsWritingAlone();
};

void tst_ReceivingEnd::peerEnds_data()
{
    QTest::addColumn<QByteArray>("sent");
    QTest::addColumn<QByteArray>("how");
    QTest::addColumn<bool>("beforeTheSocket");
    for (const QByteArray how : {"close", "half close", "reset"}) {
        for (int size : {0, 5, 60000}) {
            for (bool before : {false, true})
                QTest::addRow("%s after %d bytes%s", how.data(), size, before ? ", early" : "")
                        << bytes(size) << how << before;
        }
    }
}

void tst_ReceivingEnd::peerEnds()
{
    QFETCH(QByteArray, sent);
    QFETCH(QByteArray, how);
    QFETCH(bool, beforeTheSocket);
    Receiver receiver;
    if (!beforeTheSocket)
        receiver.makeSocket();

    if (!sent.isEmpty())
        QVERIFY(receiver.sendUnseen(sent));
    if (how == "close")
        receiver.device.close();
    else if (how == "half close")
        receiver.device.finish();
    else
        receiver.device.reset();
    QVERIFY(receiver.peerEndArrived());
    if (beforeTheSocket)
        receiver.makeSocket();
    QCOMPARE(receiver.events, QStringList()); // nothing without the event loop
    WAIT_FOR(receiver.ended());

    QVERIFY(receiver.received == sent);
    QCOMPARE(receiver.events, EndByPeer);
    const ReceivingSocket &socket = *receiver.socket;
    QCOMPARE(receiver.errors, {QAbstractSocket::RemoteHostClosedError});
    QCOMPARE(socket.error(), QAbstractSocket::RemoteHostClosedError);
    QVERIFY(!socket.errorString().isEmpty());
    QCOMPARE(socket.state(), QAbstractSocket::UnconnectedState);
    QCOMPARE(socket.socketDescriptor(), -1);
    QVERIFY(!isOpen(receiver.accepted));
    QCOMPARE(socket.localAddress(), LocalAddress);
    QCOMPARE(socket.localPort(), receiver.localPort);
    QCOMPARE(socket.peerAddress(), PeerAddress);
    QCOMPARE(socket.peerPort(), receiver.peerPort);
}

// Reading from a descriptor that is no socket is a failure, and not an end by the peer.
void tst_ReceivingEnd::failureIsTold()
{
    ReceivingSocket socket(::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK), {});
    QCOMPARE(socket.failure(), QString());
    QTRY_COMPARE_WITH_TIMEOUT(socket.state(), QAbstractSocket::UnconnectedState, HangGuardMs);
    QCOMPARE(socket.endReason(), EndReason::Reset);
    QCOMPARE(socket.failure(), qt_error_string(ENOTSOCK));
}

void tst_ReceivingEnd::endIsNoticedOnce()
{
    Receiver another;
    Receiver receiver;
    receiver.makeSocket();
    receiver.device.close();
    WAIT_FOR(receiver.ended());
    // From now on this descriptor is another connection's.
    QCOMPARE(::dup2(another.accepted, receiver.accepted), receiver.accepted);
    ::close(std::exchange(another.accepted, receiver.accepted));
    QTest::failOnWarning(QRegularExpression(QStringLiteral("notifier")));
    another.makeSocket();

    receiver.socket->disconnectFromHost();
    receiver.socket->close();
    receiver.socket->abort();
    QVERIFY(!receiver.socket->waitForReadyRead(0));
    receiver.socket.reset();

    QCOMPARE(receiver.events, EndByPeer);
    receiver.accepted = -1;
    QVERIFY(another.sendUnseen("abc"));
    WAIT_FOR(another.received == "abc");
}

void tst_ReceivingEnd::endsHere_data()
{
    QTest::addColumn<QByteArray>("how");
    QTest::addColumn<bool>("open"); // what has been received can still be read
    QTest::newRow("close") << QByteArray("close") << false;
    QTest::newRow("abort") << QByteArray("abort") << false;
    QTest::newRow("disconnect") << QByteArray("disconnect") << true;
}

void tst_ReceivingEnd::endsHere()
{
    QFETCH(QByteArray, how);
    QFETCH(bool, open);
    Receiver receiver([](ReceivingSocket &) {});
    receiver.makeSocket();
    QVERIFY(receiver.sendUnseen("abc"));
    WAIT_FOR(receiver.announced == 1);

    end(*receiver.socket, how);

    QCOMPARE(receiver.events, EndHere);
    QCOMPARE(receiver.socket->isOpen(), open);
    QCOMPARE(receiver.socket->bytesAvailable(), open ? 3 : 0);
    QCOMPARE(receiver.socket->socketDescriptor(), -1);
    QCOMPARE(receiver.socket->peerPort(), receiver.peerPort);
    QVERIFY(!isOpen(receiver.accepted));
    QVERIFY(receiver.device.ends());
    if (open)
        QCOMPARE(receiver.socket->readAll(), QByteArray("abc"));
}

void tst_ReceivingEnd::endsWhileReading_data()
{
    endsHere_data();
}

// A closed descriptor's number may be the next connection's: nothing may be read from it.
void tst_ReceivingEnd::endsWhileReading()
{
    QFETCH(QByteArray, how);
    QFETCH(bool, open);
    const QByteArray all = bytes(ReceiveBytes + 100);
    Receiver next;
    QVERIFY(next.sendUnseen("for the next one"));
    QByteArray afterwards;
    Receiver receiver([&](ReceivingSocket &socket) {
        end(socket, how);
        QCOMPARE(::dup2(next.accepted, receiver.accepted), receiver.accepted);
        if (socket.isOpen())
            afterwards = socket.readAll();
        ::close(receiver.accepted);
    });
    receiver.makeRoom();
    QVERIFY(receiver.sendUnseen(all));
    receiver.makeSocket();

    WAIT_FOR(receiver.announced == 1);

    QVERIFY(afterwards == (open ? all : QByteArray()));
    QCOMPARE(receiver.socket->bytesAvailable(), 0);
    QCOMPARE(receiver.events, EndHere);
    next.makeSocket();
    WAIT_FOR(next.received == "for the next one");
}

void tst_ReceivingEnd::destructorClosesSilently()
{
    Receiver receiver;
    receiver.makeSocket();
    QVERIFY(receiver.sendUnseen("abc"));

    receiver.socket.reset();

    QVERIFY(receiver.device.ends());
    QCOMPARE(receiver.events, QStringList());
    QCoreApplication::processEvents();
    receiver.accepted = -1;
}

// The peer's end is still told from this one's.
void tst_ReceivingEnd::endsWritingAlone()
{
    Receiver receiver;
    receiver.makeSocket();
    receiver.socket->endWriting();
    receiver.socket->endWriting();
    QVERIFY(receiver.device.ends());
    QVERIFY(!receiver.socket->peerHasEnded());
    QVERIFY(receiver.sendUnseen("abc"));
    WAIT_FOR(receiver.received == "abc");
    QVERIFY(!receiver.ended());
    receiver.device.close();
    QVERIFY(receiver.peerEndArrived());
    QVERIFY(receiver.socket->peerHasEnded());
    WAIT_FOR(receiver.ended());
    QCOMPARE(receiver.events, EndByPeer);
    receiver.socket->endWriting();
}

int main(int argc, char *argv[])
{
    QCoreApplication::setEventDispatcher(EpollEventDispatcher::create().release());
    QCoreApplication application(argc, argv);
    tst_ReceivingEnd test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_receivingend.moc"
