// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "episode.h"

#include "linesorter.h"
#include "loadmeter.h"
#include "scripteddevice.h"
#include "scriptedhost.h"
#include "scriptwriter.h"
#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/tlsengines.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QRegularExpression>
#include <QtCore/QSemaphore>
#include <QtCore/QTimer>

#include <memory>

using namespace std::chrono_literals;

namespace {

constexpr auto BeforeStart = 50ms;
constexpr auto CheckInterval = 2000ms;
constexpr auto LookEvery = 5ms;
constexpr auto SlowLog = 200us; // per line

bool isPluginsDoing(Ending ending)
{
    return ending == Ending::Stop || ending == Ending::Destroy;
}

/*!
    One play of an episode on one side.

    Thread: the main one, which is the plugin's; a connector's, and one for each device.
    Locks:  the tap's mutex guards lines and created.
*/
class Play
{
public:
    Play(Side &side, const EpisodePlan &played);
    EpisodeResult result();

private:
    void startPlugin(Side &side);
    QHostAddress listening() const;
    QJsonObject config(const Side &side) const;
    void note(const TappedLine &line);
    void connectAll();
    void startAll();
    void startDevice(std::size_t number, Clock::time_point zero);
    Clock::time_point startOf(std::size_t number) const;
    void askPlugin();
    void endByPlugin();
    bool isOver();
    void runUntil(const std::function<bool()> &condition);

