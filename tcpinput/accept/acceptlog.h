// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/servers.h"

#include <QtCore/QObject>
#include <QtCore/QString>

/*!
    Writes a plugin's log lines of what happens to connections before a worker has them.

    Thread: the servers'.
    Owner:  the plugin, as a member; destroyed before the servers. No line is written afterwards.
*/
class AcceptLog : public QObject
{
public:
    // pluginId: for the lines. namesPeers: whether connections without TLS have a line. Both are
    // kept by reference.
    AcceptLog(const Servers &servers, const QString &pluginId, const bool &namesPeers);

private:
    template<class Server>
    void follow(const Server &server);
    void followGuard(const AcceptGuard &guard);
    void followProxies(const ProxyGate &proxies);
    void followLimiter(const ConnectionLimiter &limiter);

    const QString &id;
    const bool &logsPeers;
};
