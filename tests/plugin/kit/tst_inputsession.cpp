// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/messagecapture.h"
#include "tests/plugin/kit/sessiontest.h"

#include "plugin/libraryversion.h"

#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtNetwork/QTcpServer>
#include <QtTest/QtTest>

#include <vector>

using namespace sessiontest;

namespace {

void useTransports()
{
    QTest::addColumn<bool>("useTls");
    QTest::newRow("TCP") << false;
    QTest::newRow("TLS") << true;
}

// What one connection has brought.
class Witness : public TrafficObserver
{
public:
    void read(const Origin &origin, quint64 position, QByteArrayView part) override
    {
        isRight =
                isRight && QThread::currentThread() == thread && position == quint64(bytes.size());
        bytes += part.toByteArray();
        peer = origin.peer + QLatin1Char(':') + QString::number(origin.port);
    }
    void ended(const Origin &origin, const QString &reason, quint64 position) override
    {
        isRight = isRight && QThread::currentThread() == thread && position == quint64(bytes.size())
                && origin.connection != 0;
        end = reason;
    }

    QThread *const thread = QThread::currentThread();
    QByteArray bytes;
    QString peer;
    QString end; // empty: not told
    bool isRight = true;
};

// More than the kernel holds for a connection whose server does not read.
constexpr int MuchBytes = 32 * 1024 * 1024;

} // namespace

class tst_InputSession : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tellsItsRelease();
    void takesEachMessageOnce_data() { useTransports(); }
    void takesEachMessageOnce();
    void unusableLibraries_data();
    void unusableLibraries();
    void unusableConfigurations_data();
    void unusableConfigurations();
    void portInUse();
    void reloads_data() { useTransports(); }
    void reloads();
    void goesBackToTheOldConfiguration();
    void staysStopped();
    void pausesAConnection();
    void pausedEndWaits();
    void acknowledges();
    void receiverInAnotherThread_data() { useTransports(); }
    void receiverInAnotherThread();
    void observerSeesAllBytes_data() { useTransports(); }
    void observerSeesAllBytes();
    void slowReceiverHoldsDevicesUp();
    void givesUpTheLongestMessage();
    void counts();
    void renewsCertificates();
};

void tst_InputSession::tellsItsRelease()
{
    QCOMPARE(LibraryVersion::ofHeaders().toString(), QStringLiteral(PROJECT_VERSION));
    QVERIFY((LibraryVersion{2, 1, 0}).serves({2, 0, 9}));
    QVERIFY(!(LibraryVersion{2, 0, 9}).serves({2, 1, 0}));
    QVERIFY(!(LibraryVersion{3, 0, 0}).serves({2, 0, 0}));
}

void tst_InputSession::takesEachMessageOnce()
{
    QFETCH(bool, useTls);
    Log log;
    InputSession session(settingsFor(log.handlers()));
    QVERIFY2(session.start(configurationOf(freePort(), useTls)), qPrintable(session.errorString()));
    std::vector<std::unique_ptr<QTcpSocket>> devices;
    for (int n = 0; n < 8; ++n) {
        devices.push_back(connectTo(session, useTls));
        QVERIFY(devices.back());
    }
    QMap<QByteArray, QByteArrayList> sent;
    for (int piece = 0; piece < 40; ++piece) {
        for (std::size_t n = 0; n < devices.size(); ++n) {
            const QByteArray bytes =
                    numberedLines("device " + QByteArray::number(qulonglong(n)), piece * 5, 5);
            devices[n]->write(bytes.first(bytes.size() / 2));
            QCoreApplication::processEvents();
            devices[n]->write(bytes.sliced(bytes.size() / 2));
            sent[bytes.first(8)] += bytes.chopped(1).split('\n');
        }
    }
    for (const auto &device : devices)
        device->disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(log.over.size(), 8, HangGuardMs);
    QCOMPARE(log.count, 8 * 40 * 5);
    QCOMPARE(log.messages.size(), 8);
    for (const QByteArrayList &messages : std::as_const(log.messages))
        QCOMPARE(messages, sent.value(messages[0].first(8)));
    QVERIFY(!log.gaps);
    QCOMPARE(log.over.count(QStringLiteral("peer")), 8);
}

