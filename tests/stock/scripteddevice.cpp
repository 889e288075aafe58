// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "scripteddevice.h"

#include "loadmeter.h"

#include <cerrno>
#include <cstring>
#include <thread>

namespace {

constexpr std::chrono::microseconds ShorterThanSleep(300);

// Sleeping makes a short pause several times as long.
void waitUntil(Clock::time_point end)
{
    if (end - Clock::now() > ShorterThanSleep)
        std::this_thread::sleep_until(end);
    while (Clock::now() < end) {}
}

} // namespace

ScriptedDevice::ScriptedDevice(const Script &played, int tlsVersion, const QHostAddress &address)
    : script(played),
      plain(NativeSocket::unconnected(address))
{
    if (!plain.bind(address, 0))
        qFatal("no port for a device");
    localPort = plain.localPort();
    if (tlsVersion == 0)
        return;
    tls.emplace(tlsVersion);
    tls->socket = std::move(plain);
}

void ScriptedDevice::connectTo(const QHostAddress &address, quint16 port)
{
    if (!socket().connect(address, port))
        qFatal("a device cannot connect: %s", std::strerror(errno));
    // An eager device sends its last flight together with its first message.
    if (tls && !(tls->handshake() && (script.eager || tls->flush())))
        qFatal("a device's handshake fails: %s", std::strerror(errno));
}

void ScriptedDevice::play(Clock::time_point zero, Trace &trace)
{
    const QByteArray stream = script.stream();
    trace.zero = zero;
    auto next = zero;
    for (const Message &message : script.messages) {
        const std::chrono::microseconds pause(message.pauseUs);
        next = script.spaced || trace.messages.isEmpty() ? next + pause : Clock::now() + pause;
        waitUntil(next);
        trace.messages.append(Clock::now());
        if (!send(stream.mid(trace.sent, message.bytes)))
            break;
        trace.sent += message.bytes;
    }
    const std::chrono::microseconds pause(script.endPauseUs);
    const bool byDevice = script.ending == Ending::Close || script.ending == Ending::HalfClose
            || script.ending == Ending::Reset;
    if (byDevice) {
        waitUntil(script.spaced ? next + pause : Clock::now() + pause);
        trace.end = Clock::now();
    }
    end();
    socket().close();
    trace.deviceWaited = timeHeldUp();
}

bool ScriptedDevice::send(const QByteArray &bytes)
{
    if (!tls)
        return socket().send(bytes);
    tls->write(bytes);
    return tls->flush();
}

void ScriptedDevice::end()
{
    switch (script.ending) {
    case Ending::Close:
        if (!tls)
            return;
        tls->writeCloseNotify();
        tls->flush();
        socket().finish(); // closing with something unread would reset the connection
        readToEnd();
        break;
    case Ending::HalfClose:
        socket().finish();
        readToEnd();
        break;
    case Ending::Reset:
        socket().reset();
        break;
    case Ending::IdleTimeout:
    case Ending::Stop:
    case Ending::Destroy:
        readToEnd();
        break;
    }
}

void ScriptedDevice::readToEnd() const
{
    char bytes[4096];
    while (::recv(socket().descriptor(), bytes, sizeof bytes, 0) > 0) {}
}
