// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpServer>

#include <unistd.h>

// A loopback address that no other test process uses, so that tests can run side by side.
inline QHostAddress testAddress()
{
    const auto pid = static_cast<quint32>(::getpid());
    return QHostAddress((127U << 24U) | ((64U + ((pid >> 16U) & 63U)) << 16U) | (pid & 0xffffU));
}

// A port that is free on the address now. It stays free: no other process uses the test's address.
inline quint16 freePort(const QHostAddress &address = testAddress())
{
    QTcpServer probe;
    return probe.listen(address) ? probe.serverPort() : quint16(0);
}
