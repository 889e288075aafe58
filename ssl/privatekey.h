// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtNetwork/QSslKey>

#include <optional>

/*!
    Reads private keys of all kinds that a server can use: RSA, EC and Ed25519, in PKCS#1, SEC1 and
    PKCS#8, with a pass phrase or without.

    Thread: any; no shared state.
*/
namespace tls {

enum class KeyAlgorithm : bool { Rsa, Any };

struct PrivateKey
{
    QSslKey key; // null if it cannot be used
    QString fault; // then why; it shows nothing of key and pass phrase
};

// text: PEM; the first key in it counts. An Ed25519 key becomes an opaque QSslKey, which owns it.
PrivateKey readPrivateKey(const QByteArray &text, KeyAlgorithm algorithm,
                          const std::optional<QByteArray> &passPhrase);

} // namespace tls
