// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// How connections end.

#include "hostcheck/library/checks.h"
#include "hostcheck/library/subject.h"

#include <QtCore/QElapsedTimer>

namespace hostcheck {
namespace {

// A coarse timer may be early by a twentieth. Nothing here is too early on a slow machine.
constexpr int EarliestMs = 940; // of a second
constexpr int IdleS = 1;
// A machine may stand still for two seconds between a connection and its first offer.
constexpr int RenewedIdleS = 3;
constexpr int PauseMs = 1000;

void idleTimeout(Subject &subject)
{
    subject.start({{QStringLiteral("timeout"), IdleS}});
    QElapsedTimer clock;
    clock.start();
    const Device device(subject.address(), subject.port());
    subject.waitFor([&] { return device.isEnded(); }, QStringLiteral("it is not closed"));
    const qint64 elapsed = clock.elapsed();
    require(elapsed >= IdleS * EarliestMs, QStringLiteral("closed after %1 ms").arg(elapsed));
    require(subject.log().has(QtDebugMsg, QStringLiteral("TcpClient: timeout")),
            QStringLiteral("no line TcpClient: timeout"));
    requireEqual(subject.log().texts(QStringLiteral("(received 0 bytes, 0 msgs)")).size(), 1,
                 QStringLiteral("closing lines with no bytes"));
    requireEqual(subject.records().size(), 0, QStringLiteral("records"));
}

// An offer renews the time-out.
void idleRenewed(Subject &subject)
{
    subject.start({{QStringLiteral("timeout"), RenewedIdleS}});
    Device device(subject.address(), subject.port());
    subject.pause(PauseMs);
    QElapsedTimer clock;
    clock.start();
    device.send("x");
    subject.waitForRecord(device, 1);
    subject.waitFor([&] { return device.isEnded(); }, QStringLiteral("it is not closed"));
    const qint64 elapsed = clock.elapsed();
    require(elapsed >= RenewedIdleS * EarliestMs,
            QStringLiteral("closed %1 ms after an offer").arg(elapsed));
}

void lastOffer(Subject &subject)
{
    subject.start();
    {
        Device device(subject.address(), subject.port());
        device.send("a");
        subject.waitForRecord(device, 1);
    }
    // On a slow machine as well, nothing else offers a single byte again.
    subject.waitFor([&] { return subject.records().size() == 2; }, QStringLiteral("no last offer"));
    quint16 port = 0;
    {
        Device device(subject.address(), subject.port());
        port = device.port();
        device.send("a");
        subject.waitForRecord(device, 1);
        device.send("b"); // waits for 200 ms at least
    }
    subject.waitFor(
            [&] { return subject.log().texts(QStringLiteral("closing connection")).size() == 2; },
            QStringLiteral("no closing line"));
    subject.waitFor([&] { return subject.records().last()->getOriginalMessage() == "ab"; },
                    QStringLiteral("no last offer with all bytes"));
    requireEqual(subject.records().last()->getPeerPort(), port, QStringLiteral("its port"));
    requireEqual(subject.log().texts(QStringLiteral("(received 2 bytes, 2 msgs)")).size(), 1,
                 QStringLiteral("closing lines with 2 bytes in 2 reads"));
}

void nothingLeftNoOffer(Subject &subject)
{
    subject.start({{QStringLiteral("threadpoolSize"), 1}});
    {
        Device device(subject.address(), subject.port());
        device.send("a");
        subject.discard(subject.waitForRecord(device, 1), 1);
        subject.pause(250); // the discard may be carried out later
    }
    subject.waitFor(
            [&] { return !subject.log().texts(QStringLiteral("closing connection")).isEmpty(); },
            QStringLiteral("no closing line"));
    Device fence(subject.address(), subject.port());
    fence.send("fence");
    subject.waitForRecord(fence, 1);
    requireEqual(subject.records().size(), 2, QStringLiteral("records"));
}

void clientIsForgotten(Subject &subject)
{
    IInputPlugin &plugin = subject.start();
    {
        Device device(subject.address(), subject.port());
        device.send("a");
        subject.waitForRecord(device, 1);
    }
    subject.waitFor([&] { return plugin.getStatus().count(QLatin1Char('\n')) == 1; },
                    QStringLiteral("the status still has the connection"));
    subject.log().clear();
    subject.discard(subject.records().last(), 1);
    requireEqual(subject.log().texts(QStringLiteral("discard for non-existing client ")).size(), 1,
                 QStringLiteral("lines that the client is gone"));
}

void stopDelivers(Subject &subject)
{
    IInputPlugin &plugin = subject.start();
    Device device(subject.address(), subject.port());
    device.send("abc");
    subject.waitForRecord(device, 1);
    require(plugin.stop(), QStringLiteral("stop() returned false"));
    requireEqual(subject.waitForRecord(device, 2)->getOriginalMessage(), QByteArray("abc"),
                 QStringLiteral("last offer"));
}

void destructorDelivers(Subject &subject)
{
    subject.start();
    Device device(subject.address(), subject.port());
    device.send("abc");
    subject.waitForRecord(device, 1);
    subject.destroy();
    requireEqual(subject.offersOf(device), {"abc", "abc"},
                 QStringLiteral("offers when the destructor has returned"));
    subject.waitFor([&] { return device.isEnded(); }, QStringLiteral("the connection stays open"));
}

// Many connections at once, some silent: the destructor ends every thread.
void destructorEndsAll(Subject &subject)
{
    subject.start();
    std::vector<std::unique_ptr<Device>> devices;
    for (int i = 0; i < 40; ++i) {
        devices.push_back(std::make_unique<Device>(subject.address(), subject.port()));
        if (i % 2 == 0)
            devices.back()->send(QByteArray::number(i));
    }
    subject.waitForRecord(*devices[38], 1);
    subject.destroy();
    for (const auto &device : devices)
        subject.waitFor([&] { return device->isEnded(); },
                        QStringLiteral("a connection stays open"));
}

} // namespace

const std::vector<Check> &endChecks()
{
    static const std::vector<Check> checks = {
            {"idle-time-out", idleTimeout},
            {"idle-time-out-renewed", idleRenewed},
            {"last-offer", lastOffer},
            {"no-last-offer", nothingLeftNoOffer},
            {"client-forgotten", clientIsForgotten},
            {"stop-delivers", stopDelivers},
            {"destructor-delivers", destructorDelivers},
            {"destructor-ends-all", destructorEndsAll},
    };
    return checks;
}

} // namespace hostcheck
