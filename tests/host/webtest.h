// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/hangguard.h"

#include <QtCore/QByteArray>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

namespace webtest {

// A request as browsers and scrapers send it. headers: each with its line end.
inline QByteArray request(const QByteArray &target, const QByteArray &method = "GET",
                          const QByteArray &headers = "Host: localhost\r\n")
{
    return method + ' ' + target + " HTTP/1.1\r\n" + headers + "\r\n";
}

//! A connection to a web server, which may be of this thread.
class WebPeer
{
public:
    explicit WebPeer(quint16 port)
    {
        socket.connectToHost(QHostAddress(QHostAddress::LocalHost), port);
    }

    void send(const QByteArray &bytes) { socket.write(bytes); }
    // Everything that comes until the server closes.
    QByteArray toTheEnd()
    {
        QByteArray all;
        [&] { QTRY_VERIFY_WITH_TIMEOUT((all += socket.readAll(), isOver()), HangGuardMs); }();
        return all + socket.readAll();
    }
    bool isOver() const { return socket.state() == QAbstractSocket::UnconnectedState; }

    QTcpSocket socket;
};

inline QByteArray ask(quint16 port, const QByteArray &bytes)
{
    WebPeer peer(port);
    peer.send(bytes);
    return peer.toTheEnd();
}

inline QByteArray get(quint16 port, const QByteArray &target)
{
    return ask(port, request(target));
}

// 0: the answer has none.
inline int codeOf(const QByteArray &answer)
{
    return answer.startsWith("HTTP/1.1 ") ? answer.mid(9, 3).toInt() : 0;
}

inline QByteArray bodyOf(const QByteArray &answer)
{
    const qsizetype end = answer.indexOf("\r\n\r\n");
    return end < 0 ? QByteArray() : answer.mid(end + 4);
}

} // namespace webtest
