// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtNetwork/QSsl>
#include <QtNetwork/QSslCertificate>
#include <QtNetwork/QSslKey>

#include <optional>

// What the texts of a TLS configuration stand for. Null, or nothing, if they stand for nothing.
namespace tls {

inline QSslCertificate certificateFrom(const QByteArray &pem)
{
    return QSslCertificate(pem, QSsl::Pem);
}

inline QSslKey keyFrom(const QByteArray &pem)
{
    return QSslKey(pem, QSsl::Rsa, QSsl::Pem, QSsl::PrivateKey, QByteArray());
}

inline std::optional<QSsl::SslProtocol> protocolFrom(const QString &version)
{
    if (version == QLatin1String("1.3"))
        return QSsl::TlsV1_3;
    if (version == QLatin1String("1.3+"))
        return QSsl::TlsV1_3OrLater;
    if (version == QLatin1String("1.2"))
        return QSsl::TlsV1_2;
    if (version == QLatin1String("1.2+"))
        return QSsl::TlsV1_2OrLater;
    return std::nullopt;
}

} // namespace tls
