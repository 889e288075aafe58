// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpinputplugin2.h"
#include "tcpinput/tcptask2.h"
#include "tcpinput/workers/threadid.h"
#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/nofreedescriptors.h"
#include "tests/kit/play.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tlsdevice.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QRegularExpression>
#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtNetwork/QSslConfiguration>
#include <QtNetwork/QSslKey>
#include <QtNetwork/QSslSocket>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <atomic>
#include <limits>
#include <memory>
#include <optional>
#include <sys/resource.h>
#include <thread>
#include <vector>

using namespace Qt::StringLiterals;

using SubIds = QMap<QString, QString>;

namespace {

const QString ThreadLine = u"D: TcpInputPlugin2(p): Creating new TCP Thread"_s;
const QString NoThreadLine = u"W: TcpInputPlugin2(p): Not creating task, no thread found"_s;
const QString TaskLine = u"I: TcpInputPlugin2(p): Creating new TcpTask2"_s;
const QString StopLine = u"D: TcpInputPlugin2(p): stop()"_s;
const QString FinishedLine = u"D:   -- TI2: thread finished"_s;
const QString NoSocketLine = u"W: TcpTask2: Creating receiving socket failed"_s;

QString newConnectionLine()
{
    return u"D: TcpInputPlugin2(p): new connection, %1"_s.arg(currentThreadNumber());
}

QString reportLine(int threads, int tasks)
{
    return u"D: TcpInputPlugin2 p: #threads = %1, #tasks = %2"_s.arg(threads).arg(tasks);
}

//! What a host gets from its plugin, and what it answers.
struct Host
{
    QList<shared_parsedData> records;
    QStringList queries;
    QStringList answer;
};

//! A plugin with the id "p" on a port of its own. The host outlives it: its destructor delivers.
class Plugin : public Host, public TcpInputPlugin2
{
public:
    explicit Plugin(const QJsonObject &settings = {}, const QHostAddress &at = testAddress())
        : TcpInputPlugin2(nullptr),
          address(at),
          port(freePort(at))
    {
        pluginId = u"p"_s;
        configure(settings);
        connect(this, &IInputPlugin::receivedData, this,
                [this](const shared_parsedData &record) { records.append(record); });
        connect(this, &IInputPlugin::query, this, [this](const QString &q) {
            queries.append(q);
            return answer;
        });
    }

    void configure(QJsonObject settings)
    {
        settings.insert(u"ipAddr"_s, address.toString());
        settings.insert(u"port"_s, port);
        setConfig(settings);
    }

    NativeSocket connectDevice() const { return NativeSocket::connectedTo(address, port); }

    // The record that offers exactly these bytes; null if none has come in time.
    shared_parsedData recordOf(const QByteArray &bytes)
    {
        shared_parsedData found;
        (void)QTest::qWaitFor(
                [&] {
                    for (const shared_parsedData &record : std::as_const(records)) {
                        if (record->getOriginalMessage() == bytes)
                            found = record;
                    }
                    return !found.isNull();
                },
                HangGuardMs);
        return found;
    }

    // Where the record with these bytes comes from; empty if none has come.
    QString taskOf(const QByteArray &bytes)
    {
        const auto record = recordOf(bytes);
        return record ? record->getPluginSubId().value(u"task"_s) : QString();
    }

    QStringList threadNames()
    {
        QStringList names;
        for (const QThread *thread : workers().allThreads())
            names.append(thread->objectName());
        return names;
    }

    const QHostAddress address;
    const quint16 port;
};

// All calls that were queued to the task before have run when this returns.
void passQueueOf(TcpTask2 *task)
{
    QMetaObject::invokeMethod(
            task, [] {}, Qt::BlockingQueuedConnection);
}

long threadNumberOf(TcpTask2 *task)
{
    long number = 0;
    QMetaObject::invokeMethod(
            task, [&number] { number = currentThreadNumber(); }, Qt::BlockingQueuedConnection);
    return number;
}

//! Keeps a task's thread busy while it lives.
class Busy
{
public:
    explicit Busy(TcpTask2 *task)
    {
        const auto entered = std::make_shared<QSemaphore>();
        QMetaObject::invokeMethod(
                task,
                [entered, end = end] {
                    entered->release();
                    end->acquire();
                },
                Qt::QueuedConnection);
        entered->acquire();
    }
    ~Busy() { end->release(); }
    Q_DISABLE_COPY_MOVE(Busy)

private:
    const std::shared_ptr<QSemaphore> end = std::make_shared<QSemaphore>();
};

// The device's part of a connection over TLS, while this thread, the plugin's, serves. False if the
// handshake fails. With TLS 1.3 it succeeds, too, for a device whose certificate is then refused.
bool sendOverTls(TlsDevice &device, const Plugin &plugin, const QByteArray &bytes)
{
    bool sent = false;
    const bool played = play([&] {
        if (!device.connect(plugin.address, plugin.port) || !device.handshake())
            return;
        device.write(bytes);
        sent = device.flush();
    });
    return played && sent;
}

QJsonObject poolOf(int size)
{
    return {{u"threadpoolSize"_s, size}};
}

QJsonObject withTls(QJsonObject object, const QJsonObject &tls = serverTls())
{
    object.insert(u"ssl"_s, tls);
    return object;
}

// A server that wants certificates of the good authority from its clients.
QJsonObject verifyingTls(bool debug)
{
    QJsonObject tls = serverTls();
    tls.insert(u"verifyPeer"_s, true);
    tls.insert(u"CAFile"_s, certificateFile(u"ca.pem"_s));
    tls.insert(u"tlsDebug"_s, debug);
    return tls;
}

// What RLIMIT_AS counts.
rlim_t addressSpace()
{
    QFile file(u"/proc/self/statm"_s);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').first().toULongLong()
            * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE));
}

//! Leaves the process no memory for more than the given number of bytes while it lives.
class LittleMemory
{
public:
    explicit LittleMemory(rlim_t bytes)
    {
        ::getrlimit(RLIMIT_AS, &before);
        rlimit lowered = before;
        lowered.rlim_cur = addressSpace() + bytes;
        ::setrlimit(RLIMIT_AS, &lowered);
    }
    ~LittleMemory() { ::setrlimit(RLIMIT_AS, &before); }
    Q_DISABLE_COPY_MOVE(LittleMemory)

private:
    rlimit before{};
};

} // namespace

