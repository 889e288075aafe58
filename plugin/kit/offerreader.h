// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/exactoffers.h"
#include "plugin/kit/offerconsumer.h"
#include "plugin/kit/turnqueue.h"
#include "plugin/kit/unfinishedsizes.h"
#include "plugin/parseddata.h"

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QSet>
#include <QtCore/QString>

#include <chrono>
#include <deque>
#include <functional>
#include <limits>
#include <list>
#include <optional>
#include <utility>
#include <vector>

namespace inputkit {

//! Passes an answer on to IInputPlugin::discard(). Must not lead back into the reader of the offer.
using Answer = std::function<void(int bytes, const QMap<QString, QString> &subId)>;

//! How much may be read before others get their turn.
struct Pace
{
    // One connection's go, which takes about 0.1 ms. Each at least 1.
    Allowance ofOffer = {256, 64 * 1024};
    // In a turn of the event loop: for all new records, and again for all connections that wait.
    std::chrono::nanoseconds ofTurn = std::chrono::milliseconds(5);
    // A long offer is answered in parts only if it takes longer than that.
    std::chrono::nanoseconds ofAnswer = std::chrono::milliseconds(50);
    // As TurnQueue takes it.
    TurnCount turnCount = nullptr;
};

/*!
    Reads offers that carry their position (ExactOffers).

    All bytes are read, also those of an unfinished message, which is kept here. So offers stay
    small, and each byte is handled once. An offer that is not read in one go waits for its turn. If
    a later offer of the same connection comes meanwhile, it replaces the waiting one: it has all
    bytes that are not consumed.

    All unfinished messages together have a size limit. Beyond it, the longest message is given up:
    its beginning is handed out as partial, and the rest is skipped.

    A consumer may run an event loop of its own. What comes meanwhile is read when it has returned.

    A connection is kept here while it has an unread offer or an unfinished message, or while a
    message is skipped. ExactOffers remembers for longer up to which position the connection was
    consumed: until its end is told or, without "ends", within the limits given to the constructor.

    Thread: the plugin's, which needs an event loop.
    Owner:  the caller, also of the consumer.
*/
class OfferReader
{
public:
    OfferReader(OfferConsumer &offerConsumer, const Answer &toOffers,
                const ExactOffers::Limits &memory = {}, const Pace &readingPace = {});
    Q_DISABLE_COPY_MOVE(OfferReader)

    // False: offers are read and not answered. Default: true.
    void setAnswering(bool enable) { answering = enable; }
    // Without "ends": how long a connection may be silent before it is forgotten. Default: 0.
    void setForgetAfter(std::chrono::nanoseconds silence) { forgetAfter = silence.count(); }
    // A change also forgets all connections, see forgetAll().
    void setEndsTold(bool enable);
    // Of all unfinished messages together. Default: no limit.
    void setMaxUnfinished(qint64 bytes) { maxUnfinished = bytes; }

    // place: the record's; its connection is not 0.
    void receive(const ExactOffers::Place &place, const shared_parsedData &record);
    // A record is being read, or given up. What comes meanwhile waits.
    bool isReading() const { return reading; }

    // A paused connection is not read: its latest record waits, and its end. May be called while a
    // message is handed out. A number that is not known is paused when it comes.
    void setPaused(quint64 connection, bool pause);
    // The same for all connections. Default: false.
    void setAllPaused(bool pause);

    // Reads all offers that wait, gives up unfinished messages, and forgets all connections.
    void forgetAll();
    // The same for the connections up to that number.
    void forgetUpTo(quint64 connection);
    // To be called by a timer, once per interval; a late call counts as one interval. Forgets
    // connections that were silent for too long, unless their ends are told.
    void forgetSilent(std::chrono::nanoseconds interval);

    // With "ends", the connections that have made an offer and are not over; without, those of
    // which something is kept.
    qsizetype remembered() const;

private:
    struct Client
    {
        quint64 number = 0;
        shared_parsedData record; // the latest offer, until it is read; null: none
        std::optional<ExactOffers::Place> place; // of that record
        std::optional<ExactOffers::Offer> offer; // that record, opened
        qsizetype used = 0; // how many of the offer's fresh bytes were read
        qsizetype answered = 0; // how many of them were answered
        qint64 answeredTime = 0; // when, or when the offer came; in ns of the queue's clock
        shared_parsedData end; // null: not told
        bool waits = false; // for its go, or until it is not paused any more
        bool queued = false; // its number is in the queue

        Origin origin; // of the latest offer that was opened
        QByteArray tail; // the beginning of a message; its capacity grows in steps
        quint64 received = 0; // the position behind the last byte that was read
        qsizetype counted = 0; // the tail's size as unfinished knows it
        FrameState framing;
        qint64 lastOfferTime = 0;

        // False: the state equals a new client's, so the entry can be removed.
        bool isWorthKeeping() const { return waits || !tail.isEmpty() || framing.isSkipping(); }
    };
    using Clients = std::list<Client>;

    void readRecord(const ExactOffers::Place &place, const shared_parsedData &record);
    void readLate();
    void take(Client &client, const ExactOffers::Place &place, const shared_parsedData &record);
    void goOn(quint64 number);
    void proceed(Client &client);
    void wait(Client &client);
    void append(Client &client);
    bool mayRead(const Client &client) const
    {
        return !allPaused && (paused.isEmpty() || !paused.contains(client.number));
    }
    bool readOffer(Client &client);
    void open(Client &client);
    qsizetype readBytes(Client &client, QByteArrayView bytes, Allowance &allowance);
    qsizetype finishTail(Client &client, QByteArrayView bytes, Allowance &allowance);
    qsizetype takeFromTail(Client &client, quint64 end, qsizetype appended, Allowance &allowance);
    static quint64 positionOfFresh(const Client &client);
    static quint64 positionOfTail(const Client &client);
    void answerOffer(Client &client, bool isRead);
    void end(Client &client);

    Clients::iterator keep(Client &&client);
    void settle(Clients::iterator client);
    bool giveUpLargest();
    void forgetOldest();
    void finish(Clients::iterator client);
    void forget(Clients::iterator client);
    void giveUp(Client &client);

    OfferConsumer &consumer;
    const Answer answer;
    const ExactOffers::Limits givenMemory;
    const Allowance goAllowance;
    const qint64 answerAfter; // in nanoseconds

    std::optional<ExactOffers> exactOffers; // never empty; forgetAll() makes a new one
    ExactOffers::Clock::time_point pacedTime; // the time for exactOffers, see forgetSilent()
    Clients clients; // the longest silent one first
    QHash<quint64, Clients::iterator> byNumber;
    UnfinishedSizes unfinished; // sizes of the clients' tails
    TurnQueue queue; // of numbers; their clients may be forgotten meanwhile
    QSet<quint64> paused;

    // What has come while the consumer delivered events, in a nested event loop of its own.
    std::deque<std::pair<ExactOffers::Place, shared_parsedData>> late;
    std::vector<quint64> lateGoes;

    qint64 forgetAfter = 0; // in nanoseconds
    qint64 maxUnfinished = std::numeric_limits<qint64>::max();

    bool reading = false;
    bool allPaused = false;
    bool answering = true;
    bool endsTold = false;
};

} // namespace inputkit
