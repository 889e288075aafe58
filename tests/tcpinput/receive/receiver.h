// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/receivingsocket.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/nativesocket.h"

#include <QtTest/QTest>

#include <functional>
#include <memory>

#include <fcntl.h>

namespace receivertest {

inline constexpr int ReceiveBytes = 64 * 1024; // at once, into the thread's buffer

inline const QHostAddress LocalAddress(QStringLiteral("127.63.0.1"));
inline const QHostAddress PeerAddress(QStringLiteral("127.63.0.2"));

// No two places look the same.
inline QByteArray bytes(int size)
{
    QByteArray result;
    result.reserve(size + 8);
    for (int i = 0; result.size() < size; ++i)
        result += QByteArray::number(i, 36) + '.';
    result.truncate(size);
    return result;
}

inline bool isOpen(int descriptor)
{
    return ::fcntl(descriptor, F_GETFD) != -1;
}

inline const QStringList EndByPeer = {
        QStringLiteral("errorOccurred"), QStringLiteral("stateChanged"),
        QStringLiteral("readChannelFinished"), QStringLiteral("disconnected")};

//! A socket with the device at its other end. It notes what the socket emits.
class Receiver
{
public:
    // What is done in readyRead(). Without a reader, everything available is read.
    using Reader = std::function<void(ReceivingSocket &)>;

    explicit Receiver(Reader given = {}) : reader(std::move(given))
    {
        SocketPair pair = SocketPair::connected(LocalAddress, PeerAddress);
        device = std::move(pair.device);
        localPort = pair.localPort;
        peerPort = pair.peerPort;
        accepted = pair.accepted.release();
    }
    ~Receiver()
    {
        if (!socket)
            ::close(accepted);
    }
    Q_DISABLE_COPY_MOVE(Receiver)

    // From here on there is a socket. What came before waits in the kernel.
    void makeSocket()
    {
        socket = std::make_unique<ReceivingSocket>(accepted, Endpoints::of(accepted));
        QObject::connect(socket.get(), &QIODevice::readyRead, [this] { read(); });
        QObject::connect(socket.get(), &QAbstractSocket::errorOccurred, [this] {
            errors.append(socket->error());
            events.append(QStringLiteral("errorOccurred"));
        });
        QObject::connect(socket.get(), &QAbstractSocket::stateChanged,
                         [this](QAbstractSocket::SocketState state) {
                             QCOMPARE(state, QAbstractSocket::UnconnectedState);
                             QCOMPARE(socket->socketDescriptor(), -1);
                             events.append(QStringLiteral("stateChanged"));
                         });
        QObject::connect(socket.get(), &QIODevice::readChannelFinished,
                         [this] { events.append(QStringLiteral("readChannelFinished")); });
        QObject::connect(socket.get(), &QAbstractSocket::disconnected,
                         [this] { events.append(QStringLiteral("disconnected")); });
    }

    // Makes room in the kernel for more than the thread's buffer holds. False if the kernel does
    // not grant it; root may ask for any size.
    bool makeRoom(int size = 4 * ReceiveBytes) const
    {
        const int wanted = 2 * size; // the kernel doubles it again, for its own overhead
        if (::setsockopt(accepted, SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof wanted) != 0)
            ::setsockopt(accepted, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted);
        return NativeSocket::receiveBuffer(accepted) >= 2 * wanted;
    }
    // The bytes are in the kernel when this returns.
    bool sendUnseen(const QByteArray &sent) const
    {
        return device.send(sent) && NativeSocket::waitForArrival(accepted, int(sent.size()));
    }
    bool peerEndArrived() const { return NativeSocket::waitForPeerEnd(accepted); }
    bool ended() const { return events.contains(QStringLiteral("disconnected")); }

    NativeSocket device;
    int accepted = -1;
    quint16 localPort = 0;
    quint16 peerPort = 0;
    std::unique_ptr<ReceivingSocket> socket;
    Reader reader;
    QByteArray received;
    int announced = 0; // how often there was something to read
    QStringList events;
    QList<QAbstractSocket::SocketError> errors;

private:
    void read()
    {
        QVERIFY(!ended());
        QVERIFY(socket->bytesAvailable() > 0);
        ++announced;
        if (reader)
            return reader(*socket);
        received += socket->read(socket->bytesAvailable());
    }
};

#define WAIT_FOR(condition) QTRY_VERIFY_WITH_TIMEOUT(condition, HangGuardMs)

inline void end(ReceivingSocket &socket, const QByteArray &how)
{
    if (how == "close")
        socket.close();
    else if (how == "abort")
        socket.abort();
    else
        socket.disconnectFromHost();
}

} // namespace receivertest
