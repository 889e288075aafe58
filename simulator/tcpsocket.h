// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>
#include <QtCore/QtGlobal>
#include <QtNetwork/QHostAddress>

namespace simulator {

// For people, of an errno value.
QString errorText(int error);

/*!
    A non-blocking TCP socket, bare: devices must count what the kernel accepted and close in ways
    that buffering sockets hide.

    Functions that fail return an errno value, 0 being success, unless they say otherwise.
    Thread: one at a time. Owner of its descriptor.
*/
class TcpSocket
{
public:
    TcpSocket() = default;
    ~TcpSocket() { close(); }
    Q_DISABLE_COPY_MOVE(TcpSocket)

    // source: null for the kernel's choice. EINPROGRESS: wait until writable, ask connectResult().
    int connectTo(const QHostAddress &peer, quint16 port, const QHostAddress &source);
    int connectResult() const;

    int descriptor() const { return fd; }
    QHostAddress localAddress() const;
    quint16 localPort() const;

    // As send(2) and recv(2): bytes, or -1 and errno.
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
