// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/ending.h"

#include <limits>

namespace simulator {
namespace {

constexpr double UsPerMs = 1e3;
constexpr double LongestMs = std::numeric_limits<int>::max();
constexpr int TlsCloseMs = 5000; // for a peer that does not answer our close_notify

Ending wait(int ms)
{
    Ending ending;
    ending.then = Ending::Then::AwaitPeer;
    ending.waitMs = ms;
    return ending;
}

Ending abortHandshake()
{
    Ending ending = resetEnding();
    ending.reads = false; // reading would go on with the handshake
    return ending;
}

Ending closeNotifyOnly(const Options &options)
{
    Ending ending = wait(options.lingerMs);
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
        return wait(options.lingerMs);
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
        return halfClose(options.lingerMs);
    case CloseMode::Abort:
        return resetEnding();
    case CloseMode::Stay:
        return isLast ? stay(options.lingerMs) : orderlyClose(options);
    case CloseMode::Close:
        break;
    }
    return orderlyClose(options);
}

Ending recordedEnding(const Options &options, qint64 restUs, bool isReset)
{
    const double ms = options.speed > 0 ? static_cast<double>(restUs) / UsPerMs / options.speed : 0;
    Ending ending;
    ending.then = Ending::Then::AwaitPeer;
    ending.waitMs = static_cast<int>(qMin(ms, LongestMs));
    ending.afterWait = isReset ? Ending::AfterWait::Reset : Ending::AfterWait::Close;
    return ending;
}

Ending stay(int ms)
{
    Ending ending = wait(ms);
    ending.afterWait = Ending::AfterWait::Close;
    return ending;
}

Ending halfClose(int ms)
{
    Ending ending = wait(ms);
    ending.closeNotify = true;
    ending.shutdownWrite = true;
    return ending;
}

Ending resetEnding()
{
    Ending ending;
    ending.then = Ending::Then::Reset;
    return ending;
}

Ending orderlyClose(const Options &options)
{
    if (!options.startsTls())
        return {};
    // The peer's session tickets may be unread, or still on their way. Closing the socket then
    // would reset the connection, and bytes that the kernel has not sent yet would be lost.
    return halfClose(TlsCloseMs);
}

} // namespace simulator
