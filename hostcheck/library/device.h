// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtNetwork/QHostAddress>

namespace hostcheck {

/*!
    A device: a plain socket, without an event loop. Every function throws a Failure if it cannot do
    its work.

    Thread: any, one at a time.
    Owner:  the caller.
*/
class Device
{
public:
    // Connected when it returns: the kernel has accepted it, the plugin perhaps not yet.
    Device(const QHostAddress &address, quint16 port);
    ~Device();
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    // All of it, unless the plugin does not read and the kernel's memory is full.
    void send(const QByteArray &bytes);
    void close();
    // The other side sees a reset.
    void reset();
    // Whether the other side has closed. Does not wait.
    bool isEnded() const;

    QHostAddress address() const { return local; }
    quint16 port() const { return localPort; }

private:
    int descriptor = -1;
    QHostAddress local;
    quint16 localPort = 0;
};

} // namespace hostcheck
