// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"
#include "tcpinput/receive/receivingsocket.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/processresources.h"
#include "tests/tcpinput/receive/receiver.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QTest>

#include <memory>
#include <thread>

using namespace receivertest;

namespace {

//! A reader that the socket calls directly.
class DirectReader final : public TransportReader
{
public:
    explicit DirectReader(ReceivingSocket &given, qint64 most) : socket(given), mostAtOnce(most)
    {
        socket.setReader(this);
    }
    ~DirectReader() { socket.setReader(nullptr); }
    Q_DISABLE_COPY_MOVE(DirectReader)

    void bytesCame() override
    {
        ++announced;
        QByteArray room(qMin(socket.bytesAvailable(), mostAtOnce), Qt::Uninitialized);
        room.truncate(socket.take(room.data(), room.size()));
        received += room;
    }

    QByteArray emptyBlock(qsizetype size) override
    {
        QByteArray block;
        block.reserve(size);
        return block;
    }

    int announced = 0;
    QByteArray received;

private:
    ReceivingSocket &socket;
    const qint64 mostAtOnce;
};

} // namespace

// A real connection, and the event loop that the socket has in a worker thread.
class tst_ReceivingSocket : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void isAConnectedSocket();

    void waitTakesWhatHasCome_data();
    void waitTakesWhatHasCome();
    void waitWithNothingThere();
    void waitsUntilBytesCome();
    void waitNoticesTheEnd_data();
    void waitNoticesTheEnd();
    void waitWhileReading();

    void refusesToWrite();
    void keepAlive();
    void otherOptionsAreIgnored();

    void nestedLoopWithAnotherSocket_data();
    void nestedLoopWithAnotherSocket();
    void nestedLoopWithTheSameSocket();
    void manySockets();
    void directReader();
    void directReaderThatLeavesSome();
    void directReaderOfMuch();
};

void tst_ReceivingSocket::isAConnectedSocket()
{
    Receiver receiver;
    receiver.makeSocket();
    const ReceivingSocket &socket = *receiver.socket;

    QCOMPARE(socket.state(), QAbstractSocket::ConnectedState);
    QVERIFY(socket.isOpen());
    QVERIFY(socket.isValid());
    QVERIFY(socket.isSequential());
    QCOMPARE(socket.socketDescriptor(), receiver.accepted);
    QCOMPARE(socket.localAddress(), LocalAddress);
    QCOMPARE(socket.localPort(), receiver.localPort);
    QCOMPARE(socket.peerAddress(), PeerAddress);
    QCOMPARE(socket.peerPort(), receiver.peerPort);
    QCOMPARE(socket.bytesAvailable(), 0);
    QCOMPARE(receiver.events, QStringList());
}

void tst_ReceivingSocket::waitTakesWhatHasCome_data()
{
    QTest::addColumn<int>("before");
    QTest::addColumn<int>("size");
    QTest::newRow("1 byte") << 0 << 1;
    QTest::newRow("more than the thread's buffer") << 0 << ReceiveBytes + 1;
    QTest::newRow("behind some that was not read") << 10 << 20;
}

void tst_ReceivingSocket::waitTakesWhatHasCome()
{
    QFETCH(int, before);
    QFETCH(int, size);
    Receiver receiver([](ReceivingSocket &) {});
    receiver.makeRoom();
    receiver.makeSocket();
    const QByteArray all = bytes(before + size);
    if (before > 0) {
        QVERIFY(receiver.sendUnseen(all.first(before)));
        WAIT_FOR(receiver.announced == 1);
    }
    QVERIFY(receiver.sendUnseen(all.sliced(before)));
    receiver.announced = 0;

    QVERIFY(receiver.socket->waitForReadyRead(0));

    QCOMPARE(receiver.announced, 1);
    QCOMPARE(receiver.socket->bytesAvailable(), before + size);
    QVERIFY(receiver.socket->readAll() == all);
    QCOMPARE(receiver.events, QStringList());
}

// Nothing comes, whatever the time that is given.
void tst_ReceivingSocket::waitWithNothingThere()
{
    Receiver receiver;
    receiver.makeSocket();
    QVERIFY(!receiver.socket->waitForReadyRead(0));
    QVERIFY(!receiver.socket->waitForReadyRead(1));
    QVERIFY(!receiver.socket->waitForDisconnected(-1));
    QCOMPARE(receiver.announced, 0);
    QCOMPARE(receiver.events, QStringList());
    QVERIFY(isOpen(receiver.accepted));
}

