// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// The TLS configuration reader.

#include "fuzz/fuzztarget.h"
#include "fuzz/jsoninput.h"
#include "ssl/ssl.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QSslCertificate>
#include <QtNetwork/QSslConfiguration>
#include <QtNetwork/QSslSocket>

namespace {

bool allFilesOpen(const QJsonObject &object)
{
    for (const char *key : {"CAFile", "CertFile", "KeyFile"}) {
        const auto value = object.constFind(QLatin1String(key));
        if (value != object.constEnd() && !QFile(value->toString()).open(QIODevice::ReadOnly))
            return false;
    }
    return true;
}

QSsl::SslProtocol protocolOf(const QJsonObject &object)
{
    const QString version = object.value(QLatin1String("tlsVersion")).toString();
    if (version == QLatin1String("1.2"))
        return QSsl::TlsV1_2;
    if (version == QLatin1String("1.2+"))
        return QSsl::TlsV1_2OrLater;
    if (version == QLatin1String("1.3"))
        return QSsl::TlsV1_3;
    if (version == QLatin1String("1.3+"))
        return QSsl::TlsV1_3OrLater;
    return QSslConfiguration::defaultConfiguration().protocol();
}

qsizetype addedAuthorities(const QJsonObject &object)
{
    const auto file = object.constFind(QLatin1String("CAFile"));
    const bool opens =
            file != object.constEnd() && QFile(file->toString()).open(QIODevice::ReadOnly);
    return (object.contains(QLatin1String("CACertificate")) ? 1 : 0) + (opens ? 1 : 0);
}

} // namespace

void initialise()
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static const QCoreApplication application(argc, argv);
}

void fuzz(QByteArrayView input)
{
    const QJsonObject object = withInlineFiles(jsonFrom(input).object());
    if (!namesLocalFilesOnly(object))
        return;

    QSslConfiguration config;
    const bool result = ssl::readSslConfig(object, config);
    require(result == allFilesOpen(object), QStringLiteral("false if a file cannot be opened"));

    const QJsonValue verify = object.value(QLatin1String("verifyPeer"));
    require((config.peerVerifyMode() == QSslSocket::VerifyPeer)
                    == (verify.isUndefined() || (verify.isBool() && verify.toBool())),
            QStringLiteral("verifyPeer"));
    require(config.protocol() == protocolOf(object), QStringLiteral("tlsVersion"));
    const QJsonValue debug = object.value(QLatin1String("tlsDebug"));
    require(config.handshakeMustInterruptOnError() == (debug.isBool() && debug.toBool()),
            QStringLiteral("tlsDebug"));
    const qsizetype known = QSslConfiguration::defaultConfiguration().caCertificates().size();
    require(config.caCertificates().size() == known + addedAuthorities(object),
            QStringLiteral("authorities are added"));
}
