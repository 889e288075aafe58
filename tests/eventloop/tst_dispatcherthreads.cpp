// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "dispatchercontract.h"
#include "dispatchertest.h"
#include "tests/kit/hangguard.h"

#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <atomic>
#include <vector>

using namespace dispatchertest;

// Objects that move to another thread, Qt's sockets, and the end of a thread.
class tst_DispatcherThreads : public DispatcherContract
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addRows(); }
    void initTestCase() { prepare(); }
    void init() { begin(); }

    void timerMovesToThread();
    void socketMovesToThread();
    void echo();
    void threadEndsWithAllRunning();
};

void tst_DispatcherThreads::timerMovesToThread()
{
    QThread other; // with Qt's own dispatcher
    other.start();
    inThread([&] {
        QThread *const home = QThread::currentThread();
        QTimer timer;
        std::atomic<int> beatsElsewhere{0};
        int beatsAtHome = 0;
        connect(
                &timer, &QTimer::timeout, &timer,
                [&] {
                    if (QThread::currentThread() == home) {
                        ++beatsAtHome;
                    } else if (++beatsElsewhere == 3) {
                        timer.moveToThread(home);
                    }
                },
                Qt::DirectConnection);
        timer.start(1);
        QVERIFY(turnUntil([&] { return beatsAtHome == 3; }));
        timer.moveToThread(&other);
        QVERIFY(dispatcher()->registeredTimers(&timer).isEmpty());
        QVERIFY(turnUntil([&] { return beatsAtHome == 6; }));
        QCOMPARE(beatsElsewhere.load(), 3);
        QCOMPARE(timer.thread(), home);
        QCOMPARE(dispatcher()->registeredTimers(&timer).size(), 1);
        // In the other thread, Qt's code still uses the timer after its slot has returned.
        QMetaObject::invokeMethod(
                QAbstractEventDispatcher::instance(&other), [] {}, Qt::BlockingQueuedConnection);
    });
    other.quit();
    QVERIFY(other.wait(HangGuardMs));
}

void tst_DispatcherThreads::socketMovesToThread()
{
    QThread other; // with Qt's own dispatcher
    other.start();
    inThread([&] {
        QThread *const home = QThread::currentThread();
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        QTcpSocket device;
        device.connectToHost(server.serverAddress(), server.serverPort());
        QVERIFY(turnUntil([&] { return server.hasPendingConnections(); }));
        std::unique_ptr<QTcpSocket> socket(server.nextPendingConnection());
        socket->setParent(nullptr);
        // Qt wakes a thread's dispatcher when an object moves there, but does not wait until the
        // thread has made it.
        QObject inOther;
        inOther.moveToThread(&other);
        QMetaObject::invokeMethod(
                &inOther, [&] { inOther.moveToThread(home); }, Qt::BlockingQueuedConnection);

        // Answers each byte, by turns from this thread and from the other one.
        int moves = 0;
        connect(
                socket.get(), &QTcpSocket::readyRead, socket.get(),
                [&] {
                    ++moves;
                    socket->write(socket->readAll());
                    // Do not move it here: Qt's code still uses the socket after its signal.
                    QMetaObject::invokeMethod(
                            socket.get(),
                            [&] { socket->moveToThread(socket->thread() == home ? &other : home); },
                            Qt::QueuedConnection);
                },
                Qt::DirectConnection);
        constexpr int Messages = 20;
        QByteArray answers;
        for (int i = 1; i <= Messages; ++i) {
            device.write("x");
            QVERIFY(turnUntil([&] {
                answers += device.readAll();
                return answers.size() == i;
            }));
        }
        // The number of moves is even, so the socket comes back. The last move may not be done yet.
        QVERIFY(turnUntil([&] { return socket->thread() == home; }));
        QCOMPARE(moves, Messages);
        settle();
    });
    other.quit();
    QVERIFY(other.wait(HangGuardMs));
}

void tst_DispatcherThreads::echo()
{
    inThread([] {
        constexpr int Connections = 1000;
        constexpr int Rounds = 3;
        QTcpServer server;
        server.setListenBacklogSize(Connections);
        server.setMaxPendingConnections(Connections);
        connect(&server, &QTcpServer::newConnection, &server, [&] {
            while (QTcpSocket *socket = server.nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, socket,
                        [socket] { socket->write(socket->readAll()); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
        QVERIFY(server.listen(QHostAddress::LocalHost));

        QEventLoop loop;
        QTimer::singleShot(HangGuardMs, &loop, [&] { loop.exit(1); });
        int open = Connections;
        std::vector<std::unique_ptr<QTcpSocket>> devices;
        for (int i = 0; i < Connections; ++i) {
            devices.push_back(std::make_unique<QTcpSocket>());
            QTcpSocket *device = devices.back().get();
            const QByteArray message = "message " + QByteArray::number(i) + '\n';
            connect(device, &QTcpSocket::connected, device,
                    [device, message] { device->write(message); });
            connect(device, &QTcpSocket::readyRead, device,
                    [device, message, rounds = 0]() mutable {
                        if (device->bytesAvailable() < message.size())
                            return;
                        QCOMPARE(device->readAll(), message);
                        if (++rounds < Rounds)
                            device->write(message);
                        else
                            device->disconnectFromHost();
                    });
            connect(device, &QTcpSocket::disconnected, device, [&] {
                if (--open == 0)
                    loop.quit();
            });
            device->connectToHost(server.serverAddress(), server.serverPort());
        }
        QCOMPARE(loop.exec(), 0);
        QCOMPARE(open, 0);
        QVERIFY(turnUntil([&] { return server.findChildren<QTcpSocket *>().isEmpty(); }));
    });
}

void tst_DispatcherThreads::threadEndsWithAllRunning()
{
    const SocketPair pair;
    const int before = openDescriptors();
    std::unique_ptr<QSocketNotifier> notifier;
    std::unique_ptr<TimerObject> object;
    inThread([&] {
        notifier = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        object = std::make_unique<TimerObject>();
        object->beat = [](int) {};
        object->startTimer(0);
        object->startTimer(1000);
        pair.send();
        turn();
        pair.send();
    });
    QCOMPARE(openDescriptors(), before);
    notifier.reset(); // the thread's dispatcher is gone by now
    QTest::ignoreMessage(QtWarningMsg, expression("Timers cannot be stopped from another thread"));
    object.reset();
}

QTEST_GUILESS_MAIN(tst_DispatcherThreads)
#include "tst_dispatcherthreads.moc"
