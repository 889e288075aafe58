// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/clock.h"
#include "tcpinput/tcpclient2.h"

#include <QtCore/QBasicTimer>
#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QPointer>

#include <chrono>

/*!
    Tells the devices of one worker that nothing follows from here, spread over a time: if all came
    back at the same moment, that would be a burst of connections and handshakes.

    Thread: its creator's, which is also that of the clients.
    Owner:  the task.
*/
class Farewell : public QObject
{
public:
    // From now on these are told, also if they were in an earlier call. phase: which part of the
    // first interval passes before the first one; 0 to 1. With another one in each worker, the
    // workers' clients take turns.
    void begin(const QList<TcpClient2 *> &clients, std::chrono::milliseconds spread, double phase);
    // One that has come later; it is told at once.
    static void add(TcpClient2 &client) { client.endWriting(); }

    // How many of count are told when that part of the time has passed; all of them from 1 on.
    static qsizetype due(qsizetype count, double phase, double part);

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    void tell();
    void startTimer();

    QList<QPointer<TcpClient2>> all; // some may be gone
    qsizetype told = 0; // the first of them
    Clock::Steady start;
    std::chrono::milliseconds time{0};
    double firstPhase = 0;
    QBasicTimer timer; // runs while there are some to be told
};
