// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "round.h"

#include "device.h"
#include "logwatch.h"
#include "matrixhost.h"
#include "stream.h"
#include "tests/kit/certificates.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/serving.h"

#include <QtCore/QJsonArray>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr int BytewiseMessages = 40;
constexpr int RandomMessages = 100;
constexpr int UnconsumedMessages = 1; // with more, repeated offers would restart the idle time-out
constexpr int ConnectionBuffer = 16384; // smaller than the longest stream
constexpr int TotalBuffer = 16 << 20;
constexpr int NoTimeoutS = 600;
constexpr int IdleTimeoutS = 3;

QJsonObject configFor(const RoundPlan &plan, quint16 port)
{
    QJsonObject config = tcpConfig(port);
    config.insert(QStringLiteral("offsets"), plan.keys != Keys::None);
    if (plan.keys == Keys::All) {
        config.insert(QStringLiteral("prompt"), true);
        config.insert(QStringLiteral("ends"), true);
        config.insert(QStringLiteral("limits"),
                      QJsonObject{{QStringLiteral("connectionBuffer"), ConnectionBuffer},
                                  {QStringLiteral("totalBuffer"), TotalBuffer}});
        config.insert(QStringLiteral("proxyProtocol"),
                      QJsonObject{{QStringLiteral("from"), QJsonArray{testAddress().toString()}}});
    }
    config.insert(QStringLiteral("timeout"),
                  plan.ending == Ending::IdleTimeout ? IdleTimeoutS : NoTimeoutS);
    if (plan.transport != Transport::Tcp)
        config.insert(QStringLiteral("ssl"), withEngine(serverTls(), plan.engine));
    return config;
}

int messagesOf(const Cell &cell, const RoundPlan &plan)
{
    if (cell.ending == Ending::IdleTimeout && cell.host == HostKind::AtEnd)
        return UnconsumedMessages;
    if (cell.keys == Keys::All && cell.host == HostKind::AtEnd)
        return BytewiseMessages; // with more than the buffer holds, the device would wait for ever
    switch (cell.segmentation) {
    case Segmentation::Whole:
        return plan.wholeMessages;
    case Segmentation::Bytes:
        return BytewiseMessages;
    case Segmentation::Random:
        return RandomMessages;
    }
    return 0;
}

//! One plugin, one host, and the devices of a round.
class Round
{
public:
    explicit Round(const RoundPlan &roundPlan)
        : plan(roundPlan),
          port(freePort()),
          plugin(library.create(configFor(plan, port))),
          host(*plugin, plan.keys)
    {
        if (!plugin->start() || !isListening(*plugin))
            qFatal("the plugin does not listen");
        makeDevices();
    }

    QList<CellResult> play()
    {
        start();
        const auto begun = [this] { return atHalf == devices.size(); };
        const auto ended = [this] { return allHaveEnded(); };
        const bool cutShort = isCutShort(plan.ending);
        const bool complete = cutShort ? serveUntil(begun) : serveUntil(ended);
        if (cutShort)
            comeLate();
        if (plan.ending == Ending::HostStop)
            stop();
        plugin.reset(); // delivers the remaining records
        for (std::thread &thread : threads)
            thread.join();
        host.finish();
        if (!complete) // the hang guard was reached: report it as a failure
            ++cells.first().failed;
        return results();
    }

private:
    struct Player
    {
        Player(const Cell &cell, const QByteArray &stream, int number, qsizetype index)
            : device(cell, stream, static_cast<quint32>(number) + 1, testAddress()),
              result(index)
        {}

        CellDevice device;
        const qsizetype result; // index of its cell's result
        const MatrixHost::Guest *guest = nullptr;
    };

    void makeDevices()
    {
        for (const auto &segmentation : Segmentations) {
            for (const auto &kind : HostKinds) {
                const Cell cell{plan.ending,        plan.transport, plan.engine,
                                segmentation.value, kind.value,     plan.keys};
                cells.append(CellResult(cell));
                for (int n = 0; n < plan.repeats; ++n)
                    makeDevice(cell);
            }
        }
    }

