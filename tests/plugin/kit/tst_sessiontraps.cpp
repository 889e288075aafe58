// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/defaults.h"
#include "tests/kit/messagecapture.h"
#include "tests/plugin/kit/sessiontest.h"

#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <atomic>

using namespace sessiontest;

// What a host without the kit stumbles over, see "Traps" in docs/HOST_GUIDE.md.
class tst_SessionTraps : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void handlersUseTheSessionWhileItGoes();
    void handlerStops();
    void handlerRunsAnEventLoop();
    void handlerMustNotStart();
    void shortLastFrameIsPrompt();
    void acknowledgementsAfterTheEnd();
    void acknowledgementsAfterTheSession();
    void acknowledgementsAfterAReload();
    void tooManyBytesLoseNothing();
    void oneGoEndsInTheMiddleOfATail();
    void pauseInTheMiddleOfATail();
    void checkStops();
    void limitsAreAddedTo();
    void restartsAsOftenAsOneLikes();
};

// Pointers to the plugin stay good while it is deleted, and it hands out its last records then.
void tst_SessionTraps::handlersUseTheSessionWhileItGoes()
{
    std::unique_ptr<InputSession> session;
    InputSession *running = nullptr;
    Log log;
    bool isGoing = false;
    InputHandlers handlers = log.handlers();
    handlers.message = [&](const InputMessage &message) {
        log.add(message);
        if (!isGoing)
            return;
        running->acknowledge(message.origin.connection, message.end);
        running->pause(message.origin.connection);
        running->counters();
        running->status();
    };
    InputSettings settings = settingsFor(handlers);
    settings.acknowledging = true;
    session = std::make_unique<InputSession>(settings);
    running = session.get();
    QVERIFY(session->start(configurationOf(freePort())));
    const auto device = connectTo(*session);
    QVERIFY(device);
    device->write("first\n");
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    running->pause(log.messages.firstKey()); // so that the rest comes with the end
    device->write("second\nthird\n");
    QTRY_COMPARE_WITH_TIMEOUT(session->counters()->bytes, quint64(19), HangGuardMs);
    isGoing = true;
    session.reset(); // null first, as unique_ptr does
    QCOMPARE(log.all(), QByteArrayList({"first", "second", "third"}));
    QCOMPARE(log.over, QStringList{QStringLiteral("stop")});
}

void tst_SessionTraps::handlerStops()
{
    Log log;
    InputSession *running = nullptr;
    InputHandlers handlers = log.handlers();
    handlers.message = [&](const InputMessage &message) {
        log.add(message);
        running->stop();
        QVERIFY(running->isListening()); // not while its handler runs
    };
    InputSession session(settingsFor(handlers));
    running = &session;
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = connectTo(session);
    QVERIFY(device);
    device->write("a\nb\n");
    QTRY_VERIFY_WITH_TIMEOUT(!session.isListening(), HangGuardMs);
    QCOMPARE(log.all(), QByteArrayList({"a", "b"}));
    QCOMPARE(log.over, QStringList{QStringLiteral("stop")});
}

// As a dialog does. What comes meanwhile keeps its order.
void tst_SessionTraps::handlerRunsAnEventLoop()
{
    Log log;
    InputSession *running = nullptr;
    std::unique_ptr<QTcpSocket> device;
    bool isNested = false;
    InputHandlers handlers = log.handlers();
    handlers.message = [&](const InputMessage &message) {
        QVERIFY(!isNested);
        log.add(message);
        if (message.bytes != "loop")
            return;
        isNested = true;
        device->write("c\nd\n");
        QTRY_COMPARE_WITH_TIMEOUT(running->counters()->offers, quint64(2), HangGuardMs);
        running->stop();
        QCoreApplication::processEvents();
        QVERIFY(running->isListening());
        isNested = false;
    };
    InputSettings settings = settingsFor(handlers);
    settings.pace.ofOffer.messages = 1; // the rest waits for its turn, and that comes in the loop
    InputSession session(settings);
    running = &session;
    QVERIFY(session.start(configurationOf(freePort())));
    device = connectTo(session);
    QVERIFY(device);
    device->write("a\nloop\nb\n");
    QTRY_VERIFY_WITH_TIMEOUT(!session.isListening(), HangGuardMs);
    QCOMPARE(log.all(), QByteArrayList({"a", "loop", "b", "c", "d"}));
    QVERIFY(!log.gaps);
}

