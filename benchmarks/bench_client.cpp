// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// What a client's buffer costs: appending what was read, and cutting what the host has consumed.

#include "tcpinput/receive/clock.h"
#include "tcpinput/tcpclient2.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <benchmark/benchmark.h>

#include <memory>

namespace {

constexpr int MessageBytes = 100;
constexpr int TimeoutMs = 600000;

/*!
    A client on a connection over loopback, and a host that keeps its last offer, as hosts do while
    they parse it.
*/
class Bench
{
public:
    Bench()
    {
        QTcpServer server;
        server.listen(QHostAddress::LocalHost);
        device.connectToHost(QHostAddress::LocalHost, server.serverPort());
        server.waitForNewConnection(-1);
        QTcpSocket *accepted = server.nextPendingConnection();
        accepted->setParent(nullptr);
        client =
                std::make_unique<TcpClient2>(nullptr, QStringLiteral("bench"), accepted, TimeoutMs);
        QObject::connect(client.get(), &TcpClient2::readyRead,
                         [this](const Connection &offer) { kept = offer.getData(); });
    }

    // Sends, and returns when the client has offered all of it.
    void receive(const QByteArray &bytes)
    {
        kept = QByteArray();
        device.write(bytes);
        while (kept.size() < bytes.size())
            QCoreApplication::processEvents(QEventLoop::AllEvents);
    }

    // Takes the first bytes of the offer; returns when the client has cut them, and has made the
    // next offer of what is left.
    void take(int bytes)
    {
        client->discard(bytes);
        QCoreApplication::sendPostedEvents(client.get());
    }

private:
    QTcpSocket device;
    std::unique_ptr<TcpClient2> client;
    QByteArray kept;
};

// The host takes one message of each offer; every cut makes the next offer.
void takeOneMessagePerOffer(benchmark::State &state)
{
    Bench bench;
    bench.receive(QByteArray(static_cast<qsizetype>(state.range(0)), 'x'));
    for ([[maybe_unused]] auto turn : state)
        bench.take(MessageBytes);
}

void receiveAndTake(benchmark::State &state)
{
    Bench bench;
    const QByteArray message(static_cast<qsizetype>(state.range(0)), 'x');
    for ([[maybe_unused]] auto turn : state) {
        bench.receive(message);
        bench.take(static_cast<int>(message.size()));
    }
}

// A clock that goes on by a second at each call: the client offers every read, and no offer waits
// for its interval.
qint64 nextSecond()
{
    static qint64 now = 0;
    return now += 1000;
}

void dropLine(QtMsgType, const QMessageLogContext &, const QString &) {}

} // namespace

// The smallest backlog is enough for 500 cuts. The larger ones hardly shrink meanwhile.
BENCHMARK(takeOneMessagePerOffer)
        ->ArgName("backlog")
        ->Arg(64 << 10)
        ->Arg(1 << 20)
        ->Arg(16 << 20)
        ->Iterations(500);
BENCHMARK(receiveAndTake)->ArgName("bytes")->Arg(200)->Arg(64 << 10);

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    qInstallMessageHandler(dropLine);
    Clock::setSources(&nextSecond, &std::chrono::steady_clock::now);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
