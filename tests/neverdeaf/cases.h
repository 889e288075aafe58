// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/tlsengines.h"

#include <QtCore/QString>

#include <vector>

//! What devices and plugin speak.
struct Transport
{
    QString engine; // of TLS; empty: TCP

    bool isTls() const { return !engine.isEmpty(); }
    QString name() const
    {
        return isTls() ? QStringLiteral("TLS 1.3, engine %1").arg(engine) : QStringLiteral("TCP");
    }

    // TLS with each engine.
    static std::vector<Transport> tls()
    {
        std::vector<Transport> each;
        for (const char *engine : TlsEngines)
            each.push_back({QString::fromLatin1(engine)});
        return each;
    }
    static std::vector<Transport> all()
    {
        std::vector<Transport> each = tls();
        each.insert(each.begin(), Transport());
        return each;
    }
};

//! How good devices were served during an abuse. Times in milliseconds; negative: never served.
struct Outcome
{
    QString cause;
    QString transport;
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
Outcome descriptorsOut(const Transport &transport);
// A plugin without worker threads accepts a connection, but for a while it cannot start a worker
// thread. during: time of the device that waits for the thread. after: the longer of two times,
// both from the end of the cause: that of the waiting device and that of a new one.
Outcome workerWithoutDescriptors(const Transport &transport);
// With TLS: peers that connect and never send a byte. during: median.
Outcome silentPeers(const Transport &transport, int count);
// With "proxyProtocol": a proxy sends incomplete PROXY headers. The good devices are not behind
// that proxy. during: median.
Outcome slowHeaders(const Transport &transport, int count);
// Connections from another address. "limits" allow one of them and refuse all others.
Outcome refusedPeers(const Transport &transport, int count);
// Devices send at full speed, and the host consumes none of their bytes, until "limits" have paused
// them all. during: median.
Outcome pausedPeers(const Transport &transport, int count);
// With TLS: peers that send no TLS or a broken ClientHello. during: the longest time, here and
// below.
Outcome garbageHandshakes(const Transport &transport, int count);
Outcome closersAtOnce(const Transport &transport, int count);
// Connections that are reset before the plugin accepts them. during: time of a device that connects
// among them.
Outcome resetsInBacklog(const Transport &transport, int count);
// start() finds the port in use. The port is freed. Then stop() and start() are called.
Outcome portTaken(const Transport &transport);

} // namespace NeverDeaf