class tst_TcpInputPlugin2 : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void threadForNumber();
    void threadOfTaskIndex();
    void taskIsMadeWithItsThread();
    void taskTakesThreadThatIsThere();
    void noThreadWithoutMemory();

    void connectionLines();
    void spuriousSignal();
    void strictRotation();
    void rotationOverSmallPool_data();
    void rotationOverSmallPool();
    void rotationOfBurst();
    void poolShrinksBetweenStarts();
    void ipv6();
    void timeoutReachesClients();

    void reportDependsOnLogLevel_data();
    void reportDependsOnLogLevel();
    void noReportWithoutHost();
    void reportBeforeAnyConnection();
    void reportReachesEveryTask();
    void statusTimer();
    void statusTimerAfterFailedStart();

    void stopBeforeStart();
    void stopForgetsAtOnce();
    void stopDoesNotWait();
    void stopSignalReachesTasksAndThreads();
    void stopClosesConnections();
    void stopDeliversWhatIsLeft();
    void startAfterStop();
    void secondStartHandsOverTwice();

    void statusWithoutTasks();
    void statusListsClients();
    void slotReceivedDataStampsTheId();
    void onQueryReturnsTheAnswer();
    void drop_data();
    void drop();

    void discardIsRouted_data();
    void discardIsRouted();
    void discardWithoutTask();
    void discardCuts();
    void discardFromOtherThreads();

    void tlsErrorLines();
    void tlsSignalsAreConnected_data();
    void tlsSignalsAreConnected();
    void refusedClient_data();
    void refusedClient();
    void tlsConnectionLines();

    // Last: UndefinedBehaviorSanitizer needs descriptors to look at a class for the first time.
    void noThreadWithoutDescriptors();
    void pendingUntilThreadCanBeHad();
    void stoppedWhileNoThreadCanBeHad();
    void pausedWithoutDescriptors_data();
    void pausedWithoutDescriptors();

private:
    std::optional<MessageCapture> capture;
};

void tst_TcpInputPlugin2::init()
{
    capture.emplace();
}

// Whatever a test has not looked at: no line of Qt's, and no warning, comes unexpectedly.
void tst_TcpInputPlugin2::cleanup()
{
    const QStringList rest = takeLog();
    capture.reset();
    const QStringList unexpected = rest.filter(QRegularExpression(u"^[^DI]"_s));
    QVERIFY2(unexpected.isEmpty(), qPrintable(unexpected.join(u'\n')));
}

void tst_TcpInputPlugin2::threadForNumber()
{
    Plugin plugin;
    QThread *first = plugin.getThread(0);
    QCOMPARE(takeLog(), QStringList{ThreadLine});
    QCOMPARE(first->objectName(), u"InpTcp2_1/4"_s);
    QCOMPARE(plugin.getThread(0), first);
    QCOMPARE(plugin.getThread(-3), first);
    QCOMPARE(plugin.getThread(-1), first);
    QCOMPARE(plugin.getThread(std::numeric_limits<int>::min()), first);
    QCOMPARE(takeLog(), QStringList());

    QThread *third = plugin.getThread(2);
    QCOMPARE(takeLog(), QStringList{ThreadLine});
    QVERIFY(third != first);
    QCOMPARE(third->objectName(), u"InpTcp2_3/4"_s);
    QCOMPARE(plugin.getThread(2), third);
    QThread *second = plugin.getThread(1);
    QCOMPARE(second->objectName(), u"InpTcp2_2/4"_s);
    // The pool's size is no limit here.
    QCOMPARE(plugin.getThread(6)->objectName(), u"InpTcp2_7/4"_s);

    for (const QThread *thread : {first, second, third}) {
        QVERIFY(!thread->isRunning());
        QCOMPARE(thread->parent(), nullptr);
        QCOMPARE(thread->thread(), QThread::currentThread());
    }
    QCOMPARE(plugin.workers().allThreads().keys(), QList<int>({0, 1, 2, 6}));
    QVERIFY(plugin.workers().allTasks().isEmpty());
}

void tst_TcpInputPlugin2::threadOfTaskIndex()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket device = plugin.connectDevice();
    QTRY_COMPARE(plugin.workers().turn(), 1);
    passQueueOf(plugin.workers().allTasks().first()); // the worker has said what it has to say
    takeLog();
    QThread *next = plugin.getThread(0);
    QCOMPARE(takeLog(), QStringList{ThreadLine});
    QCOMPARE(next->objectName(), u"InpTcp2_2/4"_s);
    QCOMPARE(plugin.getThread(-1), next);
    QCOMPARE(plugin.getThread(1), next);
}

void tst_TcpInputPlugin2::taskIsMadeWithItsThread()
{
    Plugin plugin;
    TcpTask2 *task = plugin.getTask();
    QCOMPARE(takeLog(), QStringList({ThreadLine, TaskLine}));
    QVERIFY(task);
    QCOMPARE(task->parent(), nullptr);
    QCOMPARE(task->thread(), plugin.getThread(0));
    QVERIFY(task->thread()->isRunning());
    QCOMPARE(task->thread()->objectName(), u"InpTcp2_1/4"_s);
    QVERIFY(threadNumberOf(task) != currentThreadNumber());

    QCOMPARE(plugin.getTask(), task);
    QCOMPARE(takeLog(), QStringList());
    QCOMPARE(plugin.workers().allTasks().keys(), QList<int>{0});
    QCOMPARE(plugin.workers().allThreads().keys(), QList<int>{0});
    QCOMPARE(plugin.workers().turn(), 0);
}

void tst_TcpInputPlugin2::taskTakesThreadThatIsThere()
{
    Plugin plugin;
    QThread *thread = plugin.getThread(0);
    takeLog();
    QCOMPARE(plugin.getTask()->thread(), thread);
    QCOMPARE(takeLog(), QStringList{TaskLine});
    QVERIFY(thread->isRunning());
}

// The system has refused another thread.
void tst_TcpInputPlugin2::noThreadWithoutMemory()
{
    Plugin plugin;
    constexpr rlim_t Gigabyte = 1U << 30U;
    plugin.getThread(0)->setStackSize(3U << 30U);
    takeLog();
    {
        const LittleMemory memory(Gigabyte);
        QCOMPARE(plugin.getTask(), nullptr);
    }
    const QStringList lines = takeLog();
    QCOMPARE(lines.size(), 2);
    QVERIFY2(lines[0].contains(u"QThread::start: "_s), qPrintable(lines[0])); // Qt's own
    QCOMPARE(lines[1], NoThreadLine);
    QVERIFY(plugin.workers().allTasks().isEmpty());
    QVERIFY(plugin.workers().allThreads().isEmpty());

    QVERIFY(plugin.getTask());
    QCOMPARE(takeLog(), QStringList({ThreadLine, TaskLine}));
}

