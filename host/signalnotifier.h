// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

#include <atomic>
#include <memory>

namespace host {

/*!
    Brings SIGINT, SIGTERM, SIGHUP, SIGUSR1 and SIGUSR2 into the event loop.

    A signal handler may do very little. So it writes the signal's number to a pipe, and the event
    loop watches the other end. SIGINT and SIGTERM are caught once each: the same signal once more
    ends the program at once, even if the event loop stands still. It may say before what is lost.

    Thread: its creator's. One object in a program.
*/
class SignalNotifier : public QObject
{
    Q_OBJECT

public:
    // If no pipe can be made, logs an error, and signals act as they do by default. unsafeMessages:
    // null, or how many messages are lost if the program ends now; outlives the notifier.
    explicit SignalNotifier(const std::atomic<qint64> *unsafeMessages = nullptr);
    ~SignalNotifier() override;

    // While disabled, signals wait. Default: enabled.
    void setEnabled(bool enable);

Q_SIGNALS:
    void stopRequested();
    void reloadRequested();
    void statusRequested();
    void reopenRequested();

private:
    void readSignal();

    int readEnd = -1;
    std::unique_ptr<QSocketNotifier> notifier;
};

} // namespace host
