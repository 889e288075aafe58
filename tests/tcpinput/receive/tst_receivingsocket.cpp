// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"
#include "tcpinput/receive/receivingsocket.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/processresources.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <functional>
#include <memory>
#include <thread>

#include <fcntl.h>

namespace {

constexpr int ReceiveBytes = 64 * 1024; // at once, into the thread's buffer

const QHostAddress LocalAddress(QStringLiteral("127.63.0.1"));
const QHostAddress PeerAddress(QStringLiteral("127.63.0.2"));

// No two places look the same.
QByteArray bytes(int size)
{
    QByteArray result;
    result.reserve(size + 8);
    for (int i = 0; result.size() < size; ++i)
        result += QByteArray::number(i, 36) + '.';
    result.truncate(size);
    return result;
}

bool isOpen(int descriptor)
{
    return ::fcntl(descriptor, F_GETFD) != -1;
}

const QStringList EndByPeer = {QStringLiteral("errorOccurred"), QStringLiteral("stateChanged"),
                               QStringLiteral("readChannelFinished"),
                               QStringLiteral("disconnected")};
const QStringList EndHere = {QStringLiteral("stateChanged"), QStringLiteral("readChannelFinished"),
                             QStringLiteral("disconnected")};

//! A socket with the device at its other end. It notes what the socket emits.
class Receiver
{
public:
    // What is done in readyRead(); without anything, all that there is is read.
    using Reader = std::function<void(ReceivingSocket &)>;

    explicit Receiver(Reader given = {}) : reader(std::move(given))
    {
        SocketPair pair = SocketPair::connected(LocalAddress, PeerAddress);
        device = std::move(pair.device);
        localPort = pair.localPort;
        peerPort = pair.peerPort;
        accepted = pair.accepted.release();
    }
    ~Receiver()
    {
        if (!socket)
            ::close(accepted);
    }
    Q_DISABLE_COPY_MOVE(Receiver)

    // From here on there is a socket: what came before waits in the kernel.
    void makeSocket()
    {
        socket = std::make_unique<ReceivingSocket>(accepted, Endpoints::of(accepted));
        QObject::connect(socket.get(), &QIODevice::readyRead, [this] { read(); });
        QObject::connect(socket.get(), &QAbstractSocket::errorOccurred, [this] {
            errors.append(socket->error());
            events.append(QStringLiteral("errorOccurred"));
        });
        QObject::connect(socket.get(), &QAbstractSocket::stateChanged,
                         [this](QAbstractSocket::SocketState state) {
                             QCOMPARE(state, QAbstractSocket::UnconnectedState);
                             QCOMPARE(socket->socketDescriptor(), -1);
                             events.append(QStringLiteral("stateChanged"));
                         });
        QObject::connect(socket.get(), &QIODevice::readChannelFinished,
                         [this] { events.append(QStringLiteral("readChannelFinished")); });
        QObject::connect(socket.get(), &QAbstractSocket::disconnected,
                         [this] { events.append(QStringLiteral("disconnected")); });
    }

    // For more than the thread's buffer in the kernel.
    // False if the kernel does not grant it; root may ask for any.
    bool makeRoom(int size = 4 * ReceiveBytes) const
    {
        const int wanted = 2 * size; // the kernel doubles it again, for its own overhead
        if (::setsockopt(accepted, SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof wanted) != 0)
            ::setsockopt(accepted, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted);
        return NativeSocket::receiveBuffer(accepted) >= 2 * wanted;
    }
    // The bytes are in the kernel when this returns.
    bool sendUnseen(const QByteArray &sent) const
    {
        return device.send(sent) && NativeSocket::waitForArrival(accepted, int(sent.size()));
    }
    bool peerEndArrived() const { return NativeSocket::waitForPeerEnd(accepted); }
    bool ended() const { return events.contains(QStringLiteral("disconnected")); }

    NativeSocket device;
    int accepted = -1;
    quint16 localPort = 0;
    quint16 peerPort = 0;
    std::unique_ptr<ReceivingSocket> socket;
    Reader reader;
    QByteArray received;
    int announced = 0; // how often there was something to read
    QStringList events;
    QList<QAbstractSocket::SocketError> errors;

private:
    void read()
    {
        QVERIFY(!ended());
        QVERIFY(socket->bytesAvailable() > 0);
        ++announced;
        if (reader)
            return reader(*socket);
        received += socket->read(socket->bytesAvailable());
    }
};

//! Who is told directly.
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