void tst_InputSession::unusableLibraries_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<InputSession::Failure>("failure");
    QTest::addColumn<QString>("text");

    QTest::newRow("missing") << QStringLiteral("/nowhere/libx.so")
                             << InputSession::Failure::NoLibrary
                             << QStringLiteral("/nowhere/libx.so");
    QTest::newRow("no plugin") << QStringLiteral("libc.so.6") << InputSession::Failure::NoLibrary
                               << QStringLiteral("no input plugin");
    QTest::newRow("older") << QStringLiteral(OLD_PLUGIN_FILE) << InputSession::Failure::WrongLibrary
                           << QStringLiteral("older than these headers");
}

void tst_InputSession::unusableLibraries()
{
    QFETCH(QString, file);
    QFETCH(QString, text);
    InputSettings settings;
    settings.library = file;
    InputSession session(settings);
    QVERIFY(!session.start(configurationOf(freePort())));
    QTEST(session.failure(), "failure");
    QVERIFY2(session.errorString().contains(text), qPrintable(session.errorString()));
    QVERIFY(!session.isListening());
}

void tst_InputSession::unusableConfigurations_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<InputSession::Failure>("failure");

    QTest::newRow("offsets") << QStringLiteral("offsets") << QJsonValue(false)
                             << InputSession::Failure::BadConfiguration;
    QTest::newRow("no offsets") << QStringLiteral("offsets") << QJsonValue(QStringLiteral("yes"))
                                << InputSession::Failure::BadConfiguration;
    QTest::newRow("ends") << QStringLiteral("ends") << QJsonValue(false)
                          << InputSession::Failure::BadConfiguration;
    QTest::newRow("misspelt") << QStringLiteral("Port") << QJsonValue(1)
                              << InputSession::Failure::Refused;
}

void tst_InputSession::unusableConfigurations()
{
    const MessageCapture capture;
    QFETCH(QString, key);
    QFETCH(QJsonValue, value);
    QJsonObject configuration = configurationOf(freePort());
    configuration.insert(key, value);
    InputSession session(settingsFor({}));
    QVERIFY(!session.start(configuration));
    QTEST(session.failure(), "failure");
    QVERIFY(!session.errorString().isEmpty());
}

void tst_InputSession::portInUse()
{
    const MessageCapture capture;
    QTcpServer other;
    QVERIFY(other.listen(testAddress()));
    InputSession session(settingsFor({}));
    QVERIFY(!session.start(configurationOf(other.serverPort())));
    QCOMPARE(session.failure(), InputSession::Failure::NotListening);
    other.close();
    QVERIFY(session.start(configurationOf(freePort())));
    QCOMPARE(session.failure(), InputSession::Failure::None);
    QCOMPARE(session.address(), testAddress().toString());
}

void tst_InputSession::reloads()
{
    QFETCH(bool, useTls);
    Log log;
    InputSession session(settingsFor(log.handlers()));
    QVERIFY(session.start(configurationOf(freePort(), useTls)));
    QByteArrayList sent;
    for (int n = 0; n < 5; ++n) {
        const auto device = connectTo(session, useTls);
        QVERIFY(device);
        const QByteArray bytes = numberedLines("reload " + QByteArray::number(n), 0, 100);
        sent += bytes.chopped(1).split('\n');
        device->write(bytes);
        QTRY_VERIFY_WITH_TIMEOUT(session.counters()->bytes == quint64(bytes.size()), HangGuardMs);
        QVERIFY(session.reload(configurationOf(freePort(), useTls)));
        QTRY_COMPARE_WITH_TIMEOUT(log.over.size(), n + 1, HangGuardMs); // the device closes
    }
    session.stop();
    QVERIFY(!session.isListening());
    QCOMPARE(log.all(), sent);
    QVERIFY(!log.gaps);
}