void tst_TcpInputPlugin2::connectionLines()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    takeLog();
    const NativeSocket device = plugin.connectDevice();
    QTRY_COMPARE(plugin.workers().turn(), 1);

    TcpTask2 *task = plugin.workers().allTasks().first();
    const long worker = threadNumberOf(task);
    const QString local = u"%1:%2"_s.arg(plugin.address.toString()).arg(plugin.port);
    const QString id = u"tcp2:%1-127.0.0.1:%2"_s.arg(local).arg(device.localPort());
    QCOMPARE(takeLog(),
             QStringList({ThreadLine, TaskLine, newConnectionLine(),
                          u"D: TcpTask2: Handling TCP connection, %1"_s.arg(worker),
                          u"D: TcpTask2: new connection "_s + id,
                          u"D: TcpClient: id = '%1', local = '%2'"_s.arg(id, local),
                          u"D: TcpTask2 (0): new client added, size = 1"_s}));
}

void tst_TcpInputPlugin2::spuriousSignal()
{
    Plugin plugin;
    plugin.handleConnection();
    QVERIFY(plugin.start());
    takeLog();
    plugin.handleConnection();
    QCOMPARE(takeLog(), QStringList());
    QCOMPARE(plugin.workers().turn(), 0);
    QVERIFY(plugin.workers().allTasks().isEmpty());
}

void tst_TcpInputPlugin2::strictRotation()
{
    Plugin plugin;
    const QSignalSpy announced(&plugin, &TcpInputPlugin2::newConnection);
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    const QStringList expected{u"0"_s, u"1"_s, u"2"_s, u"3"_s, u"0"_s, u"1"_s};
    for (int n = 0; n < expected.size(); ++n) {
        const QByteArray name = "device " + QByteArray::number(n);
        devices.push_back(plugin.connectDevice());
        QVERIFY(devices.back().send(name));
        QCOMPARE(plugin.taskOf(name), expected[n]);
    }
    QCOMPARE(plugin.threadNames(),
             QStringList({u"InpTcp2_1/4"_s, u"InpTcp2_2/4"_s, u"InpTcp2_3/4"_s, u"InpTcp2_4/4"_s}));
    QCOMPARE(plugin.workers().turn(), 2);
    QCOMPARE(announced.count(), 0); // declared, never emitted
}

void tst_TcpInputPlugin2::rotationOverSmallPool_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QStringList>("threads");
    QTest::addColumn<QStringList>("tasks");

    QTest::newRow("1") << 1 << QStringList{u"InpTcp2_1/1"_s} << QStringList{u"0"_s, u"0"_s, u"0"_s};
    QTest::newRow("2") << 2 << QStringList{u"InpTcp2_1/2"_s, u"InpTcp2_2/2"_s}
                       << QStringList{u"0"_s, u"1"_s, u"0"_s};
}

void tst_TcpInputPlugin2::rotationOverSmallPool()
{
    QFETCH(int, size);
    QFETCH(QStringList, threads);
    QFETCH(QStringList, tasks);

    Plugin plugin(poolOf(size));
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    for (int n = 0; n < tasks.size(); ++n) {
        const QByteArray name = "device " + QByteArray::number(n);
        devices.push_back(plugin.connectDevice());
        QVERIFY(devices.back().send(name));
        QCOMPARE(plugin.taskOf(name), tasks[n]);
    }
    QCOMPARE(plugin.threadNames(), threads);
}

// All that wait are dealt out in one go, and the threads come for them in any order: still each
// connection goes to the task whose turn it was.
void tst_TcpInputPlugin2::rotationOfBurst()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    for (int n = 0; n < 200; ++n) {
        devices.push_back(plugin.connectDevice());
        QVERIFY(devices.back().send("device " + QByteArray::number(n)));
    }
    for (int n = 0; n < 200; ++n)
        QCOMPARE(plugin.taskOf("device " + QByteArray::number(n)), QString::number(n % 4));
    QCOMPARE(plugin.workers().turn(), 0);
}

// The second start is one with TLS: a second one of the same kind would hand over twice.
void tst_TcpInputPlugin2::poolShrinksBetweenStarts()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    for (int n = 0; n < 3; ++n)
        devices.push_back(plugin.connectDevice());
    QTRY_COMPARE(plugin.getStatus().count(u"tcp2:"_s), 3);
    QVERIFY(plugin.stop());

    plugin.configure(withTls(poolOf(2)));
    QVERIFY(plugin.start());
    QCOMPARE(plugin.workers().turn(), 3);
    const QStringList expected{u"3"_s, u"0"_s, u"1"_s, u"0"_s};
    std::vector<TlsDevice> tlsDevices;
    for (int n = 0; n < expected.size(); ++n) {
        const QByteArray name = "device " + QByteArray::number(n);
        tlsDevices.emplace_back(TLS1_3_VERSION);
        QVERIFY(sendOverTls(tlsDevices.back(), plugin, name));
        QCOMPARE(plugin.taskOf(name), expected[n]);
    }
    QCOMPARE(plugin.threadNames(),
             QStringList({u"InpTcp2_1/2"_s, u"InpTcp2_2/2"_s, u"InpTcp2_4/2"_s}));
}

void tst_TcpInputPlugin2::ipv6()
{
    const QHostAddress loopback(QHostAddress::LocalHostIPv6);
    if (freePort(loopback) == 0)
        QSKIP("This system has no IPv6 loopback address");
    Plugin plugin({}, loopback);
    QVERIFY(plugin.start());
    QCOMPARE(plugin.getStatus(),
             u"Listen: ::1:%1, timeout: 60s, pool size: 4\r\n"_s.arg(plugin.port));
    const NativeSocket device = plugin.connectDevice();
    QVERIFY(device.send("six"));
    const auto record = plugin.recordOf("six");
    QVERIFY(record);
    const QString id = u"tcp2:::1:%1-::1:%2"_s.arg(plugin.port).arg(device.localPort());
    QCOMPARE(record->getPeerAddress(), u"::1"_s);
    QCOMPARE(record->getPeerPort(), device.localPort());
    QCOMPARE(record->getSource(), u"TCP:"_s + id);
    QCOMPARE(record->getPluginSubId(), SubIds({{u"client"_s, id}, {u"task"_s, u"0"_s}}));
    QCOMPARE(record->getPluginId(), u"p"_s);
}

