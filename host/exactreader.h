// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/answer.h"
#include "host/messagewriter.h"
#include "host/turnqueue.h"
#include "host/unfinishedsizes.h"
#include "plugin/exactoffers.h"
#include "plugin/parseddata.h"

#include <QtCore/QByteArray>
#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>

#include <chrono>
#include <limits>
#include <list>
#include <optional>

namespace host {

//! What one connection may take before it is another one's turn.
struct Pace
{
    Allowance ofOffer = {256, 64 * 1024}; // in one go; some 0.1 ms
    std::chrono::nanoseconds ofTurn = std::chrono::milliseconds(5); // all connections together
};

/*!
    Reads offers that carry their position (ExactOffers).

    All bytes are consumed, also those of an unfinished message, which is kept here: so offers stay
    small, and each byte is handled once. An offer that is not read in one go waits for its turn. If
    another one of the same connection comes meanwhile, that takes its place: it has all bytes that
    are not consumed.

    What is kept of unfinished messages has a limit over all connections. Beyond it, the longest one
    is given up: printed as partial, and skipped to its end.

    A connection is remembered here while it has an unread offer or an unfinished message. Up to
    which position it was consumed is remembered until its end is told.

    Thread: the plugin's, which needs an event loop.
    Owner:  the caller, also of the writer and the counters.
*/
class ExactReader
{
public:
    ExactReader(MessageWriter &messageWriter, Counters &total, const Answer &toOffers,
                const ExactOffers::Limits &memory, const Pace &readingPace);

    // See MessageReader.
    void setAnswering(bool enable) { answering = enable; }
    void setForgetAfter(std::chrono::nanoseconds silence) { forgetAfter = silence.count(); }
    // Forgets all that it knows.
    void setEndsTold(bool enable);
    void setMaxUnfinished(qint64 bytes) { maxUnfinished = bytes; }

    // place: of the record, with a connection.
    void receive(const ExactOffers::Place &place, const shared_parsedData &record);

    // Reads all that waits, and gives up what is unfinished.
    void forgetAll();
    // Every second, as far as records are not waiting. Forgets connections that were silent for too
    // long, unless their ends are told.
    void forgetSilent(std::chrono::nanoseconds interval);

    qsizetype remembered() const;

private:
    struct Client
    {
        quint64 number = 0;
        shared_parsedData record; // the latest offer, until it is read; null: none
        std::optional<ExactOffers::Place> place; // of that record
        std::optional<ExactOffers::Offer> offer; // that record, opened
        qsizetype used = 0; // of the offer's fresh bytes
        qsizetype answered = 0; // for so many of them
        shared_parsedData end; // null: not told
        bool waits = false; // in the queue

        Origin origin; // of the latest offer that was opened
        QByteArray tail; // the beginning of a message; its size grows in steps, see QByteArray
        qsizetype counted = 0; // of its bytes, in unfinished
        FrameState framing;
        qint64 lastOfferTime = 0;

        // False: its state is that of a client that has sent nothing, so that its entry can go.
        bool isWorthKeeping() const { return waits || !tail.isEmpty() || framing.isSkipping(); }
    };
    using Clients = std::list<Client>;

    void take(Client &client, const ExactOffers::Place &place, const shared_parsedData &record);
    void goOn(quint64 number);
    void proceed(Client &client);
    bool readOffer(Client &client);
    void open(Client &client);
    qsizetype readBytes(Client &client, QByteArrayView bytes, Allowance &allowance);
    qsizetype finishTail(Client &client, QByteArrayView bytes, Allowance &allowance);
    void answerOffer(Client &client, bool isRead);
    void end(Client &client);

    Clients::iterator keep(Client &&client);
    void settle(Clients::iterator client);
    bool giveUpLargest();
    void forgetOldest();
    void forget(Clients::iterator client);
    void giveUp(Client &client);

    MessageWriter &writer;
    Counters &counters;
    const Answer &answer;
    const ExactOffers::Limits givenMemory;
    const Allowance goAllowance;

    std::optional<ExactOffers> exactOffers; // never empty; made anew by setEndsTold()
    ExactOffers::Clock::time_point pacedTime; // its time, see forgetSilent()
    Clients clients; // the longest silent one first
    QHash<quint64, Clients::iterator> byNumber;
    UnfinishedSizes unfinished; // of their tails
    TurnQueue queue; // some of them may be forgotten meanwhile

    QElapsedTimer clock;
    qint64 forgetAfter = 0; // in nanoseconds
    qint64 maxUnfinished = std::numeric_limits<qint64>::max();

    bool answering = true;
    bool endsTold = false;
};

} // namespace host
