// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "ssl/ssl.h"

#include "plugin/cwrn.h"
#include "ssl/sslvalues.h"

#include <QtCore/QFile>
#include <QtCore/QJsonObject>
#include <QtNetwork/QSslConfiguration>
#include <QtNetwork/QSslSocket>

namespace {

void setVersion(const QString &version, QSslConfiguration &sslConfig)
{
    const auto protocol = tls::protocolFrom(version);
    if (!protocol) {
        CWRN(QtWarningMsg, QStringLiteral("SSL Config: unknown TLS version %1, ignoring"), version);
        return;
    }
    CWRN(QtDebugMsg, QStringLiteral("SSL: Setting TLS protocol version '%1'"), version);
    // Deliberate: once a version is chosen, the client's cipher order applies.
    sslConfig.setSslOption(QSsl::SslOptionDisableServerCipherPreference, true);
    sslConfig.setProtocol(*protocol);
}

// False if the key names a file that cannot be opened.
bool applyFile(const QString &key, const QString &name, QSslConfiguration &sslConfig)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly)) {
        CWRN(QtWarningMsg,
             key == QLatin1String("CAFile")
                     ? QStringLiteral("SSL: Failed to open CA Certificate file %1")
                     : key == QLatin1String("CertFile")
                     ? QStringLiteral("SSL: Failed to open Certificate file %1")
                     : QStringLiteral("SSL: Failed to open key file %1"),
             name);
        return false;
    }
    const QByteArray pem = file.readAll();
    if (key == QLatin1String("CAFile"))
        sslConfig.addCaCertificate(tls::certificateFrom(pem));
    else if (key == QLatin1String("CertFile"))
        sslConfig.setLocalCertificate(tls::certificateFrom(pem));
    else
        sslConfig.setPrivateKey(tls::keyFrom(pem));
    return true;
}

} // namespace

bool ssl::readSslConfig(const QJsonObject &config, QSslConfiguration &sslConfig)
{
    sslConfig = QSslConfiguration::defaultConfiguration();
    CWRN(QtDebugMsg, QStringLiteral("SSL: Reading SSL config"));

    bool result = true;
    QSslSocket::PeerVerifyMode verifyMode = QSslSocket::VerifyPeer;
    // Sorted by key. So inline PEM is applied after the file of the same kind, and wins.
    const QStringList keys = config.keys();
    for (const QString &key : keys) {
        const QJsonValue value = config.value(key);
        const QString text = value.toString();
        if (key == QLatin1String("CACertificate"))
            sslConfig.addCaCertificate(tls::certificateFrom(text.toUtf8()));
        else if (key == QLatin1String("Certificate"))
            sslConfig.setLocalCertificate(tls::certificateFrom(text.toUtf8()));
        else if (key == QLatin1String("PrivateKey"))
            sslConfig.setPrivateKey(tls::keyFrom(text.toUtf8()));
        else if (key == QLatin1String("CAFile") || key == QLatin1String("CertFile")
                 || key == QLatin1String("KeyFile"))
            result = applyFile(key, text, sslConfig) && result;
        else if (key == QLatin1String("verifyPeer") && !value.toBool(false))
            verifyMode = QSslSocket::VerifyNone;
        else if (key == QLatin1String("tlsVersion"))
            setVersion(text, sslConfig);
        else if (key == QLatin1String("tlsDebug") && value.toBool(false)) {
            CWRN(QtDebugMsg, QStringLiteral("SSL: Enable Handshake Debugging"));
            sslConfig.setHandshakeMustInterruptOnError(true);
        }
    }
    sslConfig.setPeerVerifyMode(verifyMode);
    return result;
}