// In seconds. A coarse timer may be early by 5 %.
void tst_TcpInputPlugin2::timeoutReachesClients()
{
    Plugin plugin({{u"timeout"_s, 1}});
    QVERIFY(plugin.start());
    QElapsedTimer time;
    time.start();
    const NativeSocket device = plugin.connectDevice();
    QTRY_COMPARE(plugin.workers().turn(), 1);
    QVERIFY(device.ends());
    QVERIFY2(time.elapsed() >= 950, qPrintable(QString::number(time.elapsed())));
}

void tst_TcpInputPlugin2::reportDependsOnLogLevel_data()
{
    QTest::addColumn<QStringList>("answer");
    QTest::addColumn<bool>("reports");

    QTest::newRow("debug") << QStringList{u"debug"_s} << true;
    QTest::newRow("verbose-debug") << QStringList{u"verbose-debug"_s} << true;
    QTest::newRow("debugging") << QStringList{u"debugging"_s} << true;
    QTest::newRow("debug, then info") << QStringList{u"debug"_s, u"info"_s} << true;
    QTest::newRow("info") << QStringList{u"info"_s} << false;
    QTest::newRow("info, then debug") << QStringList{u"info"_s, u"debug"_s} << false;
    QTest::newRow("Debug") << QStringList{u"Debug"_s} << false;
    QTest::newRow("DEBUG") << QStringList{u"DEBUG"_s} << false;
    QTest::newRow("empty text") << QStringList{QString()} << false;
    QTest::newRow("empty list") << QStringList() << false;
}

void tst_TcpInputPlugin2::reportDependsOnLogLevel()
{
    QFETCH(QStringList, answer);
    QFETCH(bool, reports);

    Plugin plugin;
    plugin.answer = answer;
    TcpTask2 *task = plugin.getTask();
    const QSignalSpy sizes(&plugin, &TcpInputPlugin2::logSize);
    takeLog();
    plugin.showThreads();
    passQueueOf(task);

    QCOMPARE(plugin.queries, QStringList{u"loglevel"_s});
    QStringList expected;
    if (reports)
        expected = QStringList(
                {reportLine(1, 1),
                 u"D:   TcpTask2: id = p, #clients = 0, id = %1"_s.arg(threadNumberOf(task))});
    QCOMPARE(takeLog(), expected);
    QCOMPARE(sizes.count(), reports ? 1 : 0);
    if (reports)
        QCOMPARE(sizes.first(), QVariantList{u"p"_s});
}

void tst_TcpInputPlugin2::noReportWithoutHost()
{
    TcpInputPlugin2 plugin(nullptr);
    plugin.showThreads();
    QCOMPARE(takeLog(), QStringList());
}

void tst_TcpInputPlugin2::reportBeforeAnyConnection()
{
    Plugin plugin;
    plugin.answer = QStringList{u"debug"_s};
    plugin.showThreads();
    QCOMPARE(takeLog(), QStringList{reportLine(0, 0)});
    QVERIFY(plugin.start());
    takeLog();
    plugin.showThreads();
    QCOMPARE(takeLog(), QStringList{reportLine(0, 0)});

    // Threads and tasks are counted apart.
    QVERIFY(plugin.getThread(2));
    takeLog();
    plugin.showThreads();
    QCOMPARE(takeLog(), QStringList{reportLine(1, 0)});
}

void tst_TcpInputPlugin2::reportReachesEveryTask()
{
    Plugin plugin(poolOf(2));
    plugin.answer = QStringList{u"debug"_s};
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    for (int n = 0; n < 3; ++n)
        devices.push_back(plugin.connectDevice());
    QTRY_COMPARE(plugin.getStatus().count(u"tcp2:"_s), 3);

    TcpTask2 *first = plugin.workers().allTasks().value(0);
    TcpTask2 *second = plugin.workers().allTasks().value(1);
    takeLog();
    plugin.showThreads();
    passQueueOf(first);
    passQueueOf(second);
    QStringList lines = takeLog();
    QCOMPARE(lines.takeFirst(), reportLine(2, 2));
    const QString format = u"D:   TcpTask2: id = p, #clients = %1, id = %2"_s;
    QStringList expected{format.arg(2).arg(threadNumberOf(first)),
                         format.arg(1).arg(threadNumberOf(second))};
    lines.sort(); // the tasks write side by side
    expected.sort();
    QCOMPARE(lines, expected);
}

void tst_TcpInputPlugin2::statusTimer()
{
    Plugin plugin;
    const QTimer &timer = plugin.reportTimer();
    QVERIFY(!timer.isActive());
    QCOMPARE(timer.parent(), nullptr);

    QVERIFY(plugin.start());
    QVERIFY(timer.isActive());
    QCOMPARE(timer.interval(), 10000);
    QVERIFY(!timer.isSingleShot());

    const auto tick = [&plugin] {
        plugin.queries.clear();
        QMetaObject::invokeMethod(const_cast<QTimer *>(&plugin.reportTimer()), "timeout");
        return plugin.queries;
    };
    QCOMPARE(tick(), QStringList{u"loglevel"_s});

    // It goes on after stop(), and each further start() makes it ask once more.
    QVERIFY(plugin.stop());
    QVERIFY(timer.isActive());
    QCOMPARE(tick(), QStringList{u"loglevel"_s});
    QVERIFY(plugin.start());
    QCOMPARE(timer.interval(), 10000);
    QCOMPARE(tick(), QStringList({u"loglevel"_s, u"loglevel"_s}));
}

void tst_TcpInputPlugin2::statusTimerAfterFailedStart()
{
    Plugin plugin(withTls({}, {{u"CAFile"_s, u"/nowhere"_s}}));
    QVERIFY(!plugin.start());
    QVERIFY(!plugin.reportTimer().isActive());
    takeLog();
}

void tst_TcpInputPlugin2::stopBeforeStart()
{
    Plugin plugin;
    const QSignalSpy stopped(&plugin, &TcpInputPlugin2::stopSignal);
    QVERIFY(plugin.stop());
    QVERIFY(plugin.stop());
    QCOMPARE(takeLog(), QStringList({StopLine, StopLine}));
    QCOMPARE(stopped.count(), 2);
}

