// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "cases.h"

#include "plugin/countersevent.h"
#include "scene.h"
#include "tests/kit/nofreedescriptors.h"

#include <QtCore/QJsonArray>
#include <QtNetwork/QTcpServer>

namespace {

// Log lines of one connection, as listed in the host guide.
constexpr int LinesSilent = 6; // for a connection without a byte, from its acceptance to its end
constexpr int LinesServed =
        LinesSilent + 3; // the first read, and both discards if they come too late
constexpr int LinesConstant = 40; // for start, worker threads and the two lines about descriptors

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

void sendUntilClosed(TlsDevice &device, bool tls)
{
    if (tls && !device.handshake())
        return;
    const QByteArray piece(16384, 'x');
    bool isSent = true;
    while (isSent) {
        if (tls)
            device.write(piece);
        isSent = tls ? device.flush() : device.socket.send(piece);
    }
}

void startIn(Scene &scene)
{
    if (!scene.plugin->start() || !isListening(*scene.plugin))
        qFatal("the plugin does not listen");
}

// causes: connections of the devices that do their worst. linesEach: allowed lines for each of
// them.
void count(Outcome &outcome, Scene &scene, int causes, int linesEach)
{
    scene.plugin.reset(); // after that it logs no more
    outcome.transport = scene.transport.name();
    outcome.connections = causes + scene.goodDevices;
    outcome.lines = scene.lines();
    outcome.allowedLines = causes * linesEach + scene.goodDevices * LinesServed + LinesConstant;
}

// A second address that only this process uses.
QHostAddress otherAddress()
{
    return QHostAddress(testAddress().toIPv4Address() + (64U << 16U));
}

NativeSocket connectFromOther(quint16 port)
{
    NativeSocket peer = NativeSocket::unconnected(testAddress());
    if (!peer.bind(otherAddress(), 0) || !peer.connect(testAddress(), port))
        qFatal("another address cannot connect");
    return peer;
}

void raiseDescriptorLimit()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

Outcome NeverDeaf::descriptorsOut(const Transport &transport)
{
    Outcome outcome;
    outcome.cause = text("descriptor limit reached, then released");
    Scene scene(transport);
    startIn(scene);
    outcome.before = scene.serveMedian();
    Scene::GoodDevice waiting(scene);
    {
        const NoFreeDescriptors none;
        waiting.go();
        serveUntil([&] { return scene.logged(text("Out of file descriptors")) > 0; });
    }
    outcome.after = scene.serve();
    serveUntil([&] { return waiting.isServed(); });
    outcome.during = waiting.servedAfter();
    count(outcome, scene, 0, 0);
    return outcome;
}

Outcome NeverDeaf::workerWithoutDescriptors(const Transport &transport)
{
    Outcome outcome;
    outcome.cause = text("no descriptors for the first worker thread");
    {
        Scene undisturbed(transport);
        startIn(undisturbed);
        outcome.before = undisturbed.serveMedian();
    }
    Scene scene(transport); // its plugin has no worker thread yet
    startIn(scene);
    Scene::GoodDevice waiting(scene);
    {
        NoFreeDescriptors none;
        none.giveBack(1); // enough for the connection; a worker thread needs two more
        waiting.go();
        serveUntil([&] { return scene.logged(text("no thread found")) > 0; });
    }
    const qint64 ended = scene.clock.nsecsElapsed();
    outcome.after = scene.serve();
    serveUntil([&] { return waiting.isServed(); });
    outcome.during = waiting.servedAfter();
    if (waiting.isServed())
        outcome.after = std::max(outcome.after, waiting.servedAfter(ended));
    count(outcome, scene, 0, 0);
    return outcome;
}

Outcome NeverDeaf::silentPeers(const Transport &transport, int peers)
{
    Outcome outcome;
    outcome.cause = text("%1 silent TLS peers").arg(peers);
    raiseDescriptorLimit();
    Scene scene(transport);
    startIn(scene);
    outcome.before = scene.serveMedian();
    std::vector<NativeSocket> silent;
    for (int n = 0; n < peers; ++n) // the backlog has room for them
        silent.push_back(NativeSocket::connectedTo(testAddress(), scene.port));
    scene.serve(); // this device is accepted after all of them
    outcome.during = scene.serveMedian();
    silent.clear();
    outcome.after = scene.serve();
    count(outcome, scene, peers, 1);
    return outcome;
}

Outcome NeverDeaf::slowHeaders(const Transport &transport, int headers)
{
    Outcome outcome;
    outcome.cause = text("%1 slow PROXY headers").arg(headers);
    raiseDescriptorLimit();
    const QJsonObject rule{{text("from"), QJsonArray{otherAddress().toString()}},
                           {text("timeout"), 600}};
    Scene scene(transport, {{text("proxyProtocol"), rule}});
    startIn(scene);
    outcome.before = scene.serveMedian();
    std::vector<NativeSocket> slow;
    for (int n = 0; n < headers; ++n) {
        slow.push_back(connectFromOther(scene.port));
        slow.back().send("PROXY TCP4 203.0");
    }
    scene.serve(); // this device is accepted after all of them
    outcome.during = scene.serveMedian();
    slow.clear();
    outcome.after = scene.serve();
    count(outcome, scene, headers, 0); // a warning or two for all of them
    return outcome;
}

Outcome NeverDeaf::refusedPeers(const Transport &transport, int peers)
{
    Outcome outcome;
    outcome.cause = text("%1 connects that a limit refuses").arg(peers);
    // The kernel chooses the addresses of good devices.
    const QJsonArray good{text("127.0.0.1"), testAddress().toString()};
    const QJsonObject limits{{text("maxConnectionsPerAddress"), 1}, {text("exempt"), good}};
    Scene scene(transport, {{text("limits"), limits}, {text("timeout"), 600}});
    startIn(scene);
    outcome.before = scene.serveMedian();
    TlsDevice first(TLS1_3_VERSION); // it stays, so that all others are refused
    first.socket = connectFromOther(scene.port);
    std::atomic<bool> isReady{!transport.isTls()};
    std::thread shaker(
            [&] { isReady = !transport.isTls() || (first.handshake() && first.flush()); });
    if (!serveUntil([&] { return isReady.load(); }))
        qFatal("the one device that is not refused has no handshake");
    shaker.join();

    outcome.during = scene.serveDuring([&] {
        for (int n = 0; n < peers; ++n)
            connectFromOther(scene.port);
    });
    outcome.after = scene.serve(); // accepted after all of them
    // Some of them, not all: the kernel drops connections when its accept queue is full.
    if (CountersEvent::countersOf(*scene.plugin)->refusedByLimit == 0)
        qFatal("the limit refuses nobody");
    count(outcome, scene, 1, LinesSilent); // one connection; the refused ones cause a line a minute
    outcome.connections += peers;
    return outcome;
}

Outcome NeverDeaf::pausedPeers(const Transport &transport, int peers)
{
    constexpr int Buffer = 65536;
    constexpr int LargestReads = Buffer / 1000; // logged reads until the buffer is full
    Outcome outcome;
    outcome.cause = text("%1 devices that a limit has paused").arg(peers);
    Scene scene(transport, {{text("limits"), QJsonObject{{text("connectionBuffer"), Buffer}}}});
    startIn(scene);
    outcome.before = scene.serveMedian();

    scene.consumesAll = false;
    std::vector<TlsDevice> devices;
    std::vector<std::thread> threads;
    for (int n = 0; n < peers; ++n) {
        devices.emplace_back(TLS1_3_VERSION);
        if (!devices.back().connect(testAddress(), scene.port))
            qFatal("a device cannot connect");
    }
    for (TlsDevice &device : devices)
        threads.emplace_back([&] { sendUntilClosed(device, transport.isTls()); });
    const auto arePaused = [&] {
        return CountersEvent::countersOf(*scene.plugin)->paused == quint64(peers);
    };
    if (!serveUntil(arePaused))
        qFatal("not all are paused");
    outcome.during = scene.serveMedian();

    for (const TlsDevice &device : devices)
        ::shutdown(device.socket.descriptor(), SHUT_RDWR);
    for (std::thread &thread : threads)
        thread.join();
    outcome.after = scene.serve();
    count(outcome, scene, peers, LinesServed + LargestReads);
    return outcome;
}

Outcome NeverDeaf::garbageHandshakes(const Transport &transport, int peers)
{
    Outcome outcome;
    outcome.cause = text("%1 garbage handshakes").arg(peers);
    const QByteArray request("GET / HTTP/1.0\r\n\r\n");
    const QByteArray brokenHello("\x16\x03\x01\x00\x05hello", 10);
    Scene scene(transport);
    startIn(scene);
    outcome.before = scene.serveMedian();
    outcome.during = scene.serveDuring([&] {
        for (int n = 0; n < peers; ++n) {
            NativeSocket peer = NativeSocket::connectedTo(testAddress(), scene.port);
            peer.send(n % 2 == 0 ? request : brokenHello);
            char answer[64];
            while (::recv(peer.descriptor(), answer, sizeof answer, 0) > 0) {}
        }
    });
    outcome.after = scene.serve();
    count(outcome, scene, peers, 1);
    return outcome;
}

Outcome NeverDeaf::closersAtOnce(const Transport &transport, int peers)
{
    Outcome outcome;
    outcome.cause = text("%1 connects that close at once").arg(peers);
    Scene scene(transport);
    startIn(scene);
    outcome.before = scene.serveMedian();
    outcome.during = scene.serveDuring([&] {
        for (int n = 0; n < peers; ++n)
            NativeSocket::connectedTo(testAddress(), scene.port);
    });
    outcome.after = scene.serve();
    count(outcome, scene, peers, transport.isTls() ? 1 : LinesSilent);
    return outcome;
}

Outcome NeverDeaf::resetsInBacklog(const Transport &transport, int peers)
{
    constexpr int Invalid = 2; // lines of a broken socket
    Outcome outcome;
    outcome.cause = text("%1 connections reset in the backlog").arg(peers);
    raiseDescriptorLimit();
    Scene scene(transport);
    startIn(scene);
    outcome.before = scene.serveMedian();
    // This runs in the plugin's thread, so nothing is accepted meanwhile.
    std::vector<NativeSocket> waiting;
    Scene::GoodDevice among(scene);
    for (int n = 0; n < peers; ++n) {
        waiting.push_back(NativeSocket::connectedTo(testAddress(), scene.port));
        if (n == peers / 2)
            among.go();
    }
    for (NativeSocket &peer : waiting)
        peer.reset();
    outcome.after = scene.serve();
    serveUntil([&] { return among.isServed(); });
    outcome.during = among.servedAfter();
    count(outcome, scene, peers, transport.isTls() ? 1 : LinesSilent + Invalid);
    return outcome;
}

Outcome NeverDeaf::portTaken(const Transport &transport)
{
    constexpr int LinesHandedOverTwice = 3; // more lines after a second start()
    Outcome outcome;
    outcome.cause = text("port taken at start, then freed");
    {
        Scene undisturbed(transport);
        startIn(undisturbed);
        outcome.before = undisturbed.serveMedian();
    }
    Scene scene(transport);
    QTcpServer other;
    if (!other.listen(testAddress(), scene.port) || !scene.plugin->start()
        || isListening(*scene.plugin))
        qFatal("the port is not taken");
    other.close();
    scene.plugin->stop();
    startIn(scene);
    outcome.after = scene.serve();
    count(outcome, scene, 1, LinesHandedOverTwice);
    --outcome.connections; // there is only the good one
    return outcome;
}
