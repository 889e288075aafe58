// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/messagewriter.h"
#include "host/offertracker.h"
#include "plugin/kit/offerreader.h"
#include "plugin/parseddata.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QSet>
#include <QtCore/QTimer>

#include <chrono>
#include <list>

namespace host {

/*!
    Reads offers that do not carry their position, and guesses which bytes are repeated
    (OfferTracker).

    An offer is read at once, however large it is: what is repeated depends on the order of offers
    and discards. Bytes of an unfinished message are not consumed, so that they stay in the plugin's
    buffer and are offered again.

    Thread: the plugin's, which needs an event loop.
    Owner:  the caller, also of the writer and the counters.
*/
class PlainReader : public QObject
{
    Q_OBJECT

public:
    PlainReader(MessageWriter &messageWriter, Counters &total, const inputkit::Answer &toOffers);

    // See RecordReader and MessageReader.
    void setAnswering(bool enable);
    void setForgetAfter(std::chrono::nanoseconds silence) { forgetAfter = silence.count(); }
    void setEndsTold(bool enable) { endsTold = enable; }

    void receive(const ParsedData &record);
    void forgetAll();
    // Forgets connections that were silent for too long, unless their ends are told.
    void forgetSilent();

    qsizetype remembered() const { return static_cast<qsizetype>(clients.size()); }

private:
    struct Client
    {
        QString key; // task and client
        QMap<QString, QString> subId;
        Origin origin; // of the last offer
        OfferTracker tracker;
        inputkit::FrameState framing;
        qint64 lastOfferTime = 0;

        // False: the state equals a new client's, so the entry can be removed.
        bool isWorthKeeping() const
        {
            return !tracker.isSettled() || !tracker.unread().isEmpty() || framing.isSkipping();
        }
    };
    using Clients = std::list<Client>;

    Client &clientOf(const ParsedData &record, const QString &key);
    bool takeOffer(Client &client, const QByteArray &offer);
    void readMessages(Client &client);
    qsizetype takeMessages(Client &client);

    void settleLater(const Client &client);
    void postSettling();
    void settle(qint64 time);
    void settleClient(Client &client, qint64 time);

    void forget(Clients::iterator client);
    void giveUp(Client &client);

    qint64 now();

    MessageWriter &writer;
    Counters &counters;
    // An offer without a complete message is not answered: the plugin would answer a discard of 0
    // bytes with the same offer, at once and for ever. A discard of 0 bytes is used once, to ask
    // for another offer after an unclear one, see OfferTracker.
    const inputkit::Answer &answer;

    Clients clients; // the longest silent one first
    QHash<QString, Clients::iterator> byKey;
    QSet<QString> unsettledKeys; // of clients, some of which may be forgotten meanwhile

    // Times are in nanoseconds, and no two are the same.
    QElapsedTimer clock;
    qint64 lastTime = 0;
    qint64 reachedTime = 0; // of the latest discard of which all earlier offers are handled
    qint64 forgetAfter = 0;
    QTimer settleTimer;

    bool answering = true;
    bool endsTold = false;
};

} // namespace host
