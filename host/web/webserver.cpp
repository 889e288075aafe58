// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/webserver.h"

#include <cerrno>
#include <cstring>

#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace host {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds MostPause = 1s;

enum HttpCode { Forbidden = 403, WrongMethod = 405 };

// Nothing of other origins is loaded or shown, and no other origin reads or shows what is here.
constexpr std::pair<const char *, const char *> Headers[] = {
        {"Cache-Control", "no-store"},
        {"Connection", "close"},
        {"Cross-Origin-Resource-Policy", "same-origin"},
        {"Referrer-Policy", "no-referrer"},
        {"X-Content-Type-Options", "nosniff"},
};

int descriptorOf(MHD_Connection *connection)
{
    return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

// For what is no page.
constexpr const char *StrictestPolicy =
        "default-src 'none'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

// The address that the peer has connected to.
QHostAddress localAddress(MHD_Connection *connection)
{
    sockaddr_storage address = {};
    socklen_t size = sizeof(address);
    auto *const plain = reinterpret_cast<sockaddr *>(&address);
    if (::getsockname(descriptorOf(connection), plain, &size) != 0)
        return {};
    return QHostAddress(plain);
}

MHD_Result collect(void *list, MHD_ValueKind, const char *key, const char *value)
{
    if (qstricmp(key, "Host") == 0)
        static_cast<QStringList *>(list)->append(QString::fromUtf8(value));
    return MHD_YES;
}

// Browsers always send the header, once. A check of a balancer may send none.
bool isForUs(MHD_Connection *connection)
{
    QStringList hosts;
    MHD_get_connection_values(connection, MHD_HEADER_KIND, &collect, &hosts);
    return hosts.isEmpty()
            || (hosts.size() == 1 && isOwnHost(hosts.first(), localAddress(connection)));
}

// Null: it was not given.
QString argument(MHD_Connection *connection, const char *name)
{
    const char *const value = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, name);
    return value ? QString::fromUtf8(value) : QString();
}

MHD_Result queue(MHD_Connection *connection, const WebResponse &answer)
{
    // The library takes bytes that it does not change by a pointer to ones that it could.
    MHD_Response *const response = MHD_create_response_from_buffer(
            static_cast<std::size_t>(answer.body.size()),
            const_cast<char *>(answer.body.constData()), MHD_RESPMEM_MUST_COPY);
    if (!response)
        return MHD_NO;
    for (const auto &[name, value] : Headers)
        MHD_add_response_header(response, name, value);
    MHD_add_response_header(response, "Content-Type", answer.type.constData());
    MHD_add_response_header(response, "Content-Security-Policy",
                            answer.policy.isEmpty() ? StrictestPolicy : answer.policy.constData());
    if (answer.code == WrongMethod)
        MHD_add_response_header(response, "Allow", "GET, HEAD");
    const MHD_Result result =
            MHD_queue_response(connection, static_cast<unsigned>(answer.code), response);
    MHD_destroy_response(response);
    return result;
}

//! An address as the system's calls want it.
union SocketAddress {
    sockaddr plain;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

SocketAddress socketAddress(const WebAddress &wanted)
{
    SocketAddress address = {};
    if (wanted.address.protocol() == QAbstractSocket::IPv6Protocol) {
        const Q_IPV6ADDR bytes = wanted.address.toIPv6Address();
        static_assert(sizeof(bytes) == sizeof(address.v6.sin6_addr));
        std::memcpy(&address.v6.sin6_addr, &bytes, sizeof(bytes));
        address.v6.sin6_family = AF_INET6;
        address.v6.sin6_port = htons(wanted.port);
    } else {
        address.v4.sin_addr.s_addr = htonl(wanted.address.toIPv4Address());
        address.v4.sin_family = AF_INET;
        address.v4.sin_port = htons(wanted.port);
    }
    return address;
}

} // namespace

