// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

#include <chrono>
#include <optional>

namespace host {

/*!
    Tells the service manager that has started the program how it is: systemd's protocol, one
    datagram a message to the socket that NOTIFY_SOCKET names. Without that variable, nothing. It is
    a few lines, and a library for them would be one more that everybody has to install.

    Never waits: a message that the socket does not take is lost.

    Thread: its creator's.
    Owner:  the caller.
*/
class ServiceNotifier
{
public:
    // Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID.
    ServiceNotifier();
    ~ServiceNotifier();
    Q_DISABLE_COPY_MOVE(ServiceNotifier)

    bool isOn() const { return fd >= 0; }

    void tellReady();
    // Until tellReady().
    void tellReloading();
    // Behind it, the manager waits atMost for further signs of life.
    void tellStopping(std::chrono::microseconds atMost);
    // One line for people. Sent every few seconds at most, and only if it is another one.
    void tellStatus(const QByteArray &text);

    // The program is alive. Sent at most every third of the time after which the manager ends a
    // program that it does not hear of. Without a watchdog, nothing.
    void feedWatchdog();

private:
    void send(const QByteArray &message) const;

    int fd = -1; // connected; -1: nobody wants to know
    std::chrono::steady_clock::duration feedInterval{0}; // 0: no watchdog
    std::optional<std::chrono::steady_clock::time_point> lastFed; // nothing: never
    QByteArray lastStatus;
    std::chrono::steady_clock::time_point statusSent; // unless lastStatus is empty
};

} // namespace host
