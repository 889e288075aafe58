// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "figures.h"

#include "logtap.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/play.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QHash>
#include <QtCore/QSemaphore>

#include <algorithm>
#include <memory>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

constexpr qsizetype MessageBytes = 30;
constexpr auto InTime = 150ms;
constexpr auto BetweenDevices = 2ms;
constexpr auto BetweenLargeMessages = 20ms;
constexpr auto OfferIsDueAgain = 250ms;
constexpr auto SlowLog = 500us; // per line

double milliseconds(Clock::duration duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}

QByteArray message(int device, int number)
{
    return QByteArray("device ")
            .append(QByteArray::number(device))
            .append(", message ")
            .append(QByteArray::number(number))
            .leftJustified(MessageBytes, '.');
}

// Busy waiting: the system would make a sleep longer.
void waitBusily(std::chrono::microseconds time)
{
    const auto end = Clock::now() + time;
    while (Clock::now() < end) {}
}

/*!
    A listening plugin of one side, and its connected devices.

    Thread: the main one, unless a member says otherwise.
*/
class Scene
{
public:
    explicit Scene(Side &side, std::chrono::microseconds slowLog = {})
        : tap([this](const TappedLine &line) { note(line); }, slowLog),
          address(testAddress()),
          port(freePort()),
          plugin(side.library.create(tcpConfig(port)))
    {
        if (!plugin->start())
            qFatal("%s does not start", side.name);
    }
    virtual ~Scene() = default;
    Q_DISABLE_COPY_MOVE(Scene)

    // Call in the devices' thread. Returns when the plugin has a client for each device.
    void connectDevices(int count)
    {
        for (int i = 0; i < count; ++i) {
            NativeSocket device = NativeSocket::connectedTo(address, port);
            if (!device.isValid())
                qFatal("a device cannot connect");
            devices.push_back(std::move(device));
        }
        clients.acquire(count);
    }

protected:
    // Call in the destructor of a derived class: its slots may still get the last records and
    // lines.
    void end()
    {
        QObject::disconnect(plugin.get(), &IInputPlugin::receivedData, nullptr, nullptr);
        plugin.reset();
    }

    // Is called for each log line, in the thread that writes it.
    virtual void note(const TappedLine &line)
    {
        if (line.text.contains(QLatin1String("new client added")))
            clients.release();
    }

private:
    LogTap tap; // constructed first, destroyed last

protected:
    const QHostAddress address;
    const quint16 port;
    std::unique_ptr<IInputPlugin> plugin;
    std::vector<NativeSocket> devices; // the devices' thread
    QSemaphore clients;
};

/*!
    A host that counts by the device's port what it has consumed, and discards whole messages at
    once.
*/
class CountingScene : public Scene
{
public:
    CountingScene(Side &side, qsizetype answerFrom) : Scene(side), leastAnswered(answerFrom)
    {
        QObject::connect(plugin.get(), &IInputPlugin::receivedData, plugin.get(),
                         [this](const shared_parsedData &record) { receive(record); });
    }
    ~CountingScene() override { end(); }

protected:
    struct Arrivals
    {
        qsizetype consumed = 0;
        Clock::time_point complete; // when the host had all that it expects
    };

    // What has arrived from a device.
    Arrivals arrivals(const NativeSocket &device) { return byPort[device.localPort()]; }

    qsizetype expected = 0; // bytes of each connection; set before the devices send
    qsizetype leastAnswered;
    QSemaphore completed;

private:
    void receive(const shared_parsedData &record)
    {
        const auto now = Clock::now();
        const qsizetype size = record->getDataLength();
        Arrivals &entry = byPort[record->getPeerPort()];
        const bool wasComplete = entry.consumed >= expected;
        if (size < leastAnswered && entry.consumed + size < expected)
            return;
        const qsizetype whole = size - size % MessageBytes;
        plugin->discard(static_cast<int>(whole), record->getPluginSubId());
        entry.consumed += whole;
        if (!wasComplete && entry.consumed >= expected) {
            entry.complete = now;
            completed.release();
        }
    }

    QHash<quint16, Arrivals> byPort; // the main thread, while the devices play
};

class SecondMessageScene : public CountingScene
{
public:
    SecondMessageScene(Side &side, const Figures::SecondMessages &played)
        : CountingScene(side, MessageBytes),
          plan(played)
    {
        expected = (plan.warm ? 3 : 2) * MessageBytes;
    }