struct WebServer::Callbacks
{
    static MHD_Result handle(void *server, MHD_Connection *connection, const char *path,
                             const char *method, const char *, const char *, std::size_t *, void **)
    {
        // The first call, with a body still to come, is the only one: what is queued now ends the
        // connection, and nobody reads the body.
        return queue(connection,
                     static_cast<WebServer *>(server)->answer(connection, path, method));
    }

    static void note(void *server, MHD_Connection *connection, void **,
                     MHD_ConnectionNotificationCode what)
    {
        auto *const self = static_cast<WebServer *>(server);
        if (what == MHD_CONNECTION_NOTIFY_STARTED)
            self->deadlines.insert(connection, QDeadlineTimer(self->mostLifetime));
        else
            self->deadlines.remove(connection);
    }
};

WebServer::WebServer(Responder &answering, std::chrono::milliseconds lifetime)
    : responder(answering),
      mostLifetime(lifetime)
{
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, this, &WebServer::run);
    connect(&lateTimer, &QTimer::timeout, this, &WebServer::endLate);
}

WebServer::~WebServer()
{
    events.reset(); // watches a descriptor of the library
    if (daemon)
        MHD_stop_daemon(daemon);
}

bool WebServer::listen(const WebAddress &wanted)
{
    const SocketAddress address = socketAddress(wanted);
    const bool isV6 = address.plain.sa_family == AF_INET6;
    errno = 0;
    // No logger: what peers do wrong is no news.
    daemon = MHD_start_daemon(
            MHD_USE_EPOLL | (isV6 ? MHD_USE_IPv6 : MHD_NO_FLAG), wanted.port, nullptr, nullptr,
            &Callbacks::handle, this, MHD_OPTION_SOCK_ADDR, &address.plain,
            MHD_OPTION_NOTIFY_CONNECTION, &Callbacks::note, this, MHD_OPTION_CONNECTION_LIMIT,
            MostConnections, MHD_OPTION_PER_IP_CONNECTION_LIMIT, MostConnectionsPerAddress,
            MHD_OPTION_CONNECTION_MEMORY_LIMIT, MemoryPerConnection, MHD_OPTION_CONNECTION_TIMEOUT,
            static_cast<unsigned>(IdleTimeout.count()), MHD_OPTION_STRICT_FOR_CLIENT, 1,
            MHD_OPTION_END);
    if (!daemon) {
        error = QStringLiteral("Cannot listen on %1: %2")
                        .arg(wanted.toString(), qt_error_string(errno));
        return false;
    }
    listensOn = {wanted.address, MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_BIND_PORT)->port};
    events = std::make_unique<QSocketNotifier>(
            MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd, QSocketNotifier::Read);
    connect(events.get(), &QSocketNotifier::activated, this, &WebServer::run);
    lateTimer.start(std::min(mostLifetime, MostPause));
    run();
    return true;
}

void WebServer::run()
{
    MHD_run(daemon);
    MHD_UNSIGNED_LONG_LONG timeoutMs = 0;
    if (MHD_get_timeout(daemon, &timeoutMs) != MHD_YES)
        timer.stop();
    else
        timer.start(std::min(MostPause, std::chrono::milliseconds(timeoutMs)));
}

// Idle peers end by IdleTimeout; this ends those that go on, but slowly. The library sees that the
// connection is over, and closes it.
void WebServer::endLate()
{
    for (auto entry = deadlines.constBegin(); entry != deadlines.constEnd(); ++entry) {
        if (entry->hasExpired())
            ::shutdown(descriptorOf(entry.key()), SHUT_RDWR);
    }
}

WebResponse WebServer::answer(MHD_Connection *connection, const QByteArray &path,
                              const QByteArray &method)
{
    if (!isForUs(connection))
        return Responder::text(Forbidden, "This server is not known by that name.\n");
    if (method != "GET" && method != "HEAD")
        return Responder::text(WrongMethod, "Only GET and HEAD.\n");
    return responder.respond({QString::fromUtf8(path), argument(connection, "offset"),
                              argument(connection, "limit"), argument(connection, "sort"),
                              argument(connection, "search")});
}

} // namespace host
