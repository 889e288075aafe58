// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/ending.h"

namespace simulator {
namespace {

constexpr int TlsCloseMs = 5000; // for a peer that does not answer our close_notify

Ending wait(const Options &options)
{
    Ending ending;
    ending.then = Ending::Then::AwaitPeer;
    ending.waitMs = options.lingerMs;
    return ending;
}

Ending reset()
{
    Ending ending;
    ending.then = Ending::Then::Reset;
    return ending;
}

Ending abortHandshake()
{
    Ending ending = reset();
    ending.reads = false; // reading would go on with the handshake
    return ending;
}

Ending stay(const Options &options)
{
    Ending ending = wait(options);
    ending.closeAfterWait = true;
    return ending;
}

Ending halfClose(const Options &options)
{
    Ending ending = wait(options);
    ending.closeNotify = true;
    ending.shutdownWrite = true;
    return ending;
}

Ending closeNotifyOnly(const Options &options)
{
    Ending ending = wait(options);
    ending.closeNotify = true;
    ending.ignoreTls = true;
    return ending;
}

Ending closeWithoutReading()
{
    Ending ending;
    ending.reads = false;
    return ending;
}

} // namespace

Ending endingFor(const Options &options, bool isLast)
{
    switch (options.fault) {
    case Fault::Silent:
        return wait(options);
    case Fault::AbortHandshake:
        return abortHandshake();
    case Fault::CloseNotifyOnly:
        return closeNotifyOnly(options);
    case Fault::CloseWithoutReading:
        return closeWithoutReading();
    case Fault::Garbage:
    case Fault::None:
        break;
    }
    switch (options.close) {
    case CloseMode::HalfClose:
        return halfClose(options);
    case CloseMode::Abort:
        return reset();
    case CloseMode::Stay:
        return isLast ? stay(options) : orderlyClose(options);
    case CloseMode::Close:
        break;
    }
    return orderlyClose(options);
}

Ending orderlyClose(const Options &options)
{
    if (!options.startsTls())
        return {};
    // The peer's session tickets may be unread, or still on their way. Closing the socket then
    // would reset the connection, and bytes that the kernel has not sent yet would be lost.
    Ending ending = halfClose(options);
    ending.waitMs = TlsCloseMs;
    return ending;
}

} // namespace simulator