    const EpisodePlan &plan;
    const QHostAddress address;
    quint16 port = 0;
    QHash<quint16, int> numbers; // of connections, by the devices' ports; fixed before any connects
    EpisodeResult done;
    std::vector<RawLine> lines;
    std::vector<Clock::time_point> created; // when each client was created
    std::atomic<int> closed{0};
    std::atomic<int> threadsFinished{0};
    std::atomic<int> sizesLogged{0}; // tasks that have logged their size
    Clock::time_point start; // of the scripts that wait until all are connected
    QSemaphore clients;
    QSemaphore connected; // released when all devices are connected
    std::atomic<int> playing{0}; // devices that play
    std::vector<std::unique_ptr<ScriptedDevice>> devices;
    std::vector<std::thread> deviceThreads;
    LoadMeter meter;
    std::unique_ptr<LogTap> tap;
    IInputPlugin *plugin = nullptr; // raw: slots use it while it is being deleted
    std::unique_ptr<ScriptedHost> host;
};

Play::Play(Side &side, const EpisodePlan &played) : plan(played), address(testAddress())
{
    const std::size_t count = std::size_t(plan.scripts.size());
    done.traces.resize(count);
    created.resize(count);
    tap = std::make_unique<LogTap>([this](const TappedLine &line) { note(line); },
                                   plan.slowLog ? SlowLog : 0us);
    // Before the devices get their ports: a device with the plugin's port would connect to itself.
    startPlugin(side);
    host = std::make_unique<ScriptedHost>(plugin, port);
    for (std::size_t i = 0; i < count; ++i) {
        const Script &script = plan.scripts.at(qsizetype(i));
        devices.push_back(std::make_unique<ScriptedDevice>(script, plan.tlsVersion, address));
        numbers.insert(devices[i]->localPort, int(i));
        host->expect(devices[i]->localPort, int(i), script, done.traces[i]);
    }
    if (numbers.size() != plan.scripts.size())
        qFatal("two devices have one port");
}

// Tries again if another process has taken the free port: with all addresses this can happen.
void Play::startPlugin(Side &side)
{
    do {
        delete plugin;
        lines.clear();
        port = freePort(listening());
        plugin = side.library.create(config(side)).release();
        if (!plugin->start())
            qFatal("the plugin does not start");
    } while (!isListening(*plugin));
}

QHostAddress Play::listening() const
{
    return plan.wildcard ? QHostAddress(QHostAddress::AnyIPv4) : address;
}

QJsonObject Play::config(const Side &side) const
{
    QJsonObject object = tcpConfig(port, listening());
    object[QStringLiteral("threadpoolSize")] = plan.threads();
    object[QStringLiteral("timeout")] = plan.timeoutSeconds;
    if (plan.prompt)
        object[QStringLiteral("prompt")] = true;
    if (plan.tlsVersion != 0)
        object[QStringLiteral("ssl")] = withEngine(serverTls(), side.engine);
    return object;
}

EpisodeResult Play::result()
{
    std::thread connector([this] { connectAll(); });
    runUntil([this] { return connected.tryAcquire(); });
    connector.join();
    if (plan.scripts.first().spaced)
        askPlugin();
    startAll();
    if (isPluginsDoing(plan.ending))
        endByPlugin();
    else
        runUntil([this] { return isOver(); });
    for (Trace &trace : done.traces)
        trace.overdue = !isPluginsDoing(plan.ending) && !trace.ended;
    if (plan.ending != Ending::Destroy) {
        host->stopAnswering();
        delete plugin;
    }
    for (std::thread &thread : deviceThreads)
        thread.join();
    host.reset();
    tap.reset();
    for (std::size_t i = 0; i < created.size(); ++i) {
        Trace &trace = done.traces[i];
        trace.created = created[i];
        const auto stood =
                meter.longestDelay(trace.zero, trace.ended ? trace.endedAt : Clock::now());
        trace.heldUp = std::chrono::ceil<std::chrono::milliseconds>(
                std::max<Clock::duration>(stood, trace.workerWaited + trace.deviceWaited));
    }
    LineSorter sorter(port, numbers, plan.ownThreads);
    done.pluginLines = sorter.sort(lines, done.traces);
    done.status = sorter.sortedStatus(done.status);
    return std::move(done);
}

void Play::note(const TappedLine &line)
{
    lines.push_back({line, ScriptedHost::callingFor()});
    static const QRegularExpression client(
            QStringLiteral("^D: TcpClient: id = '.*:(\\d+)', local"));
    static const QRegularExpression closing(
            QStringLiteral("^D: TcpClient: closing connection .*:(\\d+) \\(received (\\d+) bytes"));
    const auto number = [this](const QRegularExpressionMatch &match) {
        return std::size_t(numbers.value(match.captured(1).toUShort()));
    };
    if (const auto match = client.match(line.text); match.hasMatch()) {
        created[number(match)] = line.at;
        done.traces[number(match)].workerWaited = -timeHeldUp();
        clients.release();
    } else if (const auto end = closing.match(line.text); end.hasMatch()) {
        done.traces[number(end)].ended = true;
        done.traces[number(end)].endedAt = line.at;
        done.traces[number(end)].workerWaited += timeHeldUp();
        done.traces[number(end)].received = end.captured(2).toLongLong();
        ++closed;
    } else if (line.text.contains(QLatin1String("TI2: thread finished"))) {
        ++threadsFinished;
    } else if (line.text.contains(QLatin1String("#clients = "))) {
        ++sizesLogged;
    }
}

// One after another, so that each worker thread gets the connection that was meant for it.
void Play::connectAll()
{
    for (std::size_t i = 0; i < devices.size(); ++i) {
        devices[i]->connectTo(address, port);
        if (plan.scripts.at(qsizetype(i)).eager)
            startDevice(i, Clock::now());
        if (!clients.tryAcquire(1, LoadHangGuardMs))
            qFatal("device %d was not taken", int(i));
    }
    connected.release();
}

void Play::startAll()
{
    start = Clock::now() + BeforeStart;
    for (std::size_t i = 0; i < devices.size(); ++i) {
        if (!plan.scripts.at(qsizetype(i)).eager)
            startDevice(i, startOf(i));
    }
}

void Play::startDevice(std::size_t number, Clock::time_point zero)
{
    ++playing;
    deviceThreads.emplace_back([this, number, zero] {
        devices[number]->play(zero, done.traces[number]);
        --playing;
    });
}

// Asks what a host may ask at any time. Nothing else happens meanwhile.
void Play::askPlugin()
{
    const auto debug = [](const QString &) { return QStringList(QStringLiteral("debug")); };
    const auto answering = QObject::connect(plugin, &IInputPlugin::query, debug);
    QMetaObject::invokeMethod(plugin, "showThreads");
    QObject::disconnect(answering);
    done.status = plugin->getStatus();
    plugin->drop(5);
    runUntil([this] { return sizesLogged == plan.threads(); });
    plugin->discard(1, {});
    plugin->discard(1, {{QStringLiteral("task"), QStringLiteral("x")}});
    plugin->discard(1,
                    {{QStringLiteral("task"), QStringLiteral("0")},
                     {QStringLiteral("client"), QStringLiteral("nobody")}});
    plugin->discard(1, {{QStringLiteral("task"), QStringLiteral("100000")}});
}

Clock::time_point Play::startOf(std::size_t number) const
{
    const std::chrono::milliseconds after(plan.scripts.at(qsizetype(number)).startMs);
    if (!plan.scripts.at(qsizetype(number)).spaced || isPluginsDoing(plan.ending))
        return start + after;
    auto zero = created[number] + after;
    while (zero < start)
        zero += CheckInterval;
    return zero;
}

bool Play::isOver()
{
    return playing == 0 && closed == int(devices.size()) && host->answersToCome() == 0;
}

void Play::runUntil(const std::function<bool()> &condition)
{
    QTimer timer; // wakes the loop up, and notes how late the loop is
    timer.setTimerType(Qt::PreciseTimer);
    auto due = Clock::now() + LookEvery;
    QObject::connect(&timer, &QTimer::timeout, &timer, [&] {
        meter.note(due, Clock::now() - due);
        due = Clock::now() + LookEvery;
    });
    timer.start(LookEvery);
    const auto guard = Clock::now() + std::chrono::milliseconds(LoadHangGuardMs);
    while (!condition() && Clock::now() < guard)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

void Play::endByPlugin()
{
    const auto end = start + std::chrono::milliseconds(ScriptWriter::PluginEndMs);
    runUntil([end] { return Clock::now() >= end; });
    const auto now = Clock::now();
    for (Trace &trace : done.traces)
        trace.end = now;
    if (plan.ending == Ending::Destroy) {
        host->stopAnswering();
        delete plugin;
        return;
    }
    plugin->stop();
    runUntil([this] { return isOver() && threadsFinished == plan.threads(); });
}

} // namespace

EpisodeResult playEpisode(Side &side, const EpisodePlan &plan)
{
    return Play(side, plan).result();
}
