// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

class QSslSocket;

/*!
    Begins the server's side of a handshake, as QSslSocket::startServerEncryption() does, on a
    connection that will send no TLS 1.3 session tickets.

    A device that writes and closes without ever reading has the tickets unread in its kernel, which
    then resets the connection and throws away what it had not sent yet. Nothing is given up: each
    socket of Qt has an OpenSSL context with ticket keys of its own, so no ticket could be redeemed.

    Other TLS connections of the process are left alone. Where Qt has its TLS not from the OpenSSL
    that we are linked with, tickets are sent as ever.

    Thread: the socket's.
*/
void startServerEncryptionWithoutTickets(QSslSocket &socket);