void tst_ReceivingSocket::waitsUntilBytesCome()
{
    Receiver receiver;
    receiver.makeSocket();
    std::thread device([&] { receiver.device.send("abc"); });
    const bool came = receiver.socket->waitForReadyRead(-1);
    device.join();
    QVERIFY(came);
    QCOMPARE(receiver.received, QByteArray("abc"));
}

void tst_ReceivingSocket::waitNoticesTheEnd_data()
{
    QTest::addColumn<bool>("reset");
    QTest::newRow("closed") << false;
    QTest::newRow("reset") << true;
}

void tst_ReceivingSocket::waitNoticesTheEnd()
{
    QFETCH(bool, reset);
    Receiver receiver;
    receiver.makeSocket();
    QVERIFY(receiver.sendUnseen("abc"));
    reset ? receiver.device.reset() : receiver.device.close();
    QVERIFY(receiver.peerEndArrived());

    QVERIFY(receiver.socket->waitForReadyRead(0));
    QCOMPARE(receiver.received, QByteArray("abc"));
    QCOMPARE(receiver.events, QStringList());
    QVERIFY(!receiver.socket->waitForReadyRead(0));
    QCOMPARE(receiver.events, EndByPeer);
    QVERIFY(!receiver.socket->waitForReadyRead(0));
    QCOMPARE(receiver.events, EndByPeer);
}

void tst_ReceivingSocket::waitWhileReading()
{
    QByteArray received;
    Receiver receiver([&](ReceivingSocket &socket) {
        if (socket.bytesAvailable() > 3)
            return;
        QVERIFY(receiver.sendUnseen("def"));
        QVERIFY(socket.waitForReadyRead(0));
        received = socket.readAll();
    });
    receiver.makeSocket();
    QVERIFY(receiver.sendUnseen("abc"));
    WAIT_FOR(receiver.announced == 2);
    QCOMPARE(received, QByteArray("abcdef"));
    QCOMPARE(receiver.socket->bytesAvailable(), 0);
}

void tst_ReceivingSocket::refusesToWrite()
{
    Receiver receiver;
    receiver.makeSocket();
    QVERIFY(!receiver.socket->isWritable());
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(QStringLiteral("QIODevice::write.*ReadOnly device")));
    QCOMPARE(receiver.socket->write("abc"), -1);
    QCOMPARE(receiver.socket->bytesToWrite(), 0);

    receiver.socket->close();
    char byte = 0;
    QCOMPARE(::recv(receiver.device.descriptor(), &byte, 1, 0), ssize_t(0));
}

void tst_ReceivingSocket::keepAlive()
{
    Receiver receiver;
    receiver.makeSocket();
    const auto isOn = [&] {
        int value = -1;
        socklen_t length = sizeof value;
        ::getsockopt(receiver.accepted, SOL_SOCKET, SO_KEEPALIVE, &value, &length);
        return value;
    };
    QCOMPARE(isOn(), 0);
    receiver.socket->setSocketOption(QAbstractSocket::KeepAliveOption, true);
    QCOMPARE(isOn(), 1);
    receiver.socket->setSocketOption(QAbstractSocket::KeepAliveOption, 0);
    QCOMPARE(isOn(), 0);
}

void tst_ReceivingSocket::otherOptionsAreIgnored()
{
    Receiver receiver;
    receiver.makeSocket();
    receiver.socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 5000);
    receiver.socket->setReadBufferSize(1);
    QVERIFY(receiver.sendUnseen("abc"));
    WAIT_FOR(receiver.received == "abc");
}

void tst_ReceivingSocket::nestedLoopWithAnotherSocket_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("small") << 100;
    QTest::newRow("all of the thread's buffer, and more in the kernel") << ReceiveBytes + 100;
}

// Bytes that are being read stay as they are, whatever other sockets of the thread receive
// meanwhile.
void tst_ReceivingSocket::nestedLoopWithAnotherSocket()
{
    QFETCH(int, size);
    Receiver inner;
    inner.makeSocket();
    QByteArray received;
    Receiver outer([&](ReceivingSocket &socket) {
        received += socket.read(10);
        if (received.size() == 10) { // else the nested loop brings what waits in the kernel
            QVERIFY(inner.device.send(QByteArray(60000, '#')));
            WAIT_FOR(inner.received.size() == 60000);
        }
        received += socket.readAll();
    });
    outer.makeRoom();
    QVERIFY(outer.sendUnseen(bytes(size)));
    outer.makeSocket();

    WAIT_FOR(received.size() == size);

    QVERIFY(received == bytes(size));
    QCOMPARE(inner.received, QByteArray(60000, '#'));
    // Afterwards both go on as before.
    QVERIFY(inner.device.send("inner"));
    WAIT_FOR(inner.received.endsWith("inner"));
}

