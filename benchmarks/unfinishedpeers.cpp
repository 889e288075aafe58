// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// unfinishedpeers CASE PORT COUNT
//
// COUNT peers on 127.0.0.1 that keep a TLS server busy and never send data. Whoever is closed
// connects again. Each has an address of its own, from 127.1.0.1 on. Cases:
//   silent       connect and send nothing
//   slow-hello   send a ClientHello, a byte every 200 ms
//   whole-hello  send a ClientHello and never answer
//   key-updates  finish the handshake (TLS 1.3), then send KeyUpdate messages as fast as they can
// Runs until SIGTERM, then prints counts.

#include "benchmarks/sinkprocess.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto TickInterval = 10ms;
constexpr int ConnectsPerTick = 50; // 5,000 a second
constexpr auto ByteInterval = 200ms; // of a slow ClientHello
constexpr int EventsPerWait = 1024;
constexpr int WaitMs = 5;
constexpr int UpdatesPerTurn = 16; // then it is another peer's turn
constexpr std::size_t PeersPerNetwork = 250; // 127.1.0.1 to 127.1.0.250, 127.1.1.1 and so on

enum class Case { Silent, SlowHello, WholeHello, KeyUpdates };

struct Deleter
{
    void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
    void operator()(SSL *ssl) const { SSL_free(ssl); }
};
using ContextPointer = std::unique_ptr<SSL_CTX, Deleter>;
using SslPointer = std::unique_ptr<SSL, Deleter>;

struct Counts
{
    unsigned long long connected = 0;
    unsigned long long closed = 0; // by the server
    unsigned long long keyUpdates = 0;
};

struct Peer
{
    int fd = -1; // negative: not connected
    std::size_t sent = 0; // bytes of the ClientHello
    Clock::time_point next; // when its next byte is due
    SslPointer ssl; // of key-updates
};

sockaddr_in addressOf(std::uint32_t address, std::uint16_t port)
{
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = htonl(address);
    return result;
}

ContextPointer newContext()
{
    ContextPointer context(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_NONE, nullptr);
    SSL_CTX_set_min_proto_version(context.get(), TLS1_3_VERSION);
    return context;
}

// What a device sends first.
std::string clientHello(SSL_CTX *context)
{
    const SslPointer ssl(SSL_new(context));
    BIO *const written = BIO_new(BIO_s_mem());
    SSL_set_bio(ssl.get(), BIO_new(BIO_s_mem()), written); // takes both
    SSL_set_connect_state(ssl.get());
    SSL_do_handshake(ssl.get());
    char *bytes = nullptr;
    const long size = BIO_get_mem_data(written, &bytes);
    return {bytes, static_cast<std::size_t>(size)};
}

class Peers
{
public:
    Peers(Case played, std::uint16_t serverPort, std::size_t count, int stopSignal)
        : kind(played),
          port(serverPort),
          stop(stopSignal),
          peers(count)
    {
        watch(stop, StopIndex);
        for (std::size_t index = 0; index < count; ++index)
            unconnected.push_back(index);
    }

    Counts run()
    {
        for (;;) {
            connectSome();
            bool atWork = false;
            if (kind == Case::SlowHello || kind == Case::WholeHello)
                sendHellos();
            else if (kind == Case::KeyUpdates)
                atWork = sendKeyUpdates();
            if (!handleEvents(atWork ? 0 : WaitMs))
                return counts;
        }
    }

private:
    static constexpr std::uint64_t StopIndex = ~std::uint64_t(0);

    void watch(int fd, std::uint64_t index) const
    {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.u64 = index;
        epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
    }

    void connectSome()
    {
        const Clock::time_point now = Clock::now();
        if (now < nextConnects)
            return;
        nextConnects = now + TickInterval;
        for (int i = 0; i < ConnectsPerTick && !unconnected.empty(); ++i) {
            const std::size_t index = unconnected.back();
            unconnected.pop_back();
            if (!connectPeer(index)) {
                unconnected.push_back(index);
                return; // no descriptor or port now: tried again at the next tick
            }
        }
    }

