// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/limits/heldbytes.h"
#include "tcpinput/receive/pausedlist.h"

#include <memory>

class Transport;

/*!
    Lets a connection read no more than the limits allow. One that holds too much is paused: its
    bytes stay in the kernel, which makes the device wait. Nothing is lost, and nothing is closed
    but for the stalled time-out.

    A pause begins when the connection holds as much as it may, its records included. It is over
    when the host has consumed half of that. If it was not the buffer that was full, but records
    that the host still had, it is over when these are gone: the host may wait for the rest of a
    message.

    A paused descriptor is not watched, so the end of the connection is looked for once a second. At
    the end all that the kernel has is read, whatever the limits.

    Thread: the client's.
    Owner:  the client.
*/
class Intake final : private PausedList::Paused
{
public:
    //! Reads, and makes offers.
    class Reader
    {
    public:
        // The connection was paused for the stalled time-out, and nothing was consumed.
        virtual void endStalled(std::chrono::seconds after) = 0;
        // An offer that was merged can be made now. now: of Clock::now().
        virtual void offerWaiting(qint64 now) = 0;
        // The host has given up a record while the connection was paused.
        virtual void recordCameBack() = 0;

    protected:
        ~Reader() = default;
    };

    // All but heldBytes: not owned, in the same thread, and outlive this. context: the reader.
    Intake(Reader &owner, QObject &context, Transport &from, PausedList &pausedList,
           std::shared_ptr<HeldBytes> heldBytes);
    ~Intake();
    Q_DISABLE_COPY_MOVE(Intake)

    // How many of the wanted bytes may be read now, beside those of earlier calls; a read, or
    // readNothing(), follows.
    qsizetype room(qsizetype wanted);
    // To be called if not one byte may be read.
    void pause();
    void readNothing() { held->receivedNothing(); }
    // To be called when bytes come while it is paused. They stay where they are.
    void stayPaused();
    // To be called after each read, each cut in this thread, and when a record came back.
    void settle();
    // To be called before each offer but the last one. False: the record before is still on its way
    // to the host. The offer is merged into the next one, see Reader::offerWaiting().
    bool beginOffer() { return held->beginHandOver(); }
    // From now on there is no limit: the end has come.
    void open();

    bool isPaused() const { return held->isPaused(); }
    // Whether bytes came after the latest record.
    bool hasUnoffered() const { return held->hasUnlent(); }

private:
    void look(Time now) override;
    qint64 roomLeft() const;
    bool mayResume() const;
    void resume();

    Reader &reader;
    Transport &transport;
    PausedList &list;
    const std::shared_ptr<HeldBytes> held;
    bool isOpen = false;
    bool bufferIsFull = false; // when the pause began
    Time nextEndLook;
    Time consumedAt; // the latest time at which something was consumed, or the pause began
    quint64 consumedBefore = 0;
};
