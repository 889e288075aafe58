// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "ssl/sessiontickets.h"

#include <QtNetwork/QSslSocket>

#include <openssl/ssl.h>

namespace {

// Qt has no setting for the number of tickets, refuses OpenSSL's "NumTickets" command, and does not
// show its SSL object. But OpenSSL tells whoever asks of each that is made and freed.
thread_local bool watching = false;
thread_local SSL *made = nullptr; // while watching; lives

void noteMade(void *parent, void *, CRYPTO_EX_DATA *, int, long, void *)
{
    if (watching && !made)
        made = static_cast<SSL *>(parent);
}

void noteFreed(void *parent, void *, CRYPTO_EX_DATA *, int, long, void *)
{
    if (made == parent)
        made = nullptr;
}

} // namespace

void startServerEncryptionWithoutTickets(QSslSocket &socket)
{
    // Once for the process; stays for good, as the library does.
    static const int index = SSL_get_ex_new_index(0, nullptr, noteMade, nullptr, noteFreed);
    made = nullptr;
    watching = index >= 0;
    socket.startServerEncryption();
    watching = false;
    // In time: tickets come after the client's answer to what was sent just now. And not sooner:
    // while it is being made, the object is not ours to change.
    if (made)
        SSL_set_num_tickets(made, 0);
    made = nullptr;
}
