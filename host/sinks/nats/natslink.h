// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/nats/natsanswers.h"
#include "host/sinks/nats/natsconnection.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>

namespace host {

/*!
    Keeps a connection to one of several servers: tries them in turn, for ever. Asks, and finds the
    answer to each request.

    Thread: its creator's, with an event loop.
    Owner:  the NatsStore.
*/
class NatsLink : public QObject
{
    Q_OBJECT

public:
    // Called once for each request, never from within request(). In it requests can be made.
    using Handler = std::function<void(const NatsAnswer &)>;

    static constexpr std::chrono::milliseconds DefaultAnswerLimit{5000};

    // answerLimit: a request without an answer for so long is over, and nobody knows its fate.
    NatsLink(const NatsSettings &natsSettings, std::chrono::milliseconds answerLimit,
             QObject *parent);
    ~NatsLink() override;

    // opened() follows, sooner or later.
    void open();
    // All requests are forgotten. Waits for nothing.
    void close();

    bool isOpen() const { return connected; }
    QString server() const;
    qint64 maxPayload() const { return mostPayload; }
    QString complaint() const { return connected ? connection->complaint() : QString(); }

    // False: it could not be sent, and the handler is not called. Goes out with flush().
    bool request(const NatsRequest &request, Handler handler);
    void flush();

Q_SIGNALS:
    void opened();
    // It is over, or could not be made; the next attempt follows.
    void lost(const QString &reason, bool isRefusal);
    // After answers: all that are here have been given to their handlers.
    void drained();

private:
    void attempt();
    void noteOpened();
    void noteLost(const QString &reason, bool isRefusal);
    void answer(quint64 token, const NatsAnswer &answer);
    void noteAnswer(quint64 token, const QByteArray &data);
    void expire();
    void watchLimits();

    const NatsSettings settings;
    const std::chrono::milliseconds limit;
    std::unique_ptr<NatsConnection> connection;
    bool connected = false;
    QElapsedTimer sinceOpened;
    qint64 mostPayload = 0;
    qsizetype turn = 0; // the server that is tried, or was
    std::chrono::milliseconds pause; // before the next attempt
    QTimer attemptTimer;
    quint64 lastToken = 0;
    std::unordered_map<quint64, Handler> handlers; // by token
    QElapsedTimer clock;
    std::deque<std::pair<qint64, quint64>> limits; // when a token's limit ends, in order
    QTimer limitTimer;
};

} // namespace host
