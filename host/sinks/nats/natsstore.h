// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/nats/natslink.h"
#include "host/sinks/nats/natsstream.h"
#include "host/sinks/nats/subjecttemplate.h"
#include "host/sinks/store.h"
#include "plugin/kit/linelimit.h"

#include <QtCore/QTimer>

#include <chrono>
#include <deque>
#include <list>
#include <set>
#include <unordered_map>
#include <vector>

namespace host {

/*!
    Messages into a stream of JetStream, each once and in the order of its connection.

    Of each connection one message is on its way; the others wait for its acknowledgement. So a
    message that fails is not overtaken. Thousands of connections fill the pipe all the same.

    A message that is too long for the server or the stream is skipped, with a warning.

    A message whose fate is unknown, since no answer has come or the server has gone, is looked for
    in the stream before it is sent again: however long the server was away, it is stored once. What
    is still on its way to the server meanwhile is recognised there by the message's id.

    Thread: the store's.
    Owner:  the StoreSink.
*/
class NatsStore : public Store
{
    Q_OBJECT

public:
    // answerLimit: see NatsLink.
    explicit NatsStore(const NatsSettings &natsSettings,
                       std::chrono::milliseconds answerLimit = NatsLink::DefaultAnswerLimit);

    QString open() override;
    void add(Batch batch) override;
    void close() override;

private:
    // Why nothing is stored, for some or for all messages.
    enum class Trouble {
        None,
        Starting, // not connected yet, and nothing is wrong
        Away, // no connection
        Unwanted, // the server refuses us
        NoStream, // it is not there
        Unusable, // nobody can say whether it is, or it cannot be created
        Unanswered, // the stream does not answer
        Refused, // the stream does not take a message
    };

    struct Held
    {
        Batch batch;
        qint64 unstored = 0; // messages
    };
    struct Waiting
    {
        std::list<Held>::iterator held;
        size_t entry = 0; // of its batch
    };
    //! The messages of one connection that are not stored.
    struct Lane
    {
        std::deque<Waiting> waiting; // the first one is on its way, or is the next one
        bool isBusy = false; // an answer will come
        bool isPostponed = false; // until the retry timer
        bool isUnsure = false; // the first one may be stored
        quint64 lookFrom = 0; // the first one would have at least that sequence number
    };

    void noteOpened();
    void noteLost(const QString &reason, bool isRefusal);
    void noteStream(quint64 lastSequence, const QString &created);

    void advance(quint64 connection, Lane &lane);
    void publish(quint64 connection, Lane &lane);
    void look(quint64 connection, Lane &lane);
    NatsRequest requestFor(const Waiting &message) const;
    bool isTooLong(const NatsRequest &request) const;
    void notePublished(quint64 connection, const NatsAnswer &answer);
    void noteLooked(quint64 connection, const NatsAnswer &answer);
    void skip(quint64 connection);
    void tellSkipped(bool atOnce);
    void removeFirst(quint64 connection, Lane &lane);
    void noteDone(quint64 connection, Lane &lane, quint64 sequence);
    void noteUnanswered(quint64 connection, Lane &lane);
    void noteRefused(quint64 connection, Lane &lane, const QString &reason);
    void postpone(quint64 connection, Lane &lane);
    void retry();
    void report();

    bool isNews(Trouble now);
    void noteStored();
    void goOn();

    QByteArray idOf(const Waiting &message) const;
    static const Batch::Entry &entryOf(const Waiting &message);

    const NatsSettings settings;
    SubjectTemplate subject;
    const QString subjectError;
    NatsLink link;
    NatsStream stream;
    bool ready = false; // connected, and the stream is there
    Trouble trouble = Trouble::Starting;
    std::set<Trouble> told; // since it could store last: each once, also if they take turns
    QString streamCreated;
    quint64 lastSequence = 0; // of the stream: all that we know of have no higher one
    std::list<Held> batches;
    std::unordered_map<quint64, Lane> lanes; // by connection; without empty ones
    std::vector<quint64> postponed; // connections
    bool streamIsInDoubt = false; // with the next retry it is asked for
    std::chrono::milliseconds pause; // before the next retry
    QTimer retryTimer;
    inputkit::LineLimit skippedLines;
    Stored progress; // not reported yet
};

} // namespace host