void tst_SessionTraps::handlerMustNotStart()
{
    Log log;
    InputSession *running = nullptr;
    InputHandlers handlers = log.handlers();
    handlers.message = [&](const InputMessage &message) {
        log.add(message);
        QVERIFY(!running->start(configurationOf(freePort())));
        QCOMPARE(running->failure(), InputSession::Failure::Busy);
        QVERIFY(!running->reload(configurationOf(freePort())));
    };
    InputSession session(settingsFor(handlers));
    running = &session;
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = connectTo(session);
    QVERIFY(device);
    device->write("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    QVERIFY(session.isListening());
}

// Without "prompt" these bytes would come with the idle time-out.
void tst_SessionTraps::shortLastFrameIsPrompt()
{
    Log log;
    InputSession session(settingsFor(log.handlers()));
    QJsonObject configuration = configurationOf(freePort());
    configuration.insert(QStringLiteral("timeout"), 3600);
    QVERIFY(session.start(configuration));
    const auto device = connectTo(session);
    QVERIFY(device);
    device->write("hello\nwor");
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    device->write("ld\n");
    QTRY_COMPARE_WITH_TIMEOUT(log.all(), QByteArrayList({"hello", "world"}), HangGuardMs);
}

void tst_SessionTraps::acknowledgementsAfterTheEnd()
{
    Log log;
    InputSettings settings = settingsFor(log.handlers());
    settings.acknowledging = true;
    InputSession session(settings);
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = connectTo(session);
    QVERIFY(device);
    device->write("a\n");
    device->disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(log.over.size(), 1, HangGuardMs);
    session.acknowledge(log.messages.firstKey(), log.ends.first());
    session.stop();
    session.acknowledge(log.messages.firstKey(), log.ends.first());
    QCOMPARE(log.count, 1);
}

// From another thread, which learns late that the session is gone.
void tst_SessionTraps::acknowledgementsAfterTheSession()
{
    Log log;
    InputSettings settings = settingsFor(log.handlers());
    settings.acknowledging = true;
    auto session = std::make_unique<InputSession>(settings);
    QVERIFY(session->start(configurationOf(freePort())));
    const auto device = connectTo(*session);
    QVERIFY(device);
    device->write("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    const quint64 connection = log.messages.firstKey();
    std::atomic<int> calls = 0;
    std::atomic<bool> isOver = false;
    const std::unique_ptr<QThread> thread(
            QThread::create([&calls, &isOver, connection, acknowledge = session->acknowledger()] {
                while (!isOver) {
                    acknowledge(connection, 2);
                    ++calls;
                }
            }));
    thread->start();
    const auto end = qScopeGuard([&isOver, &thread] {
        isOver = true;
        thread->wait();
    });
    QTRY_VERIFY_WITH_TIMEOUT(calls > 100, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(session->counters()->buffered, quint64(0), HangGuardMs);
    session.reset();
    const int before = calls;
    QTRY_VERIFY_WITH_TIMEOUT(calls > before + 100, HangGuardMs);
}

// They are meant for a plugin that is gone, and must not cut what the next one has received.
void tst_SessionTraps::acknowledgementsAfterAReload()
{
    Log log;
    InputSettings settings = settingsFor(log.handlers());
    settings.acknowledging = true;
    InputSession session(settings);
    const QJsonObject configuration = configurationOf(freePort());
    QVERIFY(session.start(configuration));
    auto device = connectTo(session);
    QVERIFY(device);
    device->write("old\n");
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    QVERIFY(session.reload(configuration));
    device = connectTo(session);
    QVERIFY(device);
    device->write("half ");
    QTRY_COMPARE_WITH_TIMEOUT(session.counters()->bytes, quint64(5), HangGuardMs);
    session.acknowledge(log.messages.firstKey(), log.ends.first());
    device->write("a line\n");
    QTRY_COMPARE_WITH_TIMEOUT(log.all(), QByteArrayList({"old", "half a line"}), HangGuardMs);
    QVERIFY(!log.gaps);
}

void tst_SessionTraps::tooManyBytesLoseNothing()
{
    const MessageCapture capture;
    Log log;
    InputSettings settings = settingsFor(log.handlers());
    // Takes the length from the line's number of letters, and miscounts.
    settings.framing = custom([](QByteArrayView bytes) -> qsizetype {
        const qsizetype end = bytes.indexOf('\n');
        return end < 0 ? 0 : end + 100;
    });
    InputSession session(settings);
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = connectTo(session);
    QVERIFY(device);
    for (int n = 0; n < 3; ++n) {
        device->write("a\n");
        QTRY_COMPARE_WITH_TIMEOUT(log.count, n + 1, HangGuardMs);
    }
    QCOMPARE(log.all(), QByteArrayList({"a\n", "a\n", "a\n"}));
    QVERIFY(!log.gaps);
    device->disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(log.over.size(), 1, HangGuardMs);
}

// A function of the host's gets more bytes than it takes, and they must not count as unfinished.
void tst_SessionTraps::oneGoEndsInTheMiddleOfATail()
{
    Log log;
    InputSettings settings = settingsFor(log.handlers());
    settings.framing = custom([](QByteArrayView bytes) { return bytes.indexOf('\n') + 1; });
    settings.maxUnfinished = 300;
    settings.pace.ofOffer.messages = 2;
    InputSession session(settings);
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = connectTo(session);
    QVERIFY(device);
    device->write(QByteArray(100, 'x'));
    QTRY_COMPARE_WITH_TIMEOUT(session.counters()->buffered, quint64(0), HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(session.counters()->bytes, quint64(100), HangGuardMs);
    device->write("\n" + numberedLines("line", 0, 100));
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 101, HangGuardMs);
    QCOMPARE(log.all().last(), QByteArray("line 99\n"));
    QVERIFY(!log.gaps);
    QTRY_COMPARE_WITH_TIMEOUT(session.counters()->buffered, quint64(0), HangGuardMs);
}

void tst_SessionTraps::pauseInTheMiddleOfATail()
{
    Log log;
    InputSession *running = nullptr;
    InputHandlers handlers = log.handlers();
    handlers.message = [&](const InputMessage &message) {
        log.add(message);
        if (log.count == 1)
            running->pause(message.origin.connection);
    };
    InputSettings settings = settingsFor(handlers);
    settings.framing = custom([](QByteArrayView bytes) { return bytes.indexOf('\n') + 1; });
    InputSession session(settings);
    running = &session;
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = connectTo(session);
    QVERIFY(device);
    device->write("be");
    QTRY_COMPARE_WITH_TIMEOUT(session.counters()->offers, quint64(1), HangGuardMs);
    device->write("gin\n" + numberedLines("line", 0, 20));
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    const quint64 offers = session.counters()->offers;
    device->write("end\n");
    QTRY_VERIFY_WITH_TIMEOUT(session.counters()->offers > offers, HangGuardMs); // repeats all of it
    session.resume(log.messages.firstKey());
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 22, HangGuardMs);
    QVERIFY(!log.gaps);
    QTRY_COMPARE_WITH_TIMEOUT(session.counters()->buffered, quint64(0), HangGuardMs);
}

// No handler, but it runs while a record is read.
void tst_SessionTraps::checkStops()
{
    Log log;
    InputSession *running = nullptr;
    InputSettings settings = settingsFor(log.handlers());
    settings.framing = checked(lines(), [&running](QByteArrayView) {
        running->stop();
        return true;
    });
    InputSession session(settings);
    running = &session;
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = connectTo(session);
    QVERIFY(device);
    device->write("a\nb\n");
    QTRY_VERIFY_WITH_TIMEOUT(!session.isListening(), HangGuardMs);
    QCOMPARE(log.all(), QByteArrayList({"a", "b"}));
}

void tst_SessionTraps::limitsAreAddedTo()
{
    const QJsonObject given = {{QStringLiteral("maxConnections"), 5}};
    const QJsonObject complete = withDefaults({{QStringLiteral("limits"), given}});
    const QJsonObject limits = complete.value(QLatin1String("limits")).toObject();
    QCOMPARE(limits.value(QLatin1String("maxConnections")), QJsonValue(5));
    QVERIFY(limits.contains(QLatin1String("connectionBuffer")));
    QVERIFY(limits.contains(QLatin1String("totalBuffer")));
}

// A plugin object that is started again hands over each connection more than once.
void tst_SessionTraps::restartsAsOftenAsOneLikes()
{
    const MessageCapture capture;
    Log log;
    InputSession session(settingsFor(log.handlers()));
    const QJsonObject configuration = configurationOf(freePort());
    for (int n = 0; n < 5; ++n) {
        QVERIFY(session.start(configuration));
        const auto device = connectTo(session);
        QVERIFY(device);
        device->write("a\n");
        QTRY_COMPARE_WITH_TIMEOUT(log.count, n + 1, HangGuardMs);
        session.stop();
        session.stop();
    }
    const auto messages = MessageCapture::take();
    for (const CapturedMessage &message : messages)
        QVERIFY2(!message.text.contains(QLatin1String("failed")), qPrintable(message.text));
}

QTEST_GUILESS_MAIN(tst_SessionTraps)
#include "tst_sessiontraps.moc"
