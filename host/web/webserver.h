// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/web/responder.h"
#include "host/web/webaddress.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <memory>

struct MHD_Connection;
struct MHD_Daemon;
struct MHD_Response;

namespace host {

/*!
    An HTTP server, on libmicrohttpd: has a responder answer GET and HEAD, and refuses all else.

    A connection has one request, and lasts Lifetime at most, however slow its peer is. So many
    peers, and all they do, cost a bounded amount of memory: MostConnections times
    MemoryPerConnection, and the answers on their way.

    Thread: its creator's, with an event loop.
    Owner:  the caller, also of the responder.
*/
class WebServer : public QObject
{
    Q_OBJECT

public:
    static constexpr unsigned MostConnections = 64;
    static constexpr unsigned MostConnectionsPerAddress = 32;
    static constexpr std::size_t MemoryPerConnection = 16 * 1024;
    static constexpr std::chrono::seconds IdleTimeout{5};
    static constexpr std::chrono::seconds DefaultLifetime{10};

    explicit WebServer(Responder &answering, std::chrono::milliseconds lifetime = DefaultLifetime);
    ~WebServer() override;

    // False: errorString() says why.
    bool listen(const WebAddress &wanted);
    QString errorString() const { return error; }
    // Where it listens, with the port that the system has chosen.
    WebAddress address() const { return listensOn; }

private:
    struct Callbacks; // of the library, which knows only functions

    void run();
    void endLate();
    WebResponse answer(MHD_Connection *connection, const QByteArray &path,
                       const QByteArray &method);

    Responder &responder;
    const std::chrono::milliseconds mostLifetime;
    MHD_Daemon *daemon = nullptr; // null: does not listen
    std::unique_ptr<QSocketNotifier> events;
    QTimer timer{this}; // until the library wants to run
    QTimer lateTimer{this};
    QHash<MHD_Connection *, QDeadlineTimer> deadlines; // of the open connections
    WebAddress listensOn;
    QString error;
};

} // namespace host