    int announced = 0;
    QByteArray received;

private:
    ReceivingSocket &socket;
    const qint64 mostAtOnce;
};

//! Sends all of it, however long that takes, and then ends.
class Sender
{
public:
    Sender(NativeSocket &device, const QByteArray &all)
        : thread(QThread::create([&device, all] {
              device.send(all);
              device.close();
          }))
    {
        thread->start();
    }
    ~Sender() { thread->wait(); }
    Q_DISABLE_COPY_MOVE(Sender)

private:
    const std::unique_ptr<QThread> thread;
};

#define WAIT_FOR(condition) QTRY_VERIFY_WITH_TIMEOUT(condition, HangGuardMs)

} // namespace

// A real connection, and the event loop that the socket has in a worker thread.
class tst_ReceivingSocket : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void isAConnectedSocket();

    void everySizeArrives_data();
    void everySizeArrives();
    void readsWhatWaitsInTheKernel_data();
    void readsWhatWaitsInTheKernel();
    void readersThatLeaveSome_data();
    void readersThatLeaveSome();
    void whatIsLeftIsReadLater();
    void countsWhatIsLeftOnce();
    void blocks();
    void noBlocks();
    void whatIsLeftOutlastsTheConnection();
    void readsIntoMemory();
    void skips();

    void peerEnds_data();
    void peerEnds();
    void endIsNoticedOnce();
    void endsHere_data();
    void endsHere();
    void endsWhileReading_data();
    void endsWhileReading();
    void destructorClosesSilently();

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

void tst_ReceivingSocket::everySizeArrives_data()
{
    QTest::addColumn<int>("size");
    for (int size : {1, 2, ReceiveBytes - 1, ReceiveBytes, ReceiveBytes + 1, 5000000})
        QTest::addRow("%d", size) << size;
}

void tst_ReceivingSocket::everySizeArrives()
{
    QFETCH(int, size);
    Receiver receiver;
    receiver.makeSocket();
    const QByteArray all = bytes(size);

    const Sender sender(receiver.device, all);
    WAIT_FOR(receiver.ended());

    QCOMPARE(receiver.received.size(), all.size());
    QVERIFY(receiver.received == all);
    QCOMPARE(receiver.events, EndByPeer);
}

void tst_ReceivingSocket::readsWhatWaitsInTheKernel_data()
{
    QTest::addColumn<int>("size");
    QTest::addRow("more than the thread's buffer") << ReceiveBytes + 1;
    QTest::addRow("a large message") << 1000000;
}

// All of it in one go, however much it is.
void tst_ReceivingSocket::readsWhatWaitsInTheKernel()
{
    QFETCH(int, size);
    Receiver receiver;
    const QByteArray all = bytes(size);
    if (!receiver.makeRoom(size) && size > 2 * ReceiveBytes)
        QSKIP("the kernel grants no larger receive buffer here");
    QVERIFY(receiver.sendUnseen(all));
    receiver.makeSocket();

    WAIT_FOR(receiver.announced > 0);

    QCOMPARE(receiver.announced, 1);
    QVERIFY(receiver.received == all);
}

void tst_ReceivingSocket::readersThatLeaveSome_data()
{
    QTest::addColumn<int>("most");
    QTest::addColumn<int>("chunk");
    // Of what there is, for each announcement; in chunks.
    QTest::newRow("a byte") << 1 << 1;
    QTest::newRow("a few") << 1000 << 7;
    QTest::newRow("the thread's buffer") << ReceiveBytes << ReceiveBytes;
    QTest::newRow("several of those") << 4 * ReceiveBytes - 1 << ReceiveBytes + 5;
}

void tst_ReceivingSocket::readersThatLeaveSome()
{
    QFETCH(int, most);
    QFETCH(int, chunk);
    QByteArray received;
    Receiver receiver([&](ReceivingSocket &socket) {
        for (int read = 0; read < most && socket.bytesAvailable() > 0;) {
            const QByteArray next = socket.read(std::min(chunk, most - read));
            received += next;
            read += int(next.size());
        }
    });
    receiver.makeSocket();
    const QByteArray all = bytes(1000000);
    const Sender sender(receiver.device, all);
    WAIT_FOR(receiver.ended());

    received += receiver.socket->readAll();
    QCOMPARE(received.size(), all.size());
    QVERIFY(received == all);
}

