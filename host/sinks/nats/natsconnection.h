// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/nats/natssettings.h"

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>
#include <QtCore/QString>

#include <nats/nats.h>

#include <atomic>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace host {

//! One message to a NATS server.
struct NatsRequest
{
    QByteArray subject;
    // Without the empty ones: some readers take the line behind an empty value for its value.
    std::vector<std::pair<const char *, QByteArray>> headers;
    QByteArrayView data; // used until the call returns
};

/*!
    One connection to one server, from the attempt to its end. It does not reconnect.

    The library has no thread that reads or writes: the event loop does both, so a server that
    stands still makes nobody wait, and what came while the loop was busy is handled together. Over
    TLS the library waits for the socket; a connection that takes nothing for 5 s ends. Connecting
    waits, too, so a thread of its own does that.

    Thread: its creator's, with an event loop.
    Owner:  the NatsLink. The destructor waits for an attempt to connect, some seconds at most.
*/
class NatsConnection : public QObject
{
    Q_OBJECT

public:
    explicit NatsConnection(const QByteArray &inboxPrefix, QObject *parent = nullptr);
    ~NatsConnection() override;

    // opened() or failed() follows. Returns what is wrong with the settings; empty: nothing.
    QString open(const NatsSettings &settings, const QString &server);
    bool isAttempting() const { return attempting; }

    // Sent with the next flush(). False: the connection ends.
    bool send(const NatsRequest &request, quint64 token);
    void flush();
    qint64 maxPayload() const;
    // What the server has complained of last.
    QString complaint() const;

    // What is wrong with files that the settings name; empty: nothing.
    static QString settingsError(const NatsSettings &settings);

Q_SIGNALS:
    void opened();
    // isRefusal: the server does not want us.
    void failed(const QString &reason, bool isRefusal);
    void ended(const QString &reason);
    void answered(quint64 token, const QByteArray &data);
    // All answers that are here have been told.
    void drained();

private:
    struct Free
    {
        void operator()(natsOptions *it) const { natsOptions_Destroy(it); }
        void operator()(natsSubscription *it) const { natsSubscription_Destroy(it); }
        void operator()(natsConnection *it) const { natsConnection_Destroy(it); }
        void operator()(natsMsg *it) const { natsMsg_Destroy(it); }
    };
    using Options = std::unique_ptr<natsOptions, Free>;

    static QString apply(const NatsSettings &settings, natsOptions *target);
    QString prepare(const NatsSettings &settings, const QString &server);
    void connectNow();
    void noteOutcome();
    bool subscribe();
    void receive();
    void tell(natsMsg *message);
    void noteEnd();

    // The library calls these, in any thread; the connection is the user data.
    static natsStatus attach(void **userData, void *loop, natsConnection *, natsSock socket);
    static natsStatus watchReads(void *userData, bool on);
    static natsStatus watchWrites(void *userData, bool on);
    static natsStatus detach(void *userData);

    const QByteArray inbox;
    Options options;
    std::thread connector; // runs connectNow()
    bool attempting = false;
    bool over = false; // and ended() was emitted
    int descriptor = -1; // ours, for the notifiers: the library closes its own in any thread
    natsStatus status = NATS_OK; // of the attempt, as the next two; later, of what was sent
    QString error;
    std::unique_ptr<natsConnection, Free> connection;
    std::unique_ptr<natsSubscription, Free> subscription; // of the answers
    std::unique_ptr<QSocketNotifier> readNotifier;
    std::unique_ptr<QSocketNotifier> writeNotifier; // on while the kernel takes no more
    std::atomic<bool> unsent = false; // the library has bytes for the socket
};

} // namespace host