void tst_InputSession::goesBackToTheOldConfiguration()
{
    const MessageCapture capture;
    QTcpServer other;
    QVERIFY(other.listen(testAddress()));
    InputSession session(settingsFor({}));
    const quint16 port = freePort();
    QVERIFY(session.start(configurationOf(port)));
    QVERIFY(!session.reload(configurationOf(other.serverPort())));
    QCOMPARE(session.failure(), InputSession::Failure::NotListening);
    QCOMPARE(session.port(), int(port));
    const auto device = connectTo(session);
    QVERIFY(device);
    QVERIFY(!session.reload({{QStringLiteral("offsets"), false}}));
    QCOMPARE(session.failure(), InputSession::Failure::BadConfiguration);
    QVERIFY(session.isListening());
    QTRY_COMPARE_WITH_TIMEOUT(session.counters()->open, quint64(1), HangGuardMs); // was not cut off
}

// A handler that the old plugin's end calls stops the session, and the new plugin does not listen.
void tst_InputSession::staysStopped()
{
    const MessageCapture capture;
    QTcpServer other;
    QVERIFY(other.listen(testAddress()));
    InputSession *running = nullptr;
    int ends = 0;
    InputHandlers handlers;
    handlers.end = [&](const InputEnd &) {
        ++ends;
        running->stop();
    };
    InputSession session(settingsFor(handlers));
    running = &session;
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = connectTo(session);
    QVERIFY(device);
    device->write("a line\n");
    QTRY_COMPARE_WITH_TIMEOUT(session.messageCounts().messages, quint64(1), HangGuardMs);
    QVERIFY(!session.start(configurationOf(other.serverPort())));
    QCOMPARE(ends, 1);
    QCOMPARE(session.failure(), InputSession::Failure::NotListening);
    QVERIFY(!session.isListening());
    QVERIFY(session.start(configurationOf(freePort()))); // which forgets that stop()
    QCoreApplication::processEvents();
    QVERIFY(session.isListening());
}

void tst_InputSession::pausesAConnection()
{
    Log log;
    InputSession *running = nullptr;
    InputHandlers handlers = log.handlers();
    handlers.message = [&](const InputMessage &message) {
        log.add(message);
        if (message.bytes == "pause")
            running->pause(message.origin.connection);
    };
    InputSession session(settingsFor(handlers));
    running = &session;
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = connectTo(session);
    QVERIFY(device);
    QByteArray rest = numberedLines("rest", 0, 100) + QByteArray(MuchBytes, 'x') + '\n';
    device->write("pause\n" + rest);
    QTRY_COMPARE_WITH_TIMEOUT(log.all(), QByteArrayList{"pause"}, HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(session.counters()->paused == 1, HangGuardMs);
    QCOMPARE(log.count, 1);
    QVERIFY(session.counters()->buffered < quint64(MuchBytes));

    const auto another = connectTo(session); // is not paused
    QVERIFY(another);
    another->write("hello\n");
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 2, HangGuardMs);

    session.resume(log.messages.firstKey());
    device->disconnectFromHost(); // sends all of it first
    QTRY_COMPARE_WITH_TIMEOUT(log.over.size(), 1, LoadHangGuardMs);
    QCOMPARE(log.messages.first().size(), 1 + 100); // the last line is too long
    QVERIFY(!log.gaps);
}

