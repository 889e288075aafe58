// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/acceptlog.h"

#include "plugin/cwrn.h"

AcceptLog::AcceptLog(const Servers &servers, const QString &pluginId, const bool &namesPeers)
    : id(pluginId),
      logsPeers(namesPeers)
{
    follow(servers.tcp);
    follow(servers.tls);
    connect(&servers.tls.crowds, &MinuteNotice::due, this,
            [this](quint64 count, const QString &latest) {
                CWRN(QtWarningMsg,
                     QStringLiteral("TcpInputPlugin2(%1): Too many open TLS handshakes: %2 closed, "
                                    "the latest from %3"),
                     id, count, latest);
            });
    connect(&servers.tls.withoutTls, &MinuteNotice::due, this,
            [this](quint64 count, const QString &latest) {
                if (logsPeers)
                    CWRN(QtWarningMsg,
                         QStringLiteral(
                                 "TcpInputPlugin2(%1): Not TLS: %2 closed, the latest from %3"),
                         id, count, latest);
            });
}

template<class Server>
void AcceptLog::follow(const Server &server)
{
    followGuard(server.guard);
    followProxies(server.proxies);
    followLimiter(server.limiter);
}

void AcceptLog::followGuard(const AcceptGuard &guard)
{
    connect(&guard, &AcceptGuard::descriptorsOut, this, [this] {
        CWRN(QtWarningMsg,
             QStringLiteral("TcpInputPlugin2(%1): Out of file descriptors, accepting paused"), id);
    });
    connect(&guard, &AcceptGuard::acceptFails, this, [this](const QString &reason) {
        CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): Accepting fails, paused: %2"), id,
             reason);
    });
    connect(&guard, &AcceptGuard::acceptsAgain, this, [this] {
        CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): Accepting resumed"), id);
    });
}

void AcceptLog::followProxies(const ProxyGate &proxies)
{
    connect(&proxies, &ProxyGate::closedWithoutHeader, this,
            [this](quint64 count, quint64 silent, const QString &latest) {
                CWRN(QtWarningMsg,
                     QStringLiteral("TcpInputPlugin2(%1): No good PROXY header: %2 closed, the "
                                    "latest from %3; %4 ended before their first byte"),
                     id, count, latest, silent);
            });
    connect(&proxies, &ProxyGate::refusedOthers, this,
            [this](quint64 count, const QString &latest) {
                CWRN(QtWarningMsg,
                     QStringLiteral("TcpInputPlugin2(%1): Not from a proxy: %2 refused, the latest "
                                    "from %3"),
                     id, count, latest);
            });
}

void AcceptLog::followLimiter(const ConnectionLimiter &limiter)
{
    connect(&limiter, &ConnectionLimiter::full, this, [this](int connections) {
        CWRN(QtWarningMsg,
             QStringLiteral("TcpInputPlugin2(%1): %2 connections are open, accepting paused"), id,
             connections);
    });
    connect(&limiter, &ConnectionLimiter::fullNoMore, this, [this](int connections) {
        CWRN(QtInfoMsg,
             QStringLiteral("TcpInputPlugin2(%1): Less than %2 connections open for a minute"), id,
             connections);
    });
    connect(&limiter, &ConnectionLimiter::refused, this,
            [this](quint64 count, const QString &latest) {
                CWRN(QtWarningMsg,
                     QStringLiteral("TcpInputPlugin2(%1): Too many connections of one address: %2 "
                                    "refused, "
                                    "the latest from %3"),
                     id, count, latest);
            });
}
