// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QBasicTimer>
#include <QtCore/QObject>

#include <cstddef>
#include <vector>

/*!
    The clients of one thread that have read enough to need a check later. The host consumes almost
    all of these bytes within milliseconds. A timer for each client would be started and fire for
    nothing, thousands of times a second. So the watch looks at all clients together, and only those
    that still hold too much start a timer.

    The watch looks in time for the first check that can have a result. That check comes at the
    earliest 2 s after an offer, and a read that makes no offer comes at most 200 ms after one.

    Thread: its creator's, which is also that of the clients.
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
    // To be called before the client is destroyed.
    void remove(Place place) { all[place] = nullptr; }

    // Whether anything is watched.
    bool isRunning() const { return timer.isActive(); }
    // Looks at all clients and forgets them; the timer calls it.
    void look();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    std::vector<Watched *> all; // null: removed
    QBasicTimer timer; // runs while there are any
};