void tst_InputSession::pausedEndWaits()
{
    Log log;
    InputSession session(settingsFor(log.handlers()));
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = connectTo(session);
    QVERIFY(device);
    device->write("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    const quint64 connection = log.messages.firstKey();
    session.pause(connection);
    device->write("b\n");
    device->disconnectFromHost();
    QTRY_VERIFY_WITH_TIMEOUT(session.counters()->closedByPeer == 1, HangGuardMs);
    QCoreApplication::processEvents();
    QVERIFY(log.over.isEmpty());
    session.resume(connection);
    QTRY_COMPARE_WITH_TIMEOUT(log.over, QStringList{QStringLiteral("peer")}, HangGuardMs);
    QCOMPARE(log.all(), QByteArrayList({"a", "b"}));
}

// The device has to wait for a host that has not done with its messages.
void tst_InputSession::acknowledges()
{
    Log log;
    InputSettings settings = settingsFor(log.handlers());
    settings.acknowledging = true;
    InputSession session(settings);
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = connectTo(session);
    QVERIFY(device);
    const QByteArray line = QByteArray(999, 'x') + '\n';
    device->write(line.repeated(MuchBytes / 1000));
    QTRY_VERIFY_WITH_TIMEOUT(session.counters()->paused == 1, HangGuardMs);
    QVERIFY(session.counters()->buffered <= 1024 * 1024);
    QTRY_COMPARE_WITH_TIMEOUT(quint64(log.count), session.counters()->buffered / 1000, HangGuardMs);

    const quint64 connection = log.messages.firstKey();
    while (log.count < MuchBytes / 1000) {
        session.acknowledge(connection, log.ends.first());
        const int before = log.count;
        QTRY_VERIFY_WITH_TIMEOUT(log.count > before, HangGuardMs);
    }
    session.acknowledge(connection, log.ends.first());
    QTRY_COMPARE_WITH_TIMEOUT(session.counters()->buffered, quint64(0), HangGuardMs);
    QCOMPARE(log.count, MuchBytes / 1000);
    QVERIFY(!log.gaps);
}

void tst_InputSession::receiverInAnotherThread()
{
    QFETCH(bool, useTls);
    QThread thread;
    QObject receiver;
    receiver.moveToThread(&thread);
    thread.start();
    Log log; // the thread's, until it has ended
    InputHandlers handlers = log.handlers();
    bool isRight = true;
    handlers.message = [&](const InputMessage &message) {
        isRight = isRight && QThread::currentThread() == &thread;
        log.add(message);
    };
    QByteArrayList sent;
    {
        InputSettings settings = settingsFor(handlers);
        settings.receiver = &receiver;
        InputSession session(settings);
        QVERIFY(session.start(configurationOf(freePort(), useTls)));
        for (int n = 0; n < 4; ++n) {
            const auto device = connectTo(session, useTls);
            QVERIFY(device);
            const QByteArray bytes = numberedLines("round " + QByteArray::number(n), 0, 500);
            sent += bytes.chopped(1).split('\n');
            device->write(bytes);
            QTRY_VERIFY_WITH_TIMEOUT(session.counters()->bytes == quint64(bytes.size()),
                                     HangGuardMs);
            QVERIFY(session.reload(configurationOf(freePort(), useTls)));
        }
    }
    QMetaObject::invokeMethod(
            &receiver, [&] { receiver.moveToThread(QCoreApplication::instance()->thread()); },
            Qt::BlockingQueuedConnection);
    thread.quit();
    QVERIFY(thread.wait(HangGuardMs));
    QVERIFY(isRight);
    QCOMPARE(log.all(), sent);
    QCOMPARE(log.over.size(), 4);
    QVERIFY(!log.gaps);
}

// In the session's thread, also if messages are handed out in another one. Skipped bytes, too.
void tst_InputSession::observerSeesAllBytes()
{
    QFETCH(bool, useTls);
    const MessageCapture capture;
    QThread thread;
    QObject receiver;
    receiver.moveToThread(&thread);
    thread.start();
    Witness witness;
    InputSettings settings = settingsFor({});
    settings.framing = lines(5);
    settings.receiver = &receiver;
    settings.observer = &witness;
    auto session = std::make_unique<InputSession>(settings);
    QVERIFY(session->start(configurationOf(freePort(), useTls)));
    const auto device = connectTo(*session, useTls);
    QVERIFY(device);
    const QString peer = device->localAddress().toString() + QLatin1Char(':')
            + QString::number(device->localPort());
    const QByteArray sent = QByteArray("a\ntoo long\n").repeated(1000) + "rest";
    device->write(sent);
    device->disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(witness.end, QStringLiteral("peer"), HangGuardMs);
    QCOMPARE(witness.bytes, sent);
    QCOMPARE(witness.peer, peer);
    QVERIFY(witness.isRight);
    session.reset();
    thread.quit();
    QVERIFY(thread.wait(HangGuardMs));
}

void tst_InputSession::slowReceiverHoldsDevicesUp()
{
    QThread thread;
    QObject receiver;
    receiver.moveToThread(&thread);
    thread.start();
    QSemaphore gate;
    std::atomic<int> count = 0;
    InputHandlers handlers;
    handlers.message = [&](const InputMessage &) {
        if (count++ == 0)
            gate.acquire();
    };
    InputSettings settings = settingsFor(handlers);
    settings.receiver = &receiver;
    auto session = std::make_unique<InputSession>(settings);
    QVERIFY(session->start(configurationOf(freePort())));
    const auto device = connectTo(*session);
    QVERIFY(device);
    const QByteArray line = QByteArray(999, 'x') + '\n';
    device->write(line.repeated(MuchBytes / 1000));
    QTRY_VERIFY_WITH_TIMEOUT(session->counters()->paused == 1, LoadHangGuardMs);
    QVERIFY(session->messageCounts().bytes < 2 * quint64(HandOver::MostBytes));
    gate.release();
    QTRY_COMPARE_WITH_TIMEOUT(count.load(), MuchBytes / 1000, LoadHangGuardMs);
    session.reset();
    thread.quit();
    QVERIFY(thread.wait(HangGuardMs));
}

void tst_InputSession::givesUpTheLongestMessage()
{
    const MessageCapture capture;
    Log log;
    InputSettings settings = settingsFor(log.handlers());
    settings.maxUnfinished = 1000;
    InputSession session(settings);
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = connectTo(session);
    QVERIFY(device);
    device->write(QByteArray(2000, 'x'));
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    QCOMPARE(log.all(), QByteArrayList{"(" + QByteArray(2000, 'x') + ")"});
    device->write("yz\nnext\n");
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 2, HangGuardMs);
    QCOMPARE(log.all().last(), QByteArray("next"));
    QCOMPARE(session.messageCounts().partial, quint64(1));
}