    void makeDevice(const Cell &cell)
    {
        const int number = static_cast<int>(devices.size());
        const QByteArray stream = Stream::messages(number, messagesOf(cell, plan));
        devices.push_back(std::make_unique<Player>(cell, stream, number, cells.size() - 1));
        Player &player = *devices.back();
        player.guest = &host.expect(player.device.localPort, cell.host, stream);
    }

    void start()
    {
        for (const auto &player : devices) {
            threads.emplace_back([this, device = &player->device] {
                device->run(testAddress(), port, [this] { ++atHalf; });
                ++finished;
                if (!device->connected)
                    ++failed;
            });
        }
    }

    bool allHaveEnded() const
    {
        return finished == devices.size()
                && LogWatch::ended() + failed >= static_cast<qsizetype>(devices.size());
    }

    // Runs in the host's thread. So the plugin cannot accept these connections before it ends.
    void comeLate()
    {
        for (int n = 0; n < plan.lateComers; ++n) {
            late.push_back(NativeSocket::connectedTo(testAddress(), port));
            if (plan.transport == Transport::Tcp)
                late.back().send(Stream::messages(n, 1));
        }
    }

    void stop()
    {
        plugin->stop();
        serveUntil([] { return LogWatch::runningThreads() == 0; });
    }

    QList<CellResult> results()
    {
        const auto closed = LogWatch::closed();
        for (const auto &player : devices)
            judge(*player, closed.value(player->device.localPort, -1));
        if (isCutShort(plan.ending) && plan.transport == Transport::Tcp)
            cells.first().notTakenBytes += plan.lateComers * Stream::MessageBytes;
        if (isCutShort(plan.ending))
            cells.first().notTaken += plan.lateComers;
        return cells;
    }

    // received: bytes that the plugin's client received, or -1 if there was no client.
    void judge(const Player &player, qsizetype received)
    {
        const CellDevice &device = player.device;
        CellResult &result = cells[player.result];
        ++result.connections;
        result.accepted += device.accepted;
        result.outOfOrder += player.guest->oracle.outOfOrder();
        result.repeated += player.guest->oracle.repeated();
        if (plan.keys == Keys::All)
            result.wrongEnds += player.guest->wasToldItsEnd() ? 0 : 1;
        if (received < 0 && isCutShort(plan.ending)) {
            ++result.notTaken;
            result.notTakenBytes += device.accepted;
            return;
        }
        result.failed += device.connected ? 0 : 1;
        const qsizetype unread = device.accepted - std::max<qsizetype>(received, 0);
        qsizetype excused = unread;
        if (isCutShort(plan.ending)) {
            result.inKernel += unread;
        } else {
            excused = std::clamp<qsizetype>(unread, 0, device.unacknowledged);
            result.thrownAway += excused;
        }
        result.missing += player.guest->oracle.missing(device.accepted - excused);
    }

    const RoundPlan plan;
    const quint16 port;
    LogWatch log;
    LoadedLibrary library;
    std::unique_ptr<IInputPlugin> plugin;
    MatrixHost host;
    QList<CellResult> cells;
    std::vector<std::unique_ptr<Player>> devices;
    std::vector<NativeSocket> late;
    std::vector<std::thread> threads;
    std::atomic<std::size_t> atHalf{0};
    std::atomic<std::size_t> finished{0};
    std::atomic<qsizetype> failed{0};
};

} // namespace

void CellResult::add(const CellResult &other)
{
    connections += other.connections;
    accepted += other.accepted;
    missing += other.missing;
    outOfOrder += other.outOfOrder;
    repeated += other.repeated;
    thrownAway += other.thrownAway;
    inKernel += other.inKernel;
    notTaken += other.notTaken;
    notTakenBytes += other.notTakenBytes;
    wrongEnds += other.wrongEnds;
    failed += other.failed;
}

bool CellResult::isClean() const
{
    return missing == 0 && outOfOrder == 0 && failed == 0 && wrongEnds == 0
            && (repeated == 0 || cell.keys == Keys::None);
}

QList<CellResult> playRound(const RoundPlan &plan)
{
    return Round(plan).play();
}
