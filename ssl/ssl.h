// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QObject>

class QJsonObject;
class QSslConfiguration;

/*!
    The home of the TLS configuration reader.
*/
class ssl : public QObject
{
    Q_OBJECT

public:
    /*!
        Overwrites sslConfig with Qt's default configuration and what config says.

        Keys, applied in sorted order: "CACertificate", "CAFile" (both add), "CertFile",
        "Certificate" (wins), "KeyFile", "PrivateKey" (wins; RSA only), "tlsDebug", "tlsVersion"
        ("1.2", "1.2+", "1.3", "1.3+"), "verifyPeer" (only JSON true, and its absence, verify).
        Certificates and keys are PEM; what does not parse is set as null, without a word.

        False if a named file could not be opened; each is logged, and the rest is applied.

        Thread: any.
    */
    static bool readSslConfig(const QJsonObject &config, QSslConfiguration &sslConfig);
};
