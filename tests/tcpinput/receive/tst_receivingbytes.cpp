// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"
#include "tcpinput/receive/receivingsocket.h"
#include "tests/kit/nativesocket.h"
#include "tests/tcpinput/receive/receiver.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <memory>

using namespace receivertest;

namespace {

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

} // namespace

// The bytes: how they are read, left, skipped.
class tst_ReceivingBytes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
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
};

void tst_ReceivingBytes::everySizeArrives_data()
{
    QTest::addColumn<int>("size");
    for (int size : {1, 2, ReceiveBytes - 1, ReceiveBytes, ReceiveBytes + 1, 5000000})
        QTest::addRow("%d", size) << size;
}

void tst_ReceivingBytes::everySizeArrives()
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

void tst_ReceivingBytes::readsWhatWaitsInTheKernel_data()
{
    QTest::addColumn<int>("size");
    QTest::addRow("more than the thread's buffer") << ReceiveBytes + 1;
    QTest::addRow("a large message") << 1000000;
}

// All bytes are read in one go, however many there are.
void tst_ReceivingBytes::readsWhatWaitsInTheKernel()
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

void tst_ReceivingBytes::readersThatLeaveSome_data()
{
    QTest::addColumn<int>("most");
    QTest::addColumn<int>("chunk");
    // How many bytes are read for each announcement, and in chunks of which size.
    QTest::newRow("a byte") << 1 << 1;
    QTest::newRow("a few") << 1000 << 7;
    QTest::newRow("the thread's buffer") << ReceiveBytes << ReceiveBytes;
    QTest::newRow("several of those") << 4 * ReceiveBytes - 1 << ReceiveBytes + 5;
}

void tst_ReceivingBytes::readersThatLeaveSome()
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

void tst_ReceivingBytes::whatIsLeftIsReadLater()
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

// What is left is more than the thread's buffer holds.
void tst_ReceivingBytes::countsWhatIsLeftOnce()
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

void tst_ReceivingBytes::blocks()
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

// Few bytes stay in the thread's buffer, which is no block. A block of which bytes were read is no
// block any more.
void tst_ReceivingBytes::noBlocks()
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

void tst_ReceivingBytes::whatIsLeftOutlastsTheConnection()
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

void tst_ReceivingBytes::readsIntoMemory()
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

void tst_ReceivingBytes::skips()
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

int main(int argc, char *argv[])
{
    QCoreApplication::setEventDispatcher(EpollEventDispatcher::create().release());
    QCoreApplication application(argc, argv);
    tst_ReceivingBytes test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_receivingbytes.moc"
