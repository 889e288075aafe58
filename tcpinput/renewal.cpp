// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/renewal.h"

#include "plugin/cwrn.h"
#include "tls/context.h"

#include <QtCore/QThread>

#include <algorithm>

namespace {

// Why the configuration cannot be used. Empty if it can.
QString faultOf(const Configuration &fresh)
{
    // Also for Qt's engine, which would tell it with each connection.
    QString failure = tls::Context(*fresh.tls).failure();
    if (failure.isEmpty() && fresh.tls->base.localCertificate().isNull())
        return QStringLiteral("there is no certificate");
    return failure;
}

} // namespace

void setUpTls(SslServer &server, const Configuration &configuration)
{
    // No more threads than processors: a handshake waits for nothing but its peer.
    if (configuration.tls)
        server.setUp(*configuration.tls,
                     std::min(configuration.poolSize, QThread::idealThreadCount()));
}

CertificateRenewal::Answer renewCertificates(SslServer &server, Configuration &configuration,
                                             const QJsonObject &object, const QString &pluginId)
{
    Configuration fresh = configuration;
    QString fault;
    if (!server.isListening())
        fault = QStringLiteral("no TLS server listens");
    else if (!Configuration::check(object, pluginId) || !fresh.apply(object, pluginId)
             || !fresh.tls)
        fault = QStringLiteral("the configuration is not good");
    else
        fault = faultOf(fresh);
    if (!fault.isEmpty()) {
        CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): New certificates are not used: %2"),
             pluginId, fault);
        return CertificateRenewal::Answer::Refused;
    }
    configuration.tls = fresh.tls;
    setUpTls(server, configuration);
    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): New certificates are in use"), pluginId);
    return CertificateRenewal::Answer::Renewed;
}