void tst_ReceivingSocket::whatIsLeftIsReadLater()
{
    Receiver receiver([](ReceivingSocket &) {});
    receiver.makeSocket();
    QVERIFY(receiver.sendUnseen("abc"));
    WAIT_FOR(receiver.announced == 1);
    // Another socket uses the thread's buffer.
    Receiver other;
    other.makeSocket();
    QVERIFY(other.sendUnseen("xyz"));
    WAIT_FOR(other.received == "xyz");

    QCOMPARE(receiver.socket->bytesAvailable(), 3);
    QCOMPARE(receiver.socket->read(1), QByteArray("a"));
    QVERIFY(receiver.sendUnseen("def"));
    WAIT_FOR(receiver.announced == 2);
    QCOMPARE(receiver.socket->bytesAvailable(), 5);
    QCOMPARE(receiver.socket->readAll(), QByteArray("bcdef"));
    QCOMPARE(receiver.socket->bytesAvailable(), 0);
    QCOMPARE(receiver.socket->readAll(), QByteArray());
}

// More than the thread's buffer holds, and then some.
void tst_ReceivingSocket::countsWhatIsLeftOnce()
{
    const QByteArray all = bytes(ReceiveBytes + 100);
    Receiver receiver([&](ReceivingSocket &) {});
    receiver.makeRoom();
    QVERIFY(receiver.sendUnseen(all));
    receiver.makeSocket();
    WAIT_FOR(receiver.announced == 1);
    QCOMPARE(receiver.socket->bytesAvailable(), all.size());
    QCOMPARE(receiver.socket->read(10), all.first(10));
    QVERIFY(receiver.sendUnseen("abc"));
    WAIT_FOR(receiver.announced == 2);

    QCOMPARE(receiver.socket->bytesAvailable(), all.size() - 10 + 3);
    QVERIFY(receiver.socket->readAll() == all.sliced(10) + "abc");
}

void tst_ReceivingSocket::blocks()
{
    const QByteArray all = bytes(ReceiveBytes + 100);
    QByteArray part;
    QByteArray block;
    QByteArray second;
    Receiver receiver([&](ReceivingSocket &socket) {
        part = socket.takeBlock(all.size() - 1);
        block = socket.takeBlock(all.size());
        second = socket.takeBlock(all.size());
    });
    receiver.makeRoom();
    QVERIFY(receiver.sendUnseen(all));
    receiver.makeSocket();
    WAIT_FOR(receiver.announced == 1);
    QVERIFY(part.isNull());
    QVERIFY(block == all);
    QVERIFY(block.isDetached());
    QVERIFY(second.isNull());
    QCOMPARE(receiver.socket->bytesAvailable(), 0);
}

// Few bytes lie in the thread's buffer, and what was begun is no block any more.
void tst_ReceivingSocket::noBlocks()
{
    QList<QByteArray> blocks;
    Receiver receiver([&](ReceivingSocket &socket) {
        blocks += socket.takeBlock(socket.bytesAvailable());
        socket.read(1);
        blocks += socket.takeBlock(socket.bytesAvailable());
    });
    receiver.makeRoom();
    QVERIFY(receiver.sendUnseen("abc"));
    receiver.makeSocket();
    WAIT_FOR(receiver.announced == 1);
    QVERIFY(receiver.sendUnseen(bytes(ReceiveBytes + 1)));
    WAIT_FOR(receiver.announced == 2);
    // What was left and what came are in one block.
    QCOMPARE(blocks.size(), 4);
    QVERIFY(blocks[0].isNull());
    QVERIFY(blocks[1].isNull());
    QVERIFY(blocks[2] == "bc" + bytes(ReceiveBytes + 1));
    QVERIFY(blocks[3].isNull());
}

void tst_ReceivingSocket::whatIsLeftOutlastsTheConnection()
{
    Receiver receiver([](ReceivingSocket &) {});
    receiver.makeSocket();
    receiver.device.send("abc");
    receiver.device.close();
    WAIT_FOR(receiver.ended());

    QCOMPARE(receiver.socket->readAll(), QByteArray("abc"));
    QVERIFY(receiver.socket->isOpen());
    receiver.socket->close();
    QVERIFY(!receiver.socket->isOpen());
    QCOMPARE(receiver.events, EndByPeer);
}