    int inTime()
    {
        play([this] {
            sendMessages();
            completed.tryAcquire(plan.devices, InTime / 1ms);
        });
        int count = 0;
        for (std::size_t i = 0; i < devices.size(); ++i) {
            const Arrivals result = arrivals(devices[i]);
            count += result.consumed >= expected && result.complete - sent[i] <= InTime;
        }
        return count;
    }

private:
    void sendMessages()
    {
        connectDevices(plan.devices);
        for (int i = 0; plan.warm && i < plan.devices; ++i)
            devices[std::size_t(i)].send(message(i, 0));
        if (plan.warm)
            std::this_thread::sleep_for(OfferIsDueAgain);
        for (int i = 0; i < plan.devices; ++i) {
            const NativeSocket &device = devices[std::size_t(i)];
            device.send(message(i, 1));
            waitBusily(std::chrono::microseconds(plan.gapUs));
            sent.push_back(Clock::now());
            device.send(message(i, 2));
            std::this_thread::sleep_for(BetweenDevices);
        }
    }

    const Figures::SecondMessages plan;
    std::vector<Clock::time_point> sent; // when the second messages were sent, by device
};

class LargeMessageScene : public CountingScene
{
public:
    LargeMessageScene(Side &side, const Figures::LargeMessages &played)
        : CountingScene(side, 1),
          plan(played),
          large(plan.bytes - plan.bytes % MessageBytes, 'x')
    {}

    QList<double> milliseconds()
    {
        play([this] { connectDevices(plan.connections); });
        sendToAll(message(0, 0));
        for (int i = 0; plan.grown && i < MessagesToGrow; ++i)
            sendToAll(large);
        leastAnswered = large.size();
        sendToAll(large);

        QList<double> result;
        for (std::size_t i = 0; i < devices.size(); ++i)
            result.append(::milliseconds(arrivals(devices[i]).complete - sent[i]));
        std::sort(result.begin(), result.end());
        return result;
    }

private:
    static constexpr int MessagesToGrow = 3;

    // Returns when the host has all bytes.
    void sendToAll(const QByteArray &bytes)
    {
        expected += bytes.size();
        play([&] {
            std::this_thread::sleep_for(OfferIsDueAgain);
            sent.clear();
            for (const NativeSocket &device : devices) {
                sent.push_back(Clock::now());
                device.send(bytes);
                std::this_thread::sleep_for(BetweenLargeMessages);
            }
            completed.acquire(plan.connections);
        });
    }

    const Figures::LargeMessages plan;
    const QByteArray large;
    std::vector<Clock::time_point> sent; // when the latest message was sent, by device
};

class ClosingScene : public Scene
{
public:
    ClosingScene(Side &side, bool queued) : Scene(side, SlowLog)
    {
        QObject::connect(
                plugin.get(), &IInputPlugin::receivedData, plugin.get(),
                [this](const shared_parsedData &record) {
                    lastRecords[record->getPeerPort()] = nextInOrder();
                    received.release();
                },
                queued ? Qt::QueuedConnection : Qt::DirectConnection);
    }
    ~ClosingScene() override { end(); }

    int recordsBeforeLine(int count)
    {
        play([this, count] {
            connectDevices(count);
            for (int i = 0; i < count; ++i)
                devices[std::size_t(i)].send(message(i, 0));
            received.acquire(count);
            for (NativeSocket &device : devices)
                device.close();
            received.acquire(count);
            closed.acquire(count);
        });
        int result = 0;
        for (auto line = closingLines.cbegin(); line != closingLines.cend(); ++line)
            result += lastRecords.value(line.key()) < *line;
        return result;
    }

protected:
    void note(const TappedLine &line) override
    {
        Scene::note(line);
        if (!line.text.contains(QLatin1String("closing connection")))
            return;
        const qsizetype end = line.text.indexOf(QLatin1String(" (received"));
        const qsizetype begin = line.text.lastIndexOf(QLatin1Char(':'), end) + 1;
        closingLines[line.text.mid(begin, end - begin).toUShort()] = line.order;
        closed.release();
    }

private:
    QHash<quint16, qint64> lastRecords; // places in the order, by port; the main thread
    QHash<quint16, qint64> closingLines; // places in the order, by port; under the tap's mutex
    QSemaphore received;
    QSemaphore closed;
};

} // namespace

int Figures::secondMessagesInTime(Side &side, const SecondMessages &plan)
{
    return SecondMessageScene(side, plan).inTime();
}

QList<double> Figures::largeMessages(Side &side, const LargeMessages &plan)
{
    return LargeMessageScene(side, plan).milliseconds();
}

int Figures::recordsBeforeClosingLine(Side &side, int connections, bool queued)
{
    return ClosingScene(side, queued).recordsBeforeLine(connections);
}