void tst_InputSession::counts()
{
    const MessageCapture capture;
    Log log;
    InputSettings settings = settingsFor(log.handlers());
    settings.framing = checked(lines(5), [](QByteArrayView line) { return line != "bad"; });
    InputSession session(settings);
    QVERIFY(!session.counters());
    QVERIFY(session.status().isEmpty());
    QVERIFY(session.start(configurationOf(freePort())));
    QVERIFY(session.status().startsWith(QLatin1String("Listen: ")));
    const auto device = connectTo(session);
    QVERIFY(device);
    device->write("one\nbad\nmuch too long\ntwo\nrest");
    device->disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(log.over.size(), 1, HangGuardMs);
    QCOMPARE(log.all(), QByteArrayList({"one", "two", "(rest)"}));
    const MessageCounts counted = session.messageCounts();
    QCOMPARE(counted.messages, quint64(2));
    QCOMPARE(counted.bytes, quint64(6));
    QCOMPARE(counted.bad, quint64(1));
    QCOMPARE(counted.tooLong, quint64(1));
    QCOMPARE(counted.partial, quint64(1));
    QTRY_COMPARE_WITH_TIMEOUT(session.counters()->closedByPeer, quint64(1), HangGuardMs);
}

void tst_InputSession::renewsCertificates()
{
    const MessageCapture capture;
    InputSession session(settingsFor({}));
    QVERIFY(!session.renewCertificates());
    QVERIFY(session.start(configurationOf(freePort(), true)));
    QVERIFY(session.renewCertificates());
    QVERIFY(connectTo(session, true));
}

QTEST_GUILESS_MAIN(tst_InputSession)
#include "tst_inputsession.moc"
