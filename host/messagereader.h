// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/counters.h"
#include "host/framing.h"
#include "host/message.h"
#include "host/offertracker.h"
#include "host/output.h"
#include "plugin/exactoffers.h"
#include "plugin/parseddata.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QSet>
#include <QtCore/QTimer>

#include <list>

namespace host {

/*!
    Turns the plugin's offers into messages, and answers them.

    Offers that carry their position are taken exactly (ExactOffers). For others it is guessed which
    bytes are repeated (OfferTracker).

    A connection is remembered from its first offer for as long as there is something to remember:
    bytes that may be offered again, or the beginning of a message. Nothing announces its end. It is
    forgotten when it was silent for longer than the plugin's idle time-out, since the plugin has
    closed it by then, or when it is the longest silent one of more than 100,000. What it still held
    is then printed as partial. The memory that this takes is bounded by what the plugin itself has
    buffered, as those bytes are not consumed.

    Thread: the plugin's, which needs an event loop; receive() is called directly.
    Owner:  the caller, also of the output and the counters.
*/
class MessageReader : public QObject
{
    Q_OBJECT

public:
    // memory: of stamped connections; its age counts no time for which offers had to wait.
    MessageReader(const FrameFormat &frameFormat, Output &messageOutput, Counters &total,
                  const ExactOffers::Limits &memory = {});

    // The plugin's idle time-out. Default: 60 s.
    void setIdleTimeout(qint64 seconds);
    // Stops after that many messages: nothing more is read or printed. 0 (default): never.
    void setMessageLimit(qint64 messages) { messageLimit = messages; }

    // False: the plugin is being stopped, and nobody carries out discards. The offers that still
    // come are read, and not answered. Default: true.
    void setAnswering(bool enable) { answering = enable; }

    // There will be no more offers from the connections known so far.
    void forgetAll();

    qsizetype rememberedConnections() const { return static_cast<qsizetype>(clients.size()); }

public Q_SLOTS:
    void receive(const shared_parsedData &record);

Q_SIGNALS:
    // To be connected with IInputPlugin::discard(). An offer without a complete message is not
    // answered: the plugin answers a discard of 0 bytes with the same offer, at once and for ever.
    // Here, 0 bytes ask for another offer: in exact connections for the rest of a message, after a
    // pause and a few times; in others once, see OfferTracker.
    void answered(int bytes, const QMap<QString, QString> &subId);
    // The message limit is reached.
    void finished();

private:
    struct Client
    {
        quint64 number = 0; // an exact one's connection; 0: it goes by its key
        QString key; // else: task and client
        QMap<QString, QString> subId;
        Origin origin; // of the last offer
        OfferTracker tracker;
        QByteArray tail; // what an exact client has not consumed; it leaves the tracker alone
        FrameState framing;
        qint64 lastOfferTime = 0;
        int asks = 0; // of an exact one, since it had anything new
        qint64 askTime = 0; // of the next one; earlier ones that still wait are void

        bool isWorthKeeping() const;
    };
    using Clients = std::list<Client>;

    void receivePlainly(const ParsedData &record);
    void receiveExactly(const ParsedData &record, const ExactOffers::Offer &offer);
    Client &clientOf(const ParsedData &record);
    Client &keep(Client &&client);
    Client takeOut(quint64 number);
    bool readExactly(Client &client, const ExactOffers::Offer &offer,
                     const QMap<QString, QString> &subId);
    void setOrigin(Client &client, const ParsedData &record) const;
    bool takeOffer(Client &client, const QByteArray &offer);
    void readMessages(Client &client);
    qsizetype takeMessages(Client &client);
    qsizetype takeFrames(Client &client, QByteArrayView bytes);
    void handle(const Client &client, const Frame &frame);
    void writeMessage(const Client &client, QByteArrayView bytes);

    void askLater(Client &client, int asks);
    void startAskTimer();
    void askForMore();
    void ask(Client &client);
    void settleLater(const Client &client);
    void postSettling();
    void settle(qint64 time);
    void settleClient(Client &client, qint64 time);

    void forgetSilent();
    void forgetOldest();
    void forget(const Client &client);
    void giveUp(Client &client);

    qint64 now();

    const FrameFormat format;
    Output &output;
    Counters &counters;

    ExactOffers exactOffers;
    ExactOffers::Clock::time_point pacedTime; // its time, see forgetSilent()
    Clients clients; // the longest silent one first
    QHash<quint64, Clients::iterator> exactClients; // by connection
    QHash<QString, Clients::iterator> plainClients; // by key
    QMultiMap<qint64, quint64> numbersByAskTime; // of exact clients, some without questions by now
    QSet<QString> unsettledKeys; // of clients, some of which may be forgotten meanwhile

    // Times are in nanoseconds, and no two are the same.
    QElapsedTimer clock;
    qint64 lastTime = 0;
    qint64 reachedTime = 0; // offers made before discards until then are handled
    qint64 forgetAfter = 0;
    QTimer settleTimer;
    QTimer askTimer;
    QTimer forgetTimer;

    qint64 messageLimit = 0;
    bool answering = true;
    bool done = false; // the message limit is reached
};

} // namespace host
