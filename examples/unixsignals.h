// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

#include <csignal>
#include <initializer_list>

#include <sys/signalfd.h>
#include <unistd.h>

/*!
    Unix signals as events: a signal then never interrupts anything.

    Thread: the main thread. Made before the application object and any other thread: new threads
            inherit that the signals are blocked.
*/
class UnixSignals
{
public:
    UnixSignals(std::initializer_list<int> numbers)
    {
        sigset_t set;
        sigemptyset(&set);
        for (const int number : numbers)
            sigaddset(&set, number);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        descriptor = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    }
    ~UnixSignals() { ::close(descriptor); }
    UnixSignals(const UnixSignals &) = delete;
    UnixSignals &operator=(const UnixSignals &) = delete;

    // function(number) is called for each signal, as long as the object lives.
    template<class Function>
    void connect(QObject *object, Function function)
    {
        auto *notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, object);
        QObject::connect(notifier, &QSocketNotifier::activated, object, [this, function] {
            signalfd_siginfo info = {};
            while (::read(descriptor, &info, sizeof info) == sizeof info)
                function(static_cast<int>(info.ssi_signo));
        });
    }

private:
    int descriptor = -1;
};
