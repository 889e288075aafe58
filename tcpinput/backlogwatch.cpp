// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/backlogwatch.h"

#include "tcpinput/tcpclient2.h"

#include <QtCore/QTimerEvent>

namespace {

constexpr int LookAfterMs = 1000;

} // namespace

BacklogWatch::Place BacklogWatch::add(TcpClient2 *client)
{
    if (!timer.isActive())
        timer.start(LookAfterMs, this);
    clients.push_back(client);
    return clients.size() - 1;
}

void BacklogWatch::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != timer.timerId())
        return QObject::timerEvent(event);
    timer.stop();
    // Nothing below runs code that could make or end a client.
    for (TcpClient2 *client : clients) {
        if (client)
            client->endWatch();
    }
    clients.clear();
}
