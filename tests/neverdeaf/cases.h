// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

//! How good devices were served during an abuse. Times in milliseconds; negative: never served.
struct Outcome
{
    QString cause;
    bool tls = false;
    double before = -1; // median
    double during = 0; // 0: no good device could connect then
    double after = -1; // of a device that connects when the cause ends
    qsizetype connections = 0; // including those of good devices
    qsizetype lines = 0; // total number of logged lines
    qsizetype allowedLines = 0; // a constant, and what the host guide lists for so many connections

    bool isServed() const { return before >= 0 && during >= 0 && after >= 0; }
};

//! Attempts to make an input deaf. Each function uses a new plugin and blocks until its end.
namespace NeverDeaf {

// For a while no descriptor is free. during: time of a device that connects then and has to wait.
Outcome descriptorsOut(bool tls);
// A plugin without worker threads accepts a connection, but for a while it cannot start a worker
// thread. during: time of the device that waits for the thread. after: the longer of two times,
// both from the end of the cause: that of the waiting device and that of a new one.
Outcome workerWithoutDescriptors(bool tls);
// Peers that connect and never send a byte. during: median.
Outcome silentPeers(int count);
// With "proxyProtocol": a proxy sends incomplete PROXY headers. The good devices are not behind
// that proxy. during: median.
Outcome slowHeaders(bool tls, int count);
// Connections from another address. "limits" allow one of them and refuse all others.
Outcome refusedPeers(bool tls, int count);
// Devices send at full speed, and the host consumes none of their bytes, until "limits" have paused
// them all. during: median.
Outcome pausedPeers(bool tls, int count);
// Peers that send no TLS or a broken ClientHello. during: the longest time, here and below.
Outcome garbageHandshakes(int count);
Outcome closersAtOnce(bool tls, int count);
// Connections that are reset before the plugin accepts them. during: time of a device that connects
// among them.
Outcome resetsInBacklog(bool tls, int count);
// start() finds the port in use. The port is freed. Then stop() and start() are called.
Outcome portTaken(bool tls);

} // namespace NeverDeaf
