// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpclient2.h"
#include "tcpinput/tcpinputplugin2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/testaddress.h"

#include <QtCore/QJsonObject>
#include <QtCore/QSemaphore>
#include <QtTest/QTest>

#include <memory>
#include <vector>

namespace {

#define WAIT_FOR(condition) QTRY_VERIFY_WITH_TIMEOUT(condition, HangGuardMs)

const QHostAddress DeviceAddress(QStringLiteral("127.61.20.2"));

//! A listening plugin whose records are noted among the log lines.
class Plugin : public TcpInputPlugin2
{
public:
    explicit Plugin(int workers)
        : TcpInputPlugin2(nullptr,
                          {{QStringLiteral("ipAddr"), testAddress().toString()},
                           {QStringLiteral("port"), Port},
                           {QStringLiteral("threadpoolSize"), workers}})
    {
        connect(this, &IInputPlugin::receivedData, this, [this](const shared_parsedData &record) {
            EventLog::note(QStringLiteral("record %1 of port %2")
                                   .arg(QString::fromLatin1(record->getOriginalMessage()))
                                   .arg(record->getPeerPort()));
            ++records;
        });
        // NOLINTNEXTLINE(cppcoreguidelines-prefer-member-initializer): once it is connected
        listening = start();
    }

    // With port 0 the kernel chooses the device's.
    static NativeSocket connectDevice(quint16 devicePort = 0)
    {
        NativeSocket device = NativeSocket::unconnected(testAddress());
        if (!device.bind(DeviceAddress, devicePort) || !device.connect(testAddress(), Port))
            device.close();
        return device;
    }

    bool listening = false;
    int records = 0;

private:
    static inline const quint16 Port = freePort();
};

//! Holds a thread inside the message handler when it writes a line with the given text.
class HeldLine
{
public:
    explicit HeldLine(const QString &wanted)
    {
        text = wanted;
        // NOLINTNEXTLINE(cppcoreguidelines-prefer-member-initializer): once the text is set
        previous = qInstallMessageHandler(&HeldLine::handle);
    }
    ~HeldLine()
    {
        release();
        qInstallMessageHandler(previous);
    }
    Q_DISABLE_COPY_MOVE(HeldLine)

    static void waitUntilHeld() { held.acquire(); }
    static void release() { released.release(); }

private:
    static void handle(QtMsgType, const QMessageLogContext &, const QString &line)
    {
        if (!line.contains(text))
            return;
        held.release();
        released.acquire();
    }

    QtMessageHandler previous = nullptr;

    static inline QString text; // set before the handler is
    static inline QSemaphore held{0};
    static inline QSemaphore released{0};
};

qsizetype count(const QStringList &events, const QString &text)
{
    return events.filter(text).size();
}

} // namespace

// What a host learns of connections that end, and when.
class tst_ConnectionEnds : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lastRecordComesBehindItsLine();
    void deviceComesBackBeforeItsEndIsHandled();
    void destroyedPluginTellsOfNoThread_data();
    void destroyedPluginTellsOfNoThread();
};

// While the worker is held inside the line, there is no record yet.
void tst_ConnectionEnds::lastRecordComesBehindItsLine()
{
    Plugin plugin(1);
    QVERIFY(plugin.listening);
    NativeSocket device = Plugin::connectDevice();
    QVERIFY(device.send("abc"));
    WAIT_FOR(plugin.records == 1);
    HeldLine line(QStringLiteral("closing connection"));

    device.close();
    HeldLine::waitUntilHeld();
    QCoreApplication::sendPostedEvents(&plugin);
    QCOMPARE(plugin.records, 1);
    HeldLine::release();

    WAIT_FOR(plugin.records == 2);
}

// A device resets its connection and comes back from the same port while the worker is busy. The
// end that the worker then finds is the first connection's. It does not touch the second one.
void tst_ConnectionEnds::deviceComesBackBeforeItsEndIsHandled()
{
    const EventLog log;
    Plugin plugin(1);
    NativeSocket device = Plugin::connectDevice();
    const quint16 port = device.localPort();
    QVERIFY(device.send("first"));
    WAIT_FOR(plugin.records == 1);
    TcpTask2 *const task = plugin.getTask();
    const auto clients = [task] {
        qsizetype made = 0;
        QMetaObject::invokeMethod(
                task, [&] { made = task->findChildren<TcpClient2 *>().size(); },
                Qt::BlockingQueuedConnection);
        return made;
    };
    QStringList events = EventLog::take();
    QCOMPARE(count(events, QStringLiteral("new connection, ")), 1);

    for (int times = 0; times < 20; ++times) {
        QSemaphore release;
        QMetaObject::invokeMethod(
                task, [&release] { release.acquire(); }, Qt::QueuedConnection);
        device.reset();
        device = Plugin::connectDevice(port);
        QVERIFY(device.send("again " + QByteArray::number(times)));
        events.clear();
        WAIT_FOR(count(events += EventLog::take(), QStringLiteral("new connection, ")) == 1);
        release.release();

        const QString record = QStringLiteral("record again %1 of port %2").arg(times).arg(port);
        WAIT_FOR(count(events += EventLog::take(), record) == 1);
        WAIT_FOR(count(events += EventLog::take(), QStringLiteral("closing connection")) == 1);
        WAIT_FOR(clients() == 1);
        QCOMPARE(plugin.getStatus().count(QStringLiteral("tcp2:")), 1);
    }
}

void tst_ConnectionEnds::destroyedPluginTellsOfNoThread_data()
{
    QTest::addColumn<bool>("stopped");
    QTest::newRow("while it runs") << false;
    QTest::newRow("right after stop()") << true;
}

void tst_ConnectionEnds::destroyedPluginTellsOfNoThread()
{
    QFETCH(bool, stopped);
    const EventLog log;
    auto plugin = std::make_unique<Plugin>(2);
    std::vector<NativeSocket> devices;
    for (int n = 0; n < 4; ++n) {
        devices.push_back(Plugin::connectDevice());
        QVERIFY(devices.back().send("abc"));
    }
    WAIT_FOR(plugin->records == 4);
    if (stopped)
        plugin->stop();
    plugin.reset();
    QCoreApplication::sendPostedEvents();

    const QStringList events = EventLog::take();
    QCOMPARE(count(events, QStringLiteral("record abc")), 8);
    QCOMPARE(count(events, QStringLiteral("thread finished")), 0);
}

QTEST_GUILESS_MAIN(tst_ConnectionEnds)
#include "tst_connectionends.moc"
