// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtNetwork/QSslConfiguration>

namespace tls {

//! What carries out TLS.
enum class Engine {
    Qt, // QSslSocket
    Own, // OpenSSL directly
};

/*!
    How a server does TLS.

    Thread: any, a value.
*/
struct Settings
{
    // Certificate, chain, key, CAs, verification of the peer, versions and Qt's options. Both
    // engines follow it.
    QSslConfiguration base;
    Engine engine = Engine::Qt;
    // Whether certificates of the system's CAs verify, too.
    bool systemCas = true;
    // Session tickets for TLS 1.2 and 1.3. Own engine only.
    bool sessionTickets = false;
    // OpenSSL's security level, 0 to 5; negative: the system's. Own engine only.
    int minimumSecurity = -1;
    // OpenSSL's list of ciphers up to TLS 1.2, of cipher suites for TLS 1.3, and of groups. Empty:
    // those of base.
    QByteArray ciphers;
    QByteArray cipherSuites;
    QByteArray groups;
    // Lists of revoked certificates, PEM. Empty: nothing is asked. Own engine only.
    QByteArray revoked;
};

} // namespace tls
