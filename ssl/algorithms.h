// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtNetwork/QSslCipher>
#include <QtNetwork/QSslEllipticCurve>

/*!
    OpenSSL's lists of ciphers, cipher suites and groups: whether they are good, and what they are
   to Qt.

    Thread: any; no shared state.
*/
namespace tls {

// A list of ciphers up to TLS 1.2 that selects at least one.
bool isCipherList(const QByteArray &list);
// Names of cipher suites of TLS 1.3, separated by colons, all of which exist.
bool areCipherSuites(const QByteArray &list);
// Names of groups, separated by colons, all of which exist.
bool areGroups(const QByteArray &list);

// The selected ciphers up to TLS 1.2 that Qt knows.
QList<QSslCipher> ciphersFrom(const QByteArray &list);
// In the list's order. Empty unless Qt knows all of them.
QList<QSslCipher> cipherSuitesFrom(const QByteArray &list);
QList<QSslEllipticCurve> groupsFrom(const QByteArray &list);

} // namespace tls
