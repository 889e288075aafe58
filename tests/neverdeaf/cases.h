// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

//! What good devices felt of an abuse. Times in milliseconds; negative: never served.
struct Outcome
{
    QString cause;
    bool tls = false;
    double before = -1; // median
    double during = 0; // 0: no good device could be there
    double after = -1; // of one that connects when the cause ends
    qsizetype connections = 0; // good ones included
    qsizetype lines = 0; // logged, all in all
    qsizetype allowedLines = 0; // that the host guide lists for so many connections, and a constant

    bool isServed() const { return before >= 0 && during >= 0 && after >= 0; }
};

//! The ways to make an input deaf. Each plays against a plugin of its own and blocks.
namespace NeverDeaf {

// No descriptor is free for a while. during: a device that connects then, and waits.
Outcome descriptorsOut(bool tls);
// A plugin without workers accepts a connection, and then a worker thread cannot be had for a
// while. during: the device that waits for it; after: it, too, from the end of the cause, if it
// takes longer.
Outcome workerWithoutDescriptors(bool tls);
// Peers that connect and never say a word. during: median.
Outcome silentPeers(int count);
// A proxy whose PROXY headers never end, with "proxyProtocol". The good devices are not behind it.
// during: median.
Outcome slowHeaders(bool tls, int count);
// Connections that "limits" refuse, and one that they do not, all from one other address.
Outcome refusedPeers(bool tls, int count);
// Devices that send at full speed to a host that consumes nothing of theirs, until "limits" have
// paused them all. during: median.
Outcome pausedPeers(bool tls, int count);
// Handshakes that are none, or are broken. during: the longest, here and below.
Outcome garbageHandshakes(int count);
Outcome closersAtOnce(bool tls, int count);
// Connections that are reset before anybody has accepted them. during: a device that connects among
// them.
Outcome resetsInBacklog(bool tls, int count);
// start() finds the port taken; it is freed; stop(), start().
Outcome portTaken(bool tls);

} // namespace NeverDeaf
