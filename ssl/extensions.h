// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

class QJsonObject;

namespace tls {

struct Settings;

/*!
    Reads the keys of a TLS configuration that ssl::readSslConfig() does not know: engine, kind and
    pass phrase of the key, chain, revoked certificates, ciphers, groups, tickets, system's CAs.

    settings.base: as readSslConfig() has made it of the same object. Without any of these keys,
    nothing changes but systemCas. The values of these keys are accepted ones (ssl/sslkeys.h).

    False, with a line for each reason, if a file cannot be opened or does not hold what it should,
    or if a key needs another engine than the chosen one. A "KeyFile" that cannot be opened has no
    line here: readSslConfig() has written it.

    Thread: any.
*/
bool readExtensions(const QJsonObject &config, Settings &settings);

} // namespace tls
