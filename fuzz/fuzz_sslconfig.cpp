// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// The TLS configuration readers.

#include "fuzz/fuzztarget.h"
#include "fuzz/jsoninput.h"
#include "ssl/extensions.h"
#include "ssl/ssl.h"
#include "ssl/sslkeys.h"
#include "tls/settings.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QSslCertificate>
#include <QtNetwork/QSslConfiguration>
#include <QtNetwork/QSslKey>
#include <QtNetwork/QSslSocket>

#include <algorithm>

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

// Whether start() comes so far as to read the keys that are always checked.
bool isAccepted(const QJsonObject &object)
{
    const auto &keys = tls::keys();
    return std::all_of(keys.begin(), keys.end(), [&object](const tls::Key &key) {
        const auto value = object.constFind(QLatin1String(key.name));
        return value == object.constEnd() || !tls::refusesBad(key, object, false)
                || key.isAccepted(*value);
    });
}

void checkExtensions(const QJsonObject &object, const QSslConfiguration &base)
{
    tls::Settings settings;
    settings.base = base;
    if (!tls::readExtensions(object, settings))
        return;
    const bool own = object.value(QLatin1String("engine")) == QLatin1String("own");
    require((settings.engine == tls::Engine::Own) == own, QStringLiteral("engine"));
    require(own
                    || (!settings.sessionTickets && settings.minimumSecurity < 0
                        && settings.revoked.isEmpty()),
            QStringLiteral("what Qt's engine has not is refused"));
    const bool hasKey = object.contains(QLatin1String("KeyFile"))
            || object.contains(QLatin1String("PrivateKey"));
    require(!hasKey || object.value(QLatin1String("KeyAlgorithm")) != QLatin1String("auto")
                    || !settings.base.privateKey().isNull(),
            QStringLiteral("a key that cannot be used is refused"));
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
    if (result && isAccepted(object))
        checkExtensions(object, config);
}
