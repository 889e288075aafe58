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

    Thread: connectTo() in one thread, then play() in another that does nothing else. The results
    may be read after that.
*/
class ScriptedDevice
{
public:
    // The device has its port already, but is not connected. tlsVersion: 0 for plain TCP.
    ScriptedDevice(const Script &played, int tlsVersion, const QHostAddress &address);

    // Ends the process if the server does not accept the device.
    void connectTo(const QHostAddress &address, quint16 port);
    // Returns when the connection has ended. The trace gets the times of all that the device did.
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
