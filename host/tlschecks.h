// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/web/snapshot.h"

#include <QtCore/QJsonObject>
#include <QtCore/QList>
#include <QtCore/QStringList>

class QDateTime;

/*!
    What the host itself looks at in a TLS configuration.

    Thread: any; no shared state.
*/
namespace host {

// Why the host does not run this configuration of a plugin: clients are verified, but with whatever
// CAs the system has, which nobody has asked for. Empty if it is good.
QString tlsRefusal(const QJsonObject &configuration);

// Changes with the contents of any file that the object names. ssl: the object of that name.
QByteArray fingerprintOfFiles(const QJsonObject &ssl);

// That the server's certificate is not the key's; empty if it is, or if one of them cannot be read.
QString mismatchOf(const QJsonObject &ssl);

// That whoever is between devices and the host reads what they send; empty with TLS, and on an
// address that only this machine reaches. address: that is listened on.
QString plainTcpWarning(const QJsonObject &configuration, const QString &address);

// What an operator should know of the server's certificate and its chain, one line each: it has
// expired or does so within 30 days, it is not the key's, the chain is not its own. ssl: the object
// of that name. What cannot be read causes no line here, since the plugin tells of it.
QStringList certificateWarnings(const QJsonObject &ssl, const QDateTime &now);

// The server's certificate and those that are sent along, and when each ends. ssl: as above. What
// cannot be read is left out.
QList<CertificateEnd> certificateEnds(const QJsonObject &ssl);

} // namespace host
