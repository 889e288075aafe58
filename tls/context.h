// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tls/settings.h"

#include <QtCore/QString>

#include <chrono>
#include <memory>

struct ssl_ctx_st; // OpenSSL's SSL_CTX

namespace tls {

class TicketKeys;

/*!
    What all connections of a server have in common: certificate, key, versions, ciphers. It offers
    what a QSslSocket with the same configuration offers, but sends session tickets only if the
    settings ask for them.

    Thread: any.
    Owner:  shared by the server and its connections.
*/
class Context
{
public:
    explicit Context(const Settings &settings);
    ~Context();
    Q_DISABLE_COPY_MOVE(Context)

    // Why no connection can use it, in the words of Qt. Empty: they can.
    const QString &failure() const { return problem; }
    // Whether a peer must show a certificate that verifies.
    bool verifiesPeer() const { return verifies; }

    // For tests: what the ticket keys take for the time.
    void setTicketTime(std::chrono::steady_clock::time_point now);

    ssl_ctx_st *handle() const { return context.get(); }

private:
    struct Free
    {
        void operator()(ssl_ctx_st *freed) const;
    };

    QString setUp(const Settings &settings);
    QString setVersions(const Settings &settings);
    QString setCiphers(const Settings &settings);
    QString setGroups(const Settings &settings);
    QString setCertificate(const QSslConfiguration &base);
    void setAuthorities(const Settings &settings);
    void setVerification(const QSslConfiguration &base);
    void setDiffieHellman(const QSslConfiguration &base);
    void setTickets(bool wanted);

    std::unique_ptr<ssl_ctx_st, Free> context;
    std::unique_ptr<TicketKeys> ticketKeys; // null: no tickets
    bool verifies = false;
    QString problem;
};

} // namespace tls
