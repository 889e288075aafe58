// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/certificaterenewal.h"
#include "tcpinput/accept/sslserver.h"
#include "tcpinput/configuration/configuration.h"

class QJsonObject;
class QString;

// Has a server carry out TLS as configured, for handshakes that begin from now on.
void setUpTls(SslServer &server, const Configuration &configuration);

// Has a listening server use the "ssl" of the plugin's configuration, read anew with all its files.
// What else has changed in object waits for the next start. If anything is wrong, the server and
// configuration stay as they are; a line says why. Thread: the server's.
CertificateRenewal::Answer renewCertificates(SslServer &server, Configuration &configuration,
                                             const QJsonObject &object, const QString &pluginId);
