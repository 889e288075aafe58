// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// sslsink PORT CERTIFICATE KEY [--tickets]
//
// What receiving over TLS costs without Qt: as epollsink, with OpenSSL on the descriptor. OpenSSL
// reads each record in two calls, its header first: small records can be had for less. The key is
// RSA or EC. --tickets: gives session tickets, and resumes sessions. Runs until SIGTERM, then
// prints the counts.

#include "benchmarks/linecounter.h"
#include "benchmarks/listening.h"
#include "benchmarks/sinkprocess.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int EventsPerWait = 256;
constexpr int ReadBytes = 16 * 1024; // a record has no more
constexpr int ReadsPerEvent = 16; // then it is another connection's turn

struct Deleter
{
    void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
    void operator()(SSL *ssl) const { SSL_free(ssl); }
};
using ContextPointer = std::unique_ptr<SSL_CTX, Deleter>;
using SslPointer = std::unique_ptr<SSL, Deleter>;

// Null if the files are not usable.
ContextPointer newContext(const char *certificate, const char *key, bool tickets)
{
    ContextPointer context(SSL_CTX_new(TLS_server_method()));
    SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
    SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF); // tickets hold all
    SSL_CTX_set_options(context.get(), SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_RENEGOTIATION);
    if (!tickets) {
        SSL_CTX_set_options(context.get(), SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(context.get(), 0);
    }
    if (SSL_CTX_use_certificate_chain_file(context.get(), certificate) != 1
        || SSL_CTX_use_PrivateKey_file(context.get(), key, SSL_FILETYPE_PEM) != 1)
        return nullptr;
    return context;
}

class SslSink
{
public:
    SslSink(int listeningSocket, int stopSignal, ContextPointer &&serverContext)
        : listener(listeningSocket),
          stop(stopSignal),
          context(std::move(serverContext))
    {
        watch(listener);
        watch(stop);
    }

    void run()
    {
        std::array<epoll_event, EventsPerWait> events;
        for (;;) {
            const int count = epoll_wait(epoll, events.data(), EventsPerWait, -1);
            for (int i = 0; i < count; ++i) {
                const int fd = events[static_cast<std::size_t>(i)].data.fd;
                if (fd == stop)
                    return counter.print();
                if (fd == listener)
                    accept();
                else
                    receive(fd);
            }
        }
    }

private:
    void watch(int fd)
    {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
    }

    void accept()
    {
        for (;;) {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0)
                return;
            ++counter.connections;
            SslPointer ssl(SSL_new(context.get()));
            SSL_set_fd(ssl.get(), fd);
            SSL_set_accept_state(ssl.get()); // SSL_read() makes the handshake
            if (connections.size() <= static_cast<std::size_t>(fd))
                connections.resize(static_cast<std::size_t>(fd) + 1);
            connections[static_cast<std::size_t>(fd)] = std::move(ssl);
            watch(fd);
        }
    }

    void receive(int fd)
    {
        SSL *ssl = connections[static_cast<std::size_t>(fd)].get();
        for (int i = 0; i < ReadsPerEvent; ++i) {
            ERR_clear_error();
            const int size = SSL_read(ssl, buffer.data(), ReadBytes);
            if (size <= 0)
                return handleNothing(fd, ssl, SSL_get_error(ssl, size));
            counter.add(buffer.data(), static_cast<std::size_t>(size));
        }
    }

    // What a handshake answers always fits into the socket's buffer, so nothing waits to be
    // written.
    void handleNothing(int fd, SSL *ssl, int error)
    {
        if (error == SSL_ERROR_WANT_READ)
            return;
        if (error == SSL_ERROR_ZERO_RETURN)
            SSL_shutdown(ssl);
        connections[static_cast<std::size_t>(fd)].reset();
        close(fd);
    }

    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    const int listener;
    const int stop;
    const ContextPointer context;
    std::vector<SslPointer> connections; // by descriptor
    LineCounter counter;
    std::array<char, ReadBytes> buffer;
};

} // namespace

int main(int argc, char **argv)
{
    raiseDescriptorLimit();
    std::signal(SIGPIPE, SIG_IGN); // a device may be gone when it is answered
    const int stop = openStopSignal();
    const bool tickets = argc == 5 && std::strcmp(argv[4], "--tickets") == 0;
    if (argc != 4 && !tickets) {
        std::fputs("usage: sslsink PORT CERTIFICATE KEY [--tickets]\n", stderr);
        return 2;
    }
    ContextPointer context = newContext(argv[2], argv[3], tickets);
    if (!context) {
        ERR_print_errors_fp(stderr);
        return 1;
    }
    const int listener = listenOn(static_cast<std::uint16_t>(std::atoi(argv[1])));
    if (listener < 0) {
        std::perror("sslsink: cannot listen");
        return 1;
    }
    SslSink sink(listener, stop, std::move(context));
    sink.run();
}
