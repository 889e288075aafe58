// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QObject>

class QJsonObject;
class QSslConfiguration;

/*!
    The TLS configuration reader.
*/
class ssl : public QObject
{
    Q_OBJECT

public:
    /*!
        Sets sslConfig to Qt's default configuration with the changes that config asks for.

        Keys, applied in sorted order: "CACertificate", "CAFile" (both add), "CertFile",
        "Certificate" (wins), "KeyFile", "PrivateKey" (wins; RSA only), "tlsDebug", "tlsVersion"
        ("1.2", "1.2+", "1.3", "1.3+"), "verifyPeer" (verifies only if it is JSON true or absent).
        Certificates and keys are PEM. One that does not parse is set as null and not logged.

        False if a named file cannot be opened. Each such file is logged, and all other keys are
        applied.

        Thread: any.
    */
    static bool readSslConfig(const QJsonObject &config, QSslConfiguration &sslConfig);
};
