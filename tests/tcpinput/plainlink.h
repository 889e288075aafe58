// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/receivingsocket.h"
#include "tests/kit/nativesocket.h"
#include "tests/tcpinput/clientlink.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QPointer>

#include <algorithm>
#include <utility>

/*!
    A real connection: the socket that a server gives its plain clients, and a device without one.

    Nothing is left to chance. No more is sent than the kernel has room for, and all of it has
    arrived before the test goes on. Turns of the event loop leave out timers: the test fires those
    by itself.
*/
class PlainLink final : public ClientLink
{
public:
    PlainLink()
        : PlainLink(SocketPair::connected(QHostAddress(QStringLiteral("127.61.10.1")),
                                          QHostAddress(QStringLiteral("127.61.10.2")), 0,
                                          WantedRoom))
    {}
    ~PlainLink() override { device.reset(); } // a reset: no port waits for its peer

    QTcpSocket *socket() const override { return plain; }

    const std::vector<int> &sizes() const override
    {
        static const std::vector<int> all = {1,
                                             2,
                                             20,
                                             21,
                                             80,
                                             81,
                                             1000,
                                             1001,
                                             4096,
                                             ReceiveBytes - 1,
                                             ReceiveBytes,
                                             ReceiveBytes + 1,
                                             2 * ReceiveBytes,
                                             4 * ReceiveBytes + 1,
                                             9 * ReceiveBytes};
        return all;
    }
    qsizetype room() const override { return mostPending - pending.size(); }
    bool arrive(const QByteArray &bytes) override
    {
        pending += bytes;
        return device.send(bytes)
                && NativeSocket::waitForArrival(accepted, static_cast<int>(pending.size()));
    }
    void end(Choices &choices) override
    {
        switch (choices.below(3)) {
        case 0:
            device.close();
            break;
        case 1:
            device.finish();
            break;
        default:
            device.reset();
        }
        NativeSocket::waitForPeerEnd(accepted);
        pending.truncate(NativeSocket::arrived(accepted)); // a reset may throw away the rest
    }

    QByteArray unread() const override { return pending; }
    QByteArray nextRead() const override { return pending; }

    bool turn() override
    {
        const bool bytes = !std::exchange(pending, {}).isEmpty();
        QCoreApplication::eventDispatcher()->processEvents(QEventLoop::X11ExcludeTimers);
        return bytes;
    }
    bool turnMakesCalls() const override { return true; }
    bool look() override
    {
        const bool bytes = !std::exchange(pending, {}).isEmpty();
        plain->waitForReadyRead(0);
        return bytes;
    }
    void holdBack() override {} // this socket announces all that it has

private:
    explicit PlainLink(SocketPair pair)
        : ClientLink(Endpoints::of(pair.accepted.descriptor())),
          device(std::move(pair.device)),
          accepted(pair.accepted.release()),
          mostPending(std::min(NativeSocket::receiveBuffer(accepted) / 2, WantedRoom) / 2),
          plain(new ReceivingSocket(accepted, endpoints))
    {}

    static constexpr int ReceiveBytes = 64 * 1024; // at once, into the thread's buffer
    // The kernel reports twice what it was asked for, and may fill half of that with overhead of
    // its own.
    static constexpr int WantedRoom = 32 * ReceiveBytes;

    NativeSocket device;
    const int accepted; // the client's
    const qsizetype mostPending;
    const QPointer<ReceivingSocket> plain; // the client's
    QByteArray pending; // in the kernel
};
