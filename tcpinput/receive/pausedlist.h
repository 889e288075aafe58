// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QBasicTimer>
#include <QtCore/QObject>

#include <chrono>
#include <set>

/*!
    The connections of one thread that do not read, because they hold too much. Looks at all of them
    every 10 ms: what they wait for happens in other threads, which would have to wake this one for
    each record that a host lets go of.

    Thread: its creator's, which is also that of the connections.
    Owner:  the task. It outlives the connections.
*/
class PausedList : public QObject
{
public:
    //! What a connection is to the list.
    class Paused
    {
    public:
        using Time = std::chrono::steady_clock::time_point;
        virtual void look(Time now) = 0;

    protected:
        ~Paused() = default;
    };

    void add(Paused &paused);
    // Does nothing if it is not on the list.
    void remove(Paused &paused) { all.erase(&paused); }

    // The timer calls it.
    void lookAtAll();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    std::set<Paused *> all;
    QBasicTimer timer; // runs while there are any
};