void tst_TcpInputPlugin2::stopForgetsAtOnce()
{
    Plugin plugin(poolOf(2));
    plugin.answer = QStringList{u"debug"_s};
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    for (int n = 0; n < 2; ++n)
        devices.push_back(plugin.connectDevice());
    QTRY_COMPARE(plugin.getStatus().count(u"tcp2:"_s), 2);
    const QList<QPointer<TcpTask2>> tasks{plugin.workers().allTasks().value(0),
                                          plugin.workers().allTasks().value(1)};
    const QList<QPointer<QThread>> threads{tasks[0]->thread(), tasks[1]->thread()};

    takeLog();
    QElapsedTimer time;
    time.start();
    QVERIFY(plugin.stop());
    QVERIFY(time.elapsed() >= 10);
    QCOMPARE(takeLog().first(), StopLine);

    QVERIFY(plugin.workers().allTasks().isEmpty());
    QVERIFY(plugin.workers().allThreads().isEmpty());
    QCOMPARE(plugin.getStatus(), u"Listen: :0, timeout: 60s, pool size: 2\r\n"_s);
    plugin.showThreads();
    plugin.discard(1, {{u"task"_s, u"0"_s}});
    const QStringList lines = takeLog();
    QVERIFY(lines.contains(reportLine(0, 0)));
    QVERIFY(lines.contains(u"D: TcpInput2(p): discarding for non-existing task 0"_s));

    // A second stop() while the workers wind down.
    QVERIFY(plugin.stop());
    QStringList later;
    QTRY_COMPARE((later += takeLog()).count(FinishedLine), 2);
    QTRY_VERIFY(!threads[0] && !threads[1]);
    QVERIFY(!tasks[0] && !tasks[1]);
    QCOMPARE((later += takeLog()).count(FinishedLine), 2);
}

void tst_TcpInputPlugin2::stopDoesNotWait()
{
    Plugin plugin;
    TcpTask2 *task = plugin.getTask();
    const QPointer<QThread> thread = task->thread();
    {
        const Busy busy(task);
        QVERIFY(plugin.stop()); // would hang if it waited
        QVERIFY(thread->isRunning());
        QVERIFY(plugin.workers().allTasks().isEmpty());
    }
    QTRY_VERIFY(!thread);
}

void tst_TcpInputPlugin2::stopSignalReachesTasksAndThreads()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket device = plugin.connectDevice();
    QTRY_COMPARE(plugin.getStatus().count(u"tcp2:"_s), 1);
    const QThread *thread = plugin.workers().allTasks().first()->thread();

    Q_EMIT plugin.stopSignal();
    QVERIFY(device.ends()); // the task has stopped, without a turn of this thread's event loop
    QVERIFY(thread->isRunning());
    QTRY_VERIFY(thread->isFinished());
    QCOMPARE(plugin.workers().allThreads().size(), 1); // a finished thread stays
    qsizetype finished = 0;
    QTRY_VERIFY((finished += takeLog().count(FinishedLine)) == 1);

    // Nobody but the plugin emits the signal, and stop() has the task deleted before the thread
    // ends. Here somebody else did: the thread has to run once more to carry the deletion out.
    plugin.workers().allThreads().first()->start();
}

void tst_TcpInputPlugin2::stopClosesConnections()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket device = plugin.connectDevice();
    QTRY_COMPARE(plugin.getStatus().count(u"tcp2:"_s), 1);
    QVERIFY(plugin.stop());
    QVERIFY(device.ends());
    QVERIFY(!plugin.connectDevice().isValid());
}

void tst_TcpInputPlugin2::stopDeliversWhatIsLeft()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket device = plugin.connectDevice();
    QVERIFY(device.send("left"));
    QVERIFY(plugin.recordOf("left"));
    plugin.records.clear();
    QVERIFY(plugin.stop());
    const auto record = plugin.recordOf("left");
    QVERIFY(record);
    QCOMPARE(record->getPluginId(), u"p"_s);
}

// The rotation goes on where it was.
void tst_TcpInputPlugin2::startAfterStop()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    NativeSocket device = plugin.connectDevice();
    QTRY_COMPARE(plugin.workers().turn(), 1);
    QVERIFY(plugin.stop());
    QCOMPARE(plugin.workers().turn(), 1);

    QVERIFY(plugin.start());
    QVERIFY(plugin.findChild<TcpServer *>()->isListening());
    device = plugin.connectDevice();
    QVERIFY(device.send("again"));
    QVERIFY(plugin.recordOf("again"));
    QVERIFY(plugin.workers().allTasks().contains(1));
    QVERIFY(!plugin.workers().allTasks().contains(0));
    takeLog(); // a second hand-over may have found nothing to take
}

void tst_TcpInputPlugin2::secondStartHandsOverTwice()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    QVERIFY(plugin.start());
    TcpTask2 *first = plugin.getTask();
    takeLog();

    // While the first task cannot take the connection, the second call finds it pending still. The
    // task that this one hands over to finds nothing to take: the connection is the first task's.
    NativeSocket device;
    {
        const Busy busy(first);
        device = plugin.connectDevice();
        QVERIFY(device.send("twice"));
        QTRY_COMPARE(plugin.workers().turn(), 2);
        TcpTask2 *second = plugin.workers().allTasks().value(1);
        passQueueOf(second);
        const QStringList lines = takeLog();
        QCOMPARE(lines.count(newConnectionLine()), 2);
        QCOMPARE(lines.mid(lines.size() - 2),
                 QStringList(
                         {u"D: TcpTask2: Handling TCP connection, %1"_s.arg(threadNumberOf(second)),
                          NoSocketLine}));
    }
    QCOMPARE(plugin.taskOf("twice"), u"0"_s);
    QCOMPARE(plugin.getStatus().count(u"tcp2:"_s), 1);
    QVERIFY(takeLog().filter(NoSocketLine).isEmpty());

    // And it keeps working.
    const NativeSocket another = plugin.connectDevice();
    QVERIFY(another.send("another"));
    QVERIFY(plugin.recordOf("another"));
    takeLog();
}

void tst_TcpInputPlugin2::statusWithoutTasks()
{
    Plugin plugin({{u"timeout"_s, 90}});
    QCOMPARE(plugin.getStatus(), u"Listen: :0, timeout: 60s, pool size: 4\r\n"_s);
    QVERIFY(plugin.start());
    takeLog();
    QCOMPARE(plugin.getStatus(),
             u"Listen: %1:%2, timeout: 90s, pool size: 4\r\n"_s.arg(plugin.address.toString())
                     .arg(plugin.port));
    QCOMPARE(takeLog(), QStringList());
    QCOMPARE(plugin.queries, QStringList());
}

