// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

#include <memory>

namespace host {

/*!
    Brings SIGINT, SIGTERM, SIGHUP and SIGUSR1 into the event loop.

    A signal handler may do next to nothing, so it writes the signal's number to a pipe whose other
    end the event loop watches. SIGINT and SIGTERM are caught once each: the second one ends the
    program, if the first does not get through.

    Thread: its creator's. One object a program.
*/
class SignalNotifier : public QObject
{
    Q_OBJECT

public:
    // If there is no pipe to be had, logs an error, and signals act as they do by default.
    SignalNotifier();
    ~SignalNotifier() override;

    // While disabled, signals wait. Default: enabled.
    void setEnabled(bool enable);

Q_SIGNALS:
    void stopRequested();
    void reloadRequested();
    void statusRequested();

private:
    void readSignal();

    int readEnd = -1;
    std::unique_ptr<QSocketNotifier> notifier;
};

} // namespace host
