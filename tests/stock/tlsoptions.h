// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

#include <openssl/ssl.h>

// What macros of OpenSSL do, which cast as C does. False if OpenSSL does not know the names.
namespace tlsoptions {

inline bool setGroups(SSL *ssl, QByteArray names)
{
    return SSL_ctrl(ssl, SSL_CTRL_SET_GROUPS_LIST, 0, names.data()) == 1;
}

inline bool setSignatures(SSL *ssl, QByteArray names)
{
    return SSL_ctrl(ssl, SSL_CTRL_SET_SIGALGS_LIST, 0, names.data()) == 1;
}

inline bool nameServer(SSL *ssl, QByteArray name)
{
    return SSL_ctrl(ssl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, name.data()) == 1;
}

} // namespace tlsoptions
