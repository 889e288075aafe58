// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "script.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/tlsdevice.h"
#include "trace.h"

#include <optional>

/*!
    Plays the device of one script with a blocking socket.

    Thread: connectTo() in one, then play() in another that does nothing else; the results after
    that.
*/
class ScriptedDevice
{
public:
    // Has its port, and is not connected. tlsVersion: 0 for plain TCP.
    ScriptedDevice(const Script &played, int tlsVersion, const QHostAddress &address);

    // Ends the process if the server does not want it.
    void connectTo(const QHostAddress &address, quint16 port);
    // Returns when the connection has ended. Notes in the trace when it did what.
    void play(Clock::time_point zero, Trace &trace);

    quint16 localPort = 0;

private:
    bool send(const QByteArray &bytes);
    void end();
    void readToEnd() const;

    NativeSocket &socket() { return tls ? tls->socket : plain; }
    const NativeSocket &socket() const { return tls ? tls->socket : plain; }

    const Script &script;
    NativeSocket plain;
    std::optional<TlsDevice> tls;
};
