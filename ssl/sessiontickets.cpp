// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "ssl/sessiontickets.h"

#include <QtNetwork/QSslSocket>

#include <openssl/ssl.h>

namespace {

// Qt has no setting for the number of tickets, refuses OpenSSL's "NumTickets" command, and does not
// expose its SSL object. But OpenSSL calls back for each SSL object that is made or freed.
thread_local bool watching = false;
thread_local SSL *made = nullptr; // the one made while watching; null once it is freed

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
    // One index for the process. It is never freed, as the library is never unmapped.
    static const int index = SSL_get_ex_new_index(0, nullptr, noteMade, nullptr, noteFreed);
    made = nullptr;
    watching = index >= 0;
    socket.startServerEncryption();
    watching = false;
    // Not too late: OpenSSL sends tickets only after the client's answer to what was sent just now.
    // Not earlier, in noteMade(): nobody may change the object while it is being made.
    if (made)
        SSL_set_num_tickets(made, 0);
    made = nullptr;
}
