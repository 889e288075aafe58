// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QBasicTimer>
#include <QtCore/QObject>

#include <cstddef>
#include <vector>

/*!
    The clients of one thread that have read enough to need a check later. Almost all of them are
    cut to nothing within milliseconds, so that a timer of each one's own would be started and fire
    for nothing, thousands of times a second: the watch looks at all of them together, and only
    those that still hold too much get on with a timer.

    It looks soon enough for the first check that can have a result: one comes 2 s after an offer at
    the earliest, and reads that make no offer follow one by 200 ms at most.

    Thread: the one it is made in, which is the clients', too.
    Owner:  the task. It outlives the clients.
*/
class BacklogWatch : public QObject
{
public:
    //! What a client is to the watch.
    class Watched
    {
    public:
        // The watch has looked at the client, and forgets it.
        virtual void endWatch() = 0;

    protected:
        ~Watched() = default;
    };

    //! A client's place among the watched ones.
    using Place = std::size_t;
    static constexpr Place None = static_cast<Place>(-1);

    Place add(Watched *watched);
    // The client is going.
    void remove(Place place) { all[place] = nullptr; }

    // Whether anything is watched.
    bool isRunning() const { return timer.isActive(); }
    // What it does when its time has come: looks at all, and forgets them.
    void look();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    std::vector<Watched *> all; // null: gone since
    QBasicTimer timer; // while there are any
};
