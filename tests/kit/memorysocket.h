// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/endpoints.h"

#include <QtCore/QByteArray>
#include <QtCore/QVariant>
#include <QtNetwork/QTcpSocket>

#include <algorithm>
#include <cstring>

/*!
    A socket that seems connected, without a real connection. The test decides which bytes arrive in
    its simulated kernel, and when the socket learns of them. So a test can run thousands of
    connections in a second.

    Bytes wait in that kernel until notify(); then the socket holds them until they are read.

    Thread: the one it lives in.
*/
class MemorySocket final : public QTcpSocket
{
public:
    explicit MemorySocket(const Endpoints &known)
    {
        setOpenMode(QIODevice::ReadWrite | QIODevice::Unbuffered);
        setSocketState(ConnectedState);
        setLocalAddress(known.local);
        setLocalPort(known.localPort);
        setPeerAddress(known.peer);
        setPeerPort(known.peerPort);
    }
    ~MemorySocket() override { setSocketState(UnconnectedState); }

    // Bytes, or the end, arrive in the kernel.
    void arrive(const QByteArray &bytes) { kernel += bytes; }
    void arriveEnd() { ended = true; }

    // The socket learns what has arrived, as in a turn of the event loop: bytes first, then the
    // end. True if there were bytes.
    bool notify()
    {
        if (!kernel.isEmpty()) {
            takeIn();
            Q_EMIT readyRead();
            return true;
        }
        if (ended && state() == ConnectedState)
            disconnectNow();
        return false;
    }
    // Takes the bytes from the kernel, without a signal.
    void takeIn() { received += std::exchange(kernel, {}); }

    // All bytes that a client can still read.
    QByteArray unread() const { return received + kernel; }

    // Includes the bytes that Qt holds after a peek.
    qint64 bytesAvailable() const override
    {
        // NOLINTNEXTLINE(bugprone-parent-virtual-call): nothing of a real socket is wanted
        return received.size() + QIODevice::bytesAvailable();
    }
    bool waitForReadyRead(int) override { return notify(); }
    void setSocketOption(SocketOption, const QVariant &) override {}
    void close() override
    {
        QIODevice::close(); // NOLINT(bugprone-parent-virtual-call): likewise
        received.clear();
        kernel.clear();
        if (state() == ConnectedState)
            disconnectNow();
    }

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        const qsizetype count = std::min<qsizetype>(maxSize, received.size());
        std::memcpy(data, received.constData(), static_cast<std::size_t>(count));
        received.remove(0, count);
        return count;
    }

private:
    void disconnectNow()
    {
        setSocketState(UnconnectedState);
        Q_EMIT disconnected();
    }

    QByteArray kernel; // arrived, but the socket does not know
    QByteArray received; // the socket holds them
    bool ended = false; // the peer sends no more
};
