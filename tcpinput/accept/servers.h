// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/connection.h"
#include "tcpinput/accept/sslserver.h"
#include "tcpinput/accept/tcpserver.h"

#include <optional>

/*!
    The two servers of a plugin, of which one is in use.

    Thread: the plugin's.
    Owner:  the plugin, as a member.
*/
class Servers
{
public:
    explicit Servers(QObject *plugin) : tcp(plugin), tls(plugin) {}

    // Default: TCP.
    void use(bool wantsTls) { usesTls = wantsTls; }
    QTcpServer &active() { return usesTls ? static_cast<QTcpServer &>(tls) : tcp; }
    AcceptGuard &guard() { return usesTls ? tls.guard : tcp.guard; }
    ConnectionLimiter &limiter() { return usesTls ? tls.limiter : tcp.limiter; }
    const ConnectionLimiter &limiter() const { return usesTls ? tls.limiter : tcp.limiter; }

    // For connections that are accepted from now on.
    void setUp(const Serving &serving, const std::optional<ProxyRule> &rule,
               const AcceptLimits &limits)
    {
        const auto setUpOne = [&](auto &server) {
            server.setServing(serving);
            server.setProxyRule(rule);
            server.setLimits(limits);
        };
        setUpOne(tcp);
        setUpOne(tls);
        tls.setHandshakeTimeout(limits.handshakeTimeoutMs);
    }
    void setPaused(bool pause)
    {
        tcp.setPaused(pause);
        tls.setPaused(pause);
    }
    // Of both: another configuration may have used the other one.
    void addTo(InputCounters &sum) const
    {
        tcp.addTo(sum);
        tls.addTo(sum);
    }
    // Closes the connections that wait for their header.
    void dropHeaders()
    {
        tcp.proxies.close();
        tls.proxies.close();
    }
    void stopListening()
    {
        if (usesTls)
            tls.stopListening();
        else
            tcp.stopListening();
    }
    void close()
    {
        if (usesTls)
            tls.close();
        else
            tcp.close();
    }
    // Reserves for that thread the oldest connection that is not reserved yet. Stores in the record
    // which server to take it from.
    void reserveFor(const QThread *taker, Connection &record)
    {
        record.setSsl(usesTls);
        if (usesTls) {
            record.setSslServer(&tls);
            tls.reserveFor(taker);
        } else {
            record.setTcpServer(&tcp);
            tcp.reserveFor(taker);
        }
    }

    TcpServer tcp;
    SslServer tls;

private:
    bool usesTls = false;
};