    // Connecting to the same machine does not wait, unless the server's queue is full.
    bool connectPeer(std::size_t index)
    {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return false;
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
        const auto network = static_cast<std::uint32_t>(index / PeersPerNetwork);
        const auto host = static_cast<std::uint32_t>(index % PeersPerNetwork);
        const sockaddr_in own = addressOf(0x7f010001 + (network << 8) + host, 0); // 127.1.0.1
        const sockaddr_in server = addressOf(INADDR_LOOPBACK, port);
        bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own);
        if (connect(fd, reinterpret_cast<const sockaddr *>(&server), sizeof server) != 0
            && errno != EINPROGRESS) {
            close(fd);
            return false;
        }
        ++counts.connected;
        Peer &peer = peers[index];
        peer.fd = fd;
        peer.sent = 0;
        peer.next = Clock::now();
        watch(fd, index);
        if (kind == Case::KeyUpdates)
            startTls(peer);
        return true;
    }

    void startTls(Peer &peer)
    {
        peer.ssl.reset(SSL_new(context.get()));
        SSL_set_fd(peer.ssl.get(), peer.fd);
        SSL_set_connect_state(peer.ssl.get());
    }

    // Peers whose bytes cannot be sent yet try again after the same interval.
    void sendHellos()
    {
        const Clock::time_point now = Clock::now();
        const std::size_t most = kind == Case::SlowHello ? 1 : hello.size();
        for (Peer &peer : peers) {
            if (peer.fd < 0 || peer.next > now || peer.sent == hello.size())
                continue;
            const std::string_view due = std::string_view(hello).substr(peer.sent, most);
            const ssize_t size = send(peer.fd, due.data(), due.size(), MSG_NOSIGNAL);
            if (size > 0)
                peer.sent += static_cast<std::size_t>(size);
            peer.next = now + ByteInterval;
        }
    }

    // False: none could be sent.
    bool sendKeyUpdates()
    {
        bool any = false;
        for (std::size_t index = 0; index < peers.size(); ++index) {
            Peer &peer = peers[index];
            for (int i = 0; i < UpdatesPerTurn && peer.fd >= 0 && advance(index, peer); ++i)
                any = true;
        }
        return any;
    }

    // The handshake, or one KeyUpdate. False: it has to wait, or is closed.
    bool advance(std::size_t index, Peer &peer)
    {
        ERR_clear_error();
        SSL *ssl = peer.ssl.get();
        const bool updates = SSL_is_init_finished(ssl) == 1;
        if (updates)
            SSL_key_update(ssl, SSL_KEY_UPDATE_NOT_REQUESTED);
        const int result = SSL_do_handshake(ssl);
        if (result == 1) {
            counts.keyUpdates += updates ? 1 : 0;
            return true;
        }
        const int error = SSL_get_error(ssl, result);
        const bool connecting = error == SSL_ERROR_SYSCALL && errno == ENOTCONN;
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE && !connecting)
            disconnected(index);
        return false;
    }

    // What the server sends is dropped. False at the end of the run.
    bool handleEvents(int timeoutMs)
    {
        std::array<epoll_event, EventsPerWait> events;
        const int count = epoll_wait(epoll, events.data(), EventsPerWait, timeoutMs);
        for (int i = 0; i < count; ++i) {
            const std::uint64_t index = events[static_cast<std::size_t>(i)].data.u64;
            if (index == StopIndex)
                return false;
            read(index);
        }
        return true;
    }

    void read(std::size_t index)
    {
        Peer &peer = peers[index];
        if (peer.fd < 0)
            return;
        char dropped[16384];
        if (peer.ssl) {
            if (SSL_is_init_finished(peer.ssl.get()) != 1)
                return; // advance() reads
            ERR_clear_error();
            const int result = SSL_read(peer.ssl.get(), dropped, sizeof dropped);
            if (result <= 0 && SSL_get_error(peer.ssl.get(), result) != SSL_ERROR_WANT_READ)
                disconnected(index);
            return;
        }
        const ssize_t size = recv(peer.fd, dropped, sizeof dropped, 0);
        if (size == 0 || (size < 0 && errno != EAGAIN))
            disconnected(index);
    }

    void disconnected(std::size_t index)
    {
        ++counts.closed;
        Peer &peer = peers[index];
        peer.ssl.reset();
        close(peer.fd);
        peer.fd = -1;
        unconnected.push_back(index);
    }

    const Case kind;
    const std::uint16_t port;
    const int stop;
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    const ContextPointer context = newContext();
    const std::string hello = clientHello(context.get());
    std::vector<Peer> peers;
    std::vector<std::size_t> unconnected; // indexes
    Clock::time_point nextConnects;
    Counts counts;
};

bool readCase(std::string_view name, Case &value)
{
    const struct
    {
        std::string_view name;
        Case value;
    } table[] = {{"silent", Case::Silent},
                 {"slow-hello", Case::SlowHello},
                 {"whole-hello", Case::WholeHello},
                 {"key-updates", Case::KeyUpdates}};
    for (const auto &row : table) {
        if (row.name == name) {
            value = row.value;
            return true;
        }
    }
    return false;
}

} // namespace

int main(int argc, char **argv)
{
    raiseDescriptorLimit();
    std::signal(SIGPIPE, SIG_IGN);
    const int stop = openStopSignal();
    Case played = Case::Silent;
    if (argc != 4 || !readCase(argv[1], played)) {
        std::fputs("usage: unfinishedpeers CASE PORT COUNT\n", stderr);
        return 2;
    }
    Peers peers(played, static_cast<std::uint16_t>(std::atoi(argv[2])),
                std::strtoul(argv[3], nullptr, 10), stop);
    const Counts counts = peers.run();
    std::printf("connected %llu closed %llu key-updates %llu\n", counts.connected, counts.closed,
                counts.keyUpdates);
}