void tst_ReceivingSocket::readsIntoMemory()
{
    QByteArray memory(10, '-');
    Receiver receiver([&](ReceivingSocket &socket) {
        QCOMPARE(socket.read(memory.data() + 1, 2), 2);
        QCOMPARE(socket.read(memory.data() + 3, 7), 4);
        QCOMPARE(socket.read(memory.data() + 7, 3), 0);
    });
    receiver.makeSocket();
    QVERIFY(receiver.sendUnseen("abcdef"));
    WAIT_FOR(receiver.announced == 1);
    QCOMPARE(memory, QByteArray("-abcdef---"));
}

void tst_ReceivingSocket::skips()
{
    Receiver receiver([](ReceivingSocket &) {});
    receiver.makeSocket();
    QVERIFY(receiver.sendUnseen("abcdef"));
    WAIT_FOR(receiver.announced == 1);
    QCOMPARE(receiver.socket->skip(4), 4);
    QCOMPARE(receiver.socket->bytesAvailable(), 2);
    QCOMPARE(receiver.socket->read(1), QByteArray("e"));
    QCOMPARE(receiver.socket->skip(4), 1);
    QCOMPARE(receiver.socket->bytesAvailable(), 0);
}

void tst_ReceivingSocket::peerEnds_data()
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

void tst_ReceivingSocket::peerEnds()
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

void tst_ReceivingSocket::endIsNoticedOnce()
{
    Receiver another;
    Receiver receiver;
    receiver.makeSocket();
    receiver.device.close();
    WAIT_FOR(receiver.ended());
    // The number is another connection's from now on.
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

void tst_ReceivingSocket::endsHere_data()
{
    QTest::addColumn<QByteArray>("how");
    QTest::addColumn<bool>("open"); // to go on reading what has been received
    QTest::newRow("close") << QByteArray("close") << false;
    QTest::newRow("abort") << QByteArray("abort") << false;
    QTest::newRow("disconnect") << QByteArray("disconnect") << true;
}

namespace {

void end(ReceivingSocket &socket, const QByteArray &how)
{
    if (how == "close")
        socket.close();
    else if (how == "abort")
        socket.abort();
    else
        socket.disconnectFromHost();
}

} // namespace

void tst_ReceivingSocket::endsHere()
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

void tst_ReceivingSocket::endsWhileReading_data()
{
    endsHere_data();
}

// The number of a closed descriptor is the next connection's: nothing may be read from there.
void tst_ReceivingSocket::endsWhileReading()
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

void tst_ReceivingSocket::destructorClosesSilently()
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

// Whatever the time given.
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

// What is being read stays as it is, whatever other sockets of the thread receive meanwhile.
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

// The nested call finds what the outer one has not read, and what came behind it.
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

// Instead of readyRead(), and no longer than it is wanted.
void tst_ReceivingSocket::directReader()
{
    Receiver receiver;
    receiver.makeSocket();
    {
        DirectReader reader(*receiver.socket, 1 << 20);
        QVERIFY(receiver.sendUnseen("direct"));
        QTRY_COMPARE(reader.received, QByteArray("direct"));
        QCOMPARE(reader.announced, 1);
        QCOMPARE(receiver.announced, 0);
    }
    QVERIFY(receiver.sendUnseen("signal"));
    QTRY_COMPARE(receiver.received, QByteArray("signal"));

    DirectReader reader(*receiver.socket, 1 << 20);
    receiver.device.close();
    QTRY_VERIFY(receiver.ended());
    QCOMPARE(receiver.events, EndByPeer);
    QCOMPARE(reader.announced, 0);
}

// What it leaves is there the next time, before what comes then.
void tst_ReceivingSocket::directReaderThatLeavesSome()
{
    Receiver receiver;
    receiver.makeSocket();
    DirectReader reader(*receiver.socket, 4);
    QVERIFY(receiver.sendUnseen("abcdef"));
    QTRY_COMPARE(reader.received, QByteArray("abcd"));
    QCOMPARE(receiver.socket->bytesAvailable(), 2);
    QVERIFY(receiver.sendUnseen("gh"));
    QTRY_COMPARE(reader.received, QByteArray("abcdefgh"));
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
    QTRY_COMPARE(reader.received.size(), sent.size());
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