void tst_TcpInputPlugin2::statusListsClients()
{
    Plugin plugin(poolOf(2));
    plugin.answer = QStringList{u"a name"_s}; // comes too late to be in the text
    QVERIFY(plugin.start());
    const QString first =
            u"Listen: %1:%2, timeout: 60s, pool size: 2\r\n"_s.arg(plugin.address.toString())
                    .arg(plugin.port);
    std::vector<NativeSocket> devices;
    QStringList ids[2]; // by task
    for (int n = 0; n < 4; ++n) {
        devices.push_back(plugin.connectDevice());
        QTRY_COMPARE(plugin.getStatus().count(u"tcp2:"_s), n + 1);
        ids[n % 2].append(u"tcp2:%1:%2-127.0.0.1:%3"_s.arg(plugin.address.toString())
                                  .arg(plugin.port)
                                  .arg(devices.back().localPort()));
    }
    QCoreApplication::processEvents();
    plugin.queries.clear();

    QString expected = first;
    QStringList queries;
    for (QStringList &ofTask : ids) { // ascending by task, then by id
        ofTask.sort();
        for (const QString &id : std::as_const(ofTask)) {
            expected += u"   "_s + id + u"\r\n      (empty 0)\r\n"_s;
            queries.append(u"lookup TCP:"_s + id);
        }
    }
    takeLog();
    QCOMPARE(plugin.getStatus(), expected);
    QCOMPARE(plugin.queries, QStringList()); // not yet
    QTRY_COMPARE(plugin.queries.size(), queries.size());
    QCOMPARE(plugin.queries, queries);
    QCOMPARE(takeLog(), QStringList());
}

void tst_TcpInputPlugin2::slotReceivedDataStampsTheId()
{
    Plugin plugin;
    const shared_parsedData record(new ParsedData);
    plugin.slotReceivedData(record);
    QCOMPARE(plugin.records, QList{record}); // the same object
    QCOMPARE(record->getPluginId(), u"p"_s);

    plugin.pluginId = u"q"_s;
    plugin.slotReceivedData(record);
    QCOMPARE(record->getPluginId(), u"q"_s);
    QCOMPARE(plugin.records.size(), 2);
}

void tst_TcpInputPlugin2::onQueryReturnsTheAnswer()
{
    Plugin plugin;
    plugin.answer = QStringList{u"one"_s, u"two"_s};
    QCOMPARE(plugin.onQuery(u"anything"_s), plugin.answer);
    QCOMPARE(plugin.queries, QStringList{u"anything"_s});

    TcpInputPlugin2 withoutHost(nullptr);
    QCOMPARE(withoutHost.onQuery(u"anything"_s), QStringList());
}

void tst_TcpInputPlugin2::drop_data()
{
    QTest::addColumn<int>("bytes");

    QTest::newRow("0") << 0;
    QTest::newRow("1") << 1;
    QTest::newRow("-1") << -1;
    QTest::newRow("greatest") << std::numeric_limits<int>::max();
    QTest::newRow("least") << std::numeric_limits<int>::min();
}

void tst_TcpInputPlugin2::drop()
{
    QFETCH(int, bytes);

    Plugin plugin;
    plugin.drop(bytes);
    QCOMPARE(takeLog(), QStringList{u"I: TcpInputPlugin2(p): dropping %1 bytes"_s.arg(bytes)});
    QCOMPARE(plugin.getStatus(), u"Listen: :0, timeout: 60s, pool size: 4\r\n"_s);
}

void tst_TcpInputPlugin2::discardIsRouted_data()
{
    QTest::addColumn<SubIds>("subid");
    QTest::addColumn<QString>("line");

    const QString notSet = u"D: TcpInput2(p): subid[task] not set"_s;
    QTest::newRow("empty map") << SubIds() << notSet;
    QTest::newRow("client alone") << SubIds{{u"client"_s, u"x"_s}} << notSet;
    QTest::newRow("Task") << SubIds{{u"Task"_s, u"0"_s}} << notSet;

    const auto unknown = [](const QString &text, int number) {
        QTest::newRow(qPrintable(u"unknown "_s + text))
                << SubIds{{u"task"_s, text}, {u"client"_s, u"x"_s}}
                << u"D: TcpInput2(p): discarding for non-existing task %1"_s.arg(number);
    };
    unknown(u"2"_s, 2); // there are 0 and 1
    unknown(u"-1"_s, -1);
    unknown(u"2147483647"_s, std::numeric_limits<int>::max());
    unknown(u"-2147483648"_s, std::numeric_limits<int>::min());

    const auto forwarded = [](const QString &text) {
        QTest::newRow(qPrintable(u"forwarded "_s + text))
                << SubIds{{u"task"_s, text}, {u"client"_s, u"x"_s}}
                << u"D: TcpTask2: discard for non-existing client x"_s;
        QTest::newRow(qPrintable(u"forwarded without client "_s + text))
                << SubIds{{u"task"_s, text}} << u"D: TcpTask2: subid[client] not set"_s;
    };
    forwarded(u"0"_s);
    forwarded(u"1"_s);
    // No decimal int: task 0.
    forwarded(u"abc"_s);
    forwarded(QString());
    forwarded(u"1x"_s);
    forwarded(u"1.5"_s);
    forwarded(u"0x2"_s);
    forwarded(u"2147483648"_s);
    forwarded(u"-2147483649"_s);
    forwarded(u"99999999999999999999"_s);
}

void tst_TcpInputPlugin2::discardIsRouted()
{
    QFETCH(SubIds, subid);
    QFETCH(QString, line);

    Plugin plugin;
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    devices.push_back(plugin.connectDevice());
    devices.push_back(plugin.connectDevice());
    QTRY_COMPARE(plugin.getStatus().count(u"tcp2:"_s), 2);
    takeLog();
    plugin.discard(5, subid);
    QCOMPARE(takeLog(), QStringList{line});
    passQueueOf(plugin.workers().allTasks().value(0));
    passQueueOf(plugin.workers().allTasks().value(1));
    QCOMPARE(takeLog(), QStringList());
}

void tst_TcpInputPlugin2::discardWithoutTask()
{
    Plugin plugin;
    plugin.discard(5, {{u"task"_s, u"abc"_s}});
    QCOMPARE(takeLog(), QStringList{u"D: TcpInput2(p): discarding for non-existing task 0"_s});
}

void tst_TcpInputPlugin2::discardCuts()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket device = plugin.connectDevice();
    const QByteArray bytes("0123456789abcdefghijklmnopqrstuvwxyz"); // 36
    QVERIFY(device.send(bytes));
    const auto record = plugin.recordOf(bytes);
    QVERIFY(record);
    const SubIds subid = record->getPluginSubId();
    takeLog();

    plugin.records.clear();
    plugin.discard(0, subid); // passed on like any other
    QVERIFY(plugin.recordOf(bytes));
    plugin.discard(10, subid);
    const auto rest = plugin.recordOf(bytes.mid(10));
    QVERIFY(rest);
    QCOMPARE(rest->getPluginSubId(), subid);

    // From another thread, and with a text for task 0 that is no number.
    const SubIds named{{u"task"_s, u"abc"_s}, {u"client"_s, subid.value(u"client"_s)}};
    std::thread([&] { plugin.discard(5, named); }).join();
    QVERIFY(plugin.recordOf(bytes.mid(15)));
    QCOMPARE(takeLog(),
             QStringList({u"D: TcpClient: inbuf still 36 bytes, triggering"_s,
                          u"D: TcpClient: inbuf still 26 bytes, triggering"_s,
                          u"D: TcpClient: inbuf still 21 bytes, triggering"_s}));
}