// The nested call finds the bytes that the outer one has not read, and those that came behind them.
void tst_ReceivingSocket::nestedLoopWithTheSameSocket()
{
    QByteArray received;
    int depth = 0;
    Receiver receiver([&](ReceivingSocket &socket) {
        if (++depth == 1) {
            received += socket.read(2);
            QVERIFY(receiver.device.send("def"));
            WAIT_FOR(received == "abcdef");
            QCOMPARE(socket.bytesAvailable(), 0);
            QVERIFY(socket.readAll().isEmpty());
        } else {
            received += socket.readAll();
        }
        --depth;
    });
    receiver.makeSocket();
    QVERIFY(receiver.sendUnseen("abc"));
    WAIT_FOR(receiver.announced == 2);
    QCOMPARE(received, QByteArray("abcdef"));
    QCOMPARE(depth, 0);
}

void tst_ReceivingSocket::manySockets()
{
    constexpr int Sockets = 50;
    const qsizetype before = openDescriptors();
    {
        std::vector<std::unique_ptr<Receiver>> receivers;
        for (int i = 0; i < Sockets; ++i) {
            receivers.push_back(std::make_unique<Receiver>());
            receivers.back()->makeSocket();
        }
        for (int round = 0; round < 3; ++round) {
            for (int i = 0; i < Sockets; ++i)
                QVERIFY(receivers[size_t(i)]->device.send(QByteArray(1000 + i, char('A' + i))));
        }
        for (int i = 0; i < Sockets; ++i) {
            const Receiver &receiver = *receivers[size_t(i)];
            WAIT_FOR(receiver.received.size() == 3 * (1000 + i));
            QCOMPARE(receiver.received.count(char('A' + i)), receiver.received.size());
        }
    }
    QCOMPARE(openDescriptors(), before);
}

// A direct reader is called instead of readyRead(), and only as long as it exists.
void tst_ReceivingSocket::directReader()
{
    Receiver receiver;
    receiver.makeSocket();
    {
        DirectReader reader(*receiver.socket, 1 << 20);
        QVERIFY(receiver.sendUnseen("direct"));
        QTRY_COMPARE_WITH_TIMEOUT(reader.received, QByteArray("direct"), HangGuardMs);
        QCOMPARE(reader.announced, 1);
        QCOMPARE(receiver.announced, 0);
    }
    QVERIFY(receiver.sendUnseen("signal"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.received, QByteArray("signal"), HangGuardMs);

    DirectReader reader(*receiver.socket, 1 << 20);
    receiver.device.close();
    QTRY_VERIFY_WITH_TIMEOUT(receiver.ended(), HangGuardMs);
    QCOMPARE(receiver.events, EndByPeer);
    QCOMPARE(reader.announced, 0);
}

// Bytes that the reader leaves are there the next time, before new bytes.
void tst_ReceivingSocket::directReaderThatLeavesSome()
{
    Receiver receiver;
    receiver.makeSocket();
    DirectReader reader(*receiver.socket, 4);
    QVERIFY(receiver.sendUnseen("abcdef"));
    QTRY_COMPARE_WITH_TIMEOUT(reader.received, QByteArray("abcd"), HangGuardMs);
    QCOMPARE(receiver.socket->bytesAvailable(), 2);
    QVERIFY(receiver.sendUnseen("gh"));
    QTRY_COMPARE_WITH_TIMEOUT(reader.received, QByteArray("abcdefgh"), HangGuardMs);
    QCOMPARE(reader.announced, 2);
}

// More than the thread's buffer: the rest is taken from the kernel.
void tst_ReceivingSocket::directReaderOfMuch()
{
    Receiver receiver;
    receiver.makeRoom();
    const QByteArray sent = QByteArray(2 * ReceiveBytes, 'a') + "end";
    QVERIFY(receiver.sendUnseen(sent));
    receiver.makeSocket();
    DirectReader reader(*receiver.socket, 1 << 20);
    QTRY_COMPARE_WITH_TIMEOUT(reader.received.size(), sent.size(), HangGuardMs);
    QCOMPARE(reader.received, sent);
    QCOMPARE(reader.announced, 1);
}

int main(int argc, char *argv[])
{
    QCoreApplication::setEventDispatcher(EpollEventDispatcher::create().release());
    QCoreApplication application(argc, argv);
    tst_ReceivingSocket test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_receivingsocket.moc"
