// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/messagecapture.h"
#include "tests/plugin/kit/sessiontest.h"

#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <vector>

using namespace sessiontest;

namespace {

// What the first device sends: more than may be on its way, in lines that cost little beside their
// bytes.
constexpr int LineBytes = 100000;
constexpr int Lines = 2 * HandOver::MostBytes / LineBytes;
constexpr quint64 Devices = 50;

bool isWarning(const CapturedMessage &line)
{
    return line.text.contains(QLatin1String("receiver is behind by more than 8 MiB"));
}

} // namespace

// A session whose receiver, in another thread, hangs in its first message.
class tst_HungReceiver : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void nobodyIsAccepted();
    void reloadsAddNothing();

private:
    void connectDevices();
    // Until they have had their turn to be accepted.
    static void letThemTry();

    QThread thread;
    QObject *receiver = nullptr; // the thread's
    QSemaphore gate; // the first message waits for it
    std::atomic<quint64> bytes = 0; // of all messages, with their line ends
    std::atomic<quint64> ends = 0;
    std::unique_ptr<InputSession> session;
    std::vector<std::unique_ptr<QTcpSocket>> devices;
    std::optional<MessageCapture> capture;
};

void tst_HungReceiver::init()
{
    capture.emplace();
    bytes = 0;
    ends = 0;
    receiver = new QObject;
    receiver->moveToThread(&thread);
    thread.start();
    InputHandlers handlers;
    handlers.message = [this](const InputMessage &message) {
        if (bytes == 0)
            gate.acquire();
        bytes += message.end - message.position;
    };
    handlers.end = [this](const InputEnd &) { ++ends; };
    InputSettings settings = settingsFor(handlers);
    settings.receiver = receiver;
    session = std::make_unique<InputSession>(settings);
    QVERIFY(session->start(configurationOf(freePort())));
    devices.push_back(connectTo(*session));
    QVERIFY(devices.front());
    devices.front()->write((QByteArray(LineBytes - 1, 'x') + '\n').repeated(Lines));
    QTRY_VERIFY_WITH_TIMEOUT(session->messageCounts().bytes > quint64(HandOver::MostBytes),
                             LoadHangGuardMs);
    QCoreApplication::processEvents(); // sends the last of them
}

void tst_HungReceiver::cleanup()
{
    gate.release();
    session.reset();
    devices.clear();
    QMetaObject::invokeMethod(
            receiver, [this] { delete receiver; }, Qt::BlockingQueuedConnection);
    thread.quit();
    QVERIFY(thread.wait(HangGuardMs));
    gate.tryAcquire();
    capture.reset();
}

// Each sends a line and ends. The kernel has taken them all.
void tst_HungReceiver::connectDevices()
{
    for (quint64 n = 0; n < Devices; ++n) {
        auto device = connectTo(*session);
        QVERIFY(device);
        device->write("hello\n");
        device->disconnectFromHost();
        devices.push_back(std::move(device));
    }
}

void tst_HungReceiver::letThemTry()
{
    QElapsedTimer elapsed;
    elapsed.start();
    QTRY_VERIFY_WITH_TIMEOUT(elapsed.hasExpired(100), HangGuardMs);
}

// Otherwise ended connections would be kept here, without a limit to their number.
void tst_HungReceiver::nobodyIsAccepted()
{
    const QList<CapturedMessage> lines = MessageCapture::take();
    QCOMPARE(std::count_if(lines.begin(), lines.end(), isWarning), 1);
    connectDevices();
    letThemTry();
    QCOMPARE(session->counters()->accepted, quint64(1));
    gate.release();
    QTRY_COMPARE_WITH_TIMEOUT(ends.load(), Devices, LoadHangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(bytes.load(), quint64(Lines) * LineBytes + Devices * 6,
                              LoadHangGuardMs);
}

// The start hands over what the plugin still has, at once. The plugins behind it accept nothing.
void tst_HungReceiver::reloadsAddNothing()
{
    quint64 messages = 0;
    for (int n = 0; n < 3; ++n) {
        const QJsonObject next = configurationOf(freePort());
        QVERIFY(n == 0 ? session->start(next) : session->reload(next));
        if (n == 0)
            messages = session->messageCounts().messages;
        connectDevices();
        letThemTry();
        QCOMPARE(session->counters()->accepted, quint64(0));
        QCOMPARE(session->messageCounts().messages, messages);
    }
}

QTEST_GUILESS_MAIN(tst_HungReceiver)
#include "tst_hungreceiver.moc"