// For the sanitizers: tasks and clients come and go while other threads discard.
void tst_TcpInputPlugin2::discardFromOtherThreads()
{
    QMutex mutex; // outlives the plugin, whose destructor delivers
    SubIds latest; // guarded by mutex
    auto owner = std::make_unique<Plugin>(poolOf(3));
    Plugin &plugin = *owner;
    connect(&plugin, &IInputPlugin::receivedData, this, [&](const shared_parsedData &record) {
        const QMutexLocker locker(&mutex);
        latest = record->getPluginSubId();
    });

    // Millions of lines would be captured.
    capture.reset();
    const auto handler =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});

    std::atomic<bool> over = false;
    std::atomic<int> calls = 0;
    const auto discardAll = [&] {
        for (int n = 0; !over; ++n) {
            SubIds subid;
            {
                const QMutexLocker locker(&mutex);
                subid = latest;
            }
            plugin.discard(n % 3, subid);
            plugin.discard(1, {{u"task"_s, QString::number(n % 4)}, {u"client"_s, u"x"_s}});
            ++calls;
        }
    };
    std::thread one(discardAll);
    std::thread other(discardAll);

    bool failed = false;
    for (int cycle = 0; cycle < 40 && !failed; ++cycle) {
        const int callsBefore = calls;
        failed = !plugin.start();
        std::vector<NativeSocket> devices;
        for (int n = 0; n < 6; ++n) {
            devices.push_back(plugin.connectDevice());
            failed = failed || !devices.back().send("cycle " + QByteArray::number(cycle));
        }
        failed = failed
                || !QTest::qWaitFor(
                         [&] { return plugin.records.size() >= 6 && calls > callsBefore; },
                         HangGuardMs);
        failed = failed || !plugin.stop();
        plugin.records.clear();
    }
    over = true;
    one.join();
    other.join();
    owner.reset();
    qInstallMessageHandler(handler);
    capture.emplace();
    QVERIFY(!failed);
}

//! A socket with an error text.
class FailedSocket : public QSslSocket
{
public:
    explicit FailedSocket(const QString &text) { setErrorString(text); }
};

void tst_TcpInputPlugin2::tlsErrorLines()
{
    Plugin plugin;
    FailedSocket socket(u"no common cipher"_s);
    const QSslError error(QSslError::CertificateExpired);

    plugin.sslErrors(&socket, {error});
    plugin.sslErrors(nullptr, {});
    QCOMPARE(takeLog(),
             QStringList({u"W: TcpInputPlugin2(p): SSL Errors"_s,
                          u"W: TcpInputPlugin2(p): SSL Errors"_s}));
    plugin.socketError(&socket, QAbstractSocket::SslHandshakeFailedError);
    QCOMPARE(takeLog(),
             QStringList{u"W: TcpInputPlugin2(p): SSL Socket error: no common cipher"_s});
    plugin.hshakeError(nullptr, error);
    QCOMPARE(takeLog(),
             QStringList{u"W: TcpInputPlugin2(p): SSL handshake error: "_s + error.errorString()});
}

void tst_TcpInputPlugin2::tlsSignalsAreConnected_data()
{
    QTest::addColumn<bool>("debug");

    QTest::newRow("with tlsDebug") << true;
    QTest::newRow("without tlsDebug") << false;
}

void tst_TcpInputPlugin2::tlsSignalsAreConnected()
{
    QFETCH(bool, debug);

    QJsonObject tls = serverTls();
    tls.insert(u"tlsDebug"_s, debug);
    Plugin plugin(withTls({}, tls));
    QVERIFY(plugin.start());
    takeLog();

    auto *server = plugin.findChild<SslServer *>();
    FailedSocket socket(u"text"_s);
    const QSslError error(QSslError::CertificateExpired);
    Q_EMIT server->errorOccurred(&socket, QAbstractSocket::SslHandshakeFailedError);
    Q_EMIT server->sslErrors(&socket, {error});
    const QStringList connected{u"W: TcpInputPlugin2(p): SSL Socket error: text"_s,
                                u"W: TcpInputPlugin2(p): SSL Errors"_s};
    QCOMPARE(takeLog(), connected);

    // Direct: in whatever thread it is emitted.
    const QString handshakeLine =
            u"W: TcpInputPlugin2(p): SSL handshake error: "_s + error.errorString();
    const QStringList direct = debug ? QStringList{handshakeLine} : QStringList();
    std::thread([&] { Q_EMIT server->handshakeInterruptedOnError(&socket, error); }).join();
    QCOMPARE(takeLog(), direct);

    // The server's other signals are nobody's.
    Q_EMIT server->peerVerifyError(&socket, error);
    QCOMPARE(takeLog(), QStringList());
}

void tst_TcpInputPlugin2::refusedClient_data()
{
    QTest::addColumn<QString>("certificate");
    QTest::addColumn<bool>("debug");
    QTest::addColumn<QStringList>("lines"); // how they begin

    const QString prefix = u"W: TcpInputPlugin2(p): "_s;
    const auto add = [&](const char *certificate, QSslError::SslError error) {
        const QString text = QSslError(error).errorString();
        QTest::newRow(certificate)
                << QString::fromLatin1(certificate) << false
                << QStringList{prefix + u"SSL Errors"_s, prefix + u"SSL Socket error: "_s + text};
        // The handshake does not get as far as the list of errors.
        QTest::addRow("%s, tlsDebug", certificate)
                << QString::fromLatin1(certificate) << true
                << QStringList{prefix + u"SSL handshake error: "_s + text,
                               prefix + u"SSL Socket error: "_s};
    };
    add("client-expired", QSslError::CertificateExpired);
    add("client-foreign", QSslError::UnableToGetLocalIssuerCertificate);
    add("self-signed", QSslError::SelfSignedCertificate);

    // Here it does.
    const QStringList missing{prefix + u"SSL Errors"_s,
                              prefix + u"SSL Socket error: "_s
                                      + QSslError(QSslError::NoPeerCertificate).errorString()};
    QTest::newRow("none") << QString() << false << missing;
    QTest::newRow("none, tlsDebug") << QString() << true << missing;
}

