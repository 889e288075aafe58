// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

class QSslSocket;

/*!
    Begins the server's side of a handshake, as QSslSocket::startServerEncryption() does, on a
    connection that will send no TLS 1.3 session tickets.

    Tickets can cost data. If a device writes and closes without ever reading, the tickets lie
    unread in its kernel. That kernel then resets the connection and drops what it had not sent yet.
    The tickets would be useless anyway: each socket of Qt has its own OpenSSL context and ticket
    keys, so no ticket could be redeemed.

    Other TLS connections of the process are not affected. If Qt does not use the OpenSSL that this
    library is linked with, tickets are sent as usual.

    Thread: the socket's.
*/
void startServerEncryptionWithoutTickets(QSslSocket &socket);
