// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/check/portcheck.h"

#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpSocket>

namespace host {

QString portRefusal(const QHostAddress &address, quint16 port)
{
    // As the server's socket is bound. Linux refuses it if another one listens there already.
    QTcpSocket socket;
    if (socket.bind(address, port,
                    QAbstractSocket::ShareAddress | QAbstractSocket::ReuseAddressHint))
        return {};
    return socket.errorString();
}

} // namespace host