void tst_TcpInputPlugin2::refusedClient()
{
    QFETCH(QString, certificate);
    QFETCH(bool, debug);
    QFETCH(QStringList, lines);

    Plugin plugin(withTls({}, verifyingTls(debug)));
    QVERIFY(plugin.start());
    takeLog();
    TlsDevice refused(TLS1_3_VERSION, certificate);
    QVERIFY(sendOverTls(refused, plugin, "refused"));
    bool ended = false;
    QVERIFY(play([&] { ended = refused.waitForEnd(); }));
    QVERIFY(ended);

    // The next one is served, and gets no line.
    TlsDevice good(TLS1_3_VERSION, u"client"_s);
    QVERIFY(sendOverTls(good, plugin, "good"));
    QVERIFY(plugin.recordOf("good"));
    QVERIFY(plugin.records.first()->getOriginalMessage() == "good");
    const QStringList warnings = takeLog().filter(QRegularExpression(u"^[^DI]"_s));
    QVERIFY2(warnings.size() == lines.size(), qPrintable(warnings.join(u'\n')));
    for (qsizetype n = 0; n < lines.size(); ++n)
        QVERIFY2(warnings[n].startsWith(lines[n]), qPrintable(warnings[n]));
}

// A client that was handed over is the task's, with a line that says so.
void tst_TcpInputPlugin2::tlsConnectionLines()
{
    Plugin plugin(withTls({}));
    QVERIFY(plugin.start());
    takeLog();
    TlsDevice device(TLS1_3_VERSION);
    QVERIFY(sendOverTls(device, plugin, "secret"));
    const auto record = plugin.recordOf("secret");
    QVERIFY(record);
    const long worker = threadNumberOf(plugin.workers().allTasks().first());
    QCOMPARE(takeLog().mid(0, 4),
             QStringList({ThreadLine, TaskLine, newConnectionLine(),
                          u"D: TcpTask2: Handling SSL connection, %1"_s.arg(worker)}));
    QCOMPARE(record->getPeerAddress(), u"127.0.0.1"_s);
    QCOMPARE(record->getPluginSubId().value(u"task"_s), u"0"_s);
    QCOMPARE(plugin.getStatus(),
             u"Listen: %1:%2, timeout: 60s, pool size: 4\r\n   %3\r\n      (empty 0)\r\n"_s
                     .arg(plugin.address.toString())
                     .arg(plugin.port)
                     .arg(record->getPluginSubId().value(u"client"_s)));
}

void tst_TcpInputPlugin2::noThreadWithoutDescriptors()
{
    Plugin plugin;
    {
        const NoFreeDescriptors none;
        QCOMPARE(plugin.getThread(0), nullptr);
        QCOMPARE(takeLog(), QStringList{ThreadLine});
        QCOMPARE(plugin.getTask(), nullptr);
        QCOMPARE(takeLog(), QStringList({ThreadLine, NoThreadLine}));
        QVERIFY(plugin.workers().allTasks().isEmpty());
        QVERIFY(plugin.workers().allThreads().isEmpty());
    }
    QVERIFY(plugin.getTask());
    takeLog();
}

void tst_TcpInputPlugin2::pendingUntilThreadCanBeHad()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket device = plugin.connectDevice();
    QVERIFY(device.send("here"));
    takeLog();
    {
        NoFreeDescriptors descriptors;
        descriptors.giveBack(1); // for the connection
        QTRY_VERIFY(plugin.findChild<TcpServer *>()->hasPendingConnections());
        QCOMPARE(takeLog(), QStringList({ThreadLine, NoThreadLine}));
        QCOMPARE(plugin.workers().turn(), 0);
        // The first retry comes before, and says nothing as long as there are no descriptors.
        QTimer fence;
        fence.setSingleShot(true);
        fence.start(600);
        QTRY_VERIFY(!fence.isActive());
        QCOMPARE(takeLog(), QStringList());
    }
    QCOMPARE(plugin.taskOf("here"), u"0"_s);
    QCOMPARE(plugin.workers().turn(), 1);
    takeLog();
}

// What was held for its sake is not held any more: accepting pauses and goes on as ever.
void tst_TcpInputPlugin2::stoppedWhileNoThreadCanBeHad()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket early = plugin.connectDevice();
    {
        NoFreeDescriptors descriptors;
        descriptors.giveBack(1); // for the connection
        QTRY_VERIFY(plugin.findChild<TcpServer *>()->hasPendingConnections());
        QVERIFY(plugin.stop());
    }
    QVERIFY(plugin.start());
    NativeSocket device = NativeSocket::unconnected(plugin.address);
    takeLog();
    QStringList log;
    {
        const NoFreeDescriptors none;
        QVERIFY(device.connect(plugin.address, plugin.port));
        QTRY_VERIFY(!(log += takeLog()).filter(u"Out of file descriptors"_s).isEmpty());
    }
    QVERIFY(device.send("here"));
    QCOMPARE(plugin.taskOf("here"), u"0"_s);
    takeLog();
}

void tst_TcpInputPlugin2::pausedWithoutDescriptors_data()
{
    QTest::addColumn<QJsonObject>("settings");

    QTest::newRow("TCP") << QJsonObject();
    QTest::newRow("TLS") << withTls({});
}

// One line when it begins, one when it is over, each time.
void tst_TcpInputPlugin2::pausedWithoutDescriptors()
{
    QFETCH(QJsonObject, settings);

    Plugin plugin(settings);
    QVERIFY(plugin.start());
    takeLog();
    const QStringList lines{u"W: TcpInputPlugin2(p): Out of file descriptors, accepting paused"_s,
                            u"I: TcpInputPlugin2(p): Accepting resumed"_s};
    auto episodes = [log = QStringList()]() mutable {
        return log += takeLog().filter(QRegularExpression(u"ccepting"_s));
    };

    std::vector<NativeSocket> devices;
    for (int n = 0; n < 2; ++n)
        devices.push_back(NativeSocket::unconnected(plugin.address));
    QStringList expected;
    for (NativeSocket &device : devices) {
        {
            const NoFreeDescriptors none;
            QVERIFY(device.connect(plugin.address, plugin.port));
            expected += lines.first();
            QTRY_COMPARE(episodes(), expected);
        }
        expected += lines.last();
        QTRY_COMPARE(episodes(), expected);
    }
}

QTEST_GUILESS_MAIN(tst_TcpInputPlugin2)

#include "tst_tcpinputplugin2.moc"
