// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>
#include <QtCore/QtGlobal>
#include <QtNetwork/QHostAddress>

namespace simulator {

// The text that describes an errno value.
QString errorText(int error);

/*!
    A bare, non-blocking TCP socket. Devices must count the bytes that the kernel has accepted, and
    close in several ways. Buffering sockets hide both.

    Functions that can fail return 0 for success or an errno value, unless their comment says
    otherwise.
    Thread: one at a time. Owner of its descriptor.
*/
class TcpSocket
{
public:
    TcpSocket() = default;
    ~TcpSocket() { close(); }
    Q_DISABLE_COPY_MOVE(TcpSocket)

    // source: if null, the kernel chooses. EINPROGRESS: wait until the socket is writable, then
    // call connectResult().
    int connectTo(const QHostAddress &peer, quint16 port, const QHostAddress &source);
    int connectResult() const;

    int descriptor() const { return fd; }
    QHostAddress localAddress() const;
    quint16 localPort() const;

    // As send(2) and recv(2): return the number of bytes, or -1 and set errno.
    qsizetype send(const char *data, qsizetype size);
    qsizetype receive(char *data, qsizetype size);

    // Bytes that the peer's kernel has not acknowledged yet, a FIN counting as one.
    qsizetype unacknowledged() const;

    void shutdownWrite(); // FIN
    void reset(); // RST, and closes
    void close();

private:
    int fd = -1;
};

} // namespace simulator
