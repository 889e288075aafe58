// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

#include <array>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

struct ssl_ctx_st; // OpenSSL's SSL_CTX
struct ssl_st;
struct evp_cipher_ctx_st;
struct evp_mac_ctx_st;

namespace tls {

/*!
    The keys of session tickets. A new one is made each hour; the one before is still accepted, and
    its tickets are replaced. Keys are never stored: tickets end with the server.

    Thread: any.
    Owner:  the context, as a member; nobody else may set a callback for tickets.
    Locks:  mutex; OpenSSL's ciphers are set up under it.
*/
class TicketKeys
{
public:
    using Time = std::chrono::steady_clock::time_point;

    explicit TicketKeys(ssl_ctx_st &context);
    Q_DISABLE_COPY_MOVE(TicketKeys)

    // now: for tests, the time from now on.
    void setTime(Time now);

private:
    static constexpr std::size_t NameBytes = 16;
    static constexpr std::size_t KeyBytes = 32;

    struct Key
    {
        std::array<unsigned char, NameBytes> name;
        std::array<unsigned char, KeyBytes> cipher;
        std::array<unsigned char, KeyBytes> digest;
        Time made;
    };

    static int use(ssl_st *session, unsigned char *name, unsigned char *iv,
                   evp_cipher_ctx_st *cipher, evp_mac_ctx_st *digest, int encrypts);
    static std::optional<Key> make(Time now);
    int encrypt(unsigned char *name, unsigned char *iv, evp_cipher_ctx_st *cipher,
                evp_mac_ctx_st *digest);
    int decrypt(const unsigned char *name, const unsigned char *iv, evp_cipher_ctx_st *cipher,
                evp_mac_ctx_st *digest);
    void rotate();
    Time now() const;

    std::mutex mutex;
    std::optional<Key> current; // this and below: guarded by mutex
    std::optional<Key> former;
    std::optional<Time> fixedTime;
};

} // namespace tls
