// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "ssl/sslkeys.h"

#include "ssl/sslvalues.h"

#include <QtCore/QFile>

namespace {

bool isCertificate(const QJsonValue &value)
{
    return !tls::certificateFrom(value.toString().toUtf8()).isNull();
}

bool isKey(const QJsonValue &value)
{
    return !tls::keyFrom(value.toString().toUtf8()).isNull();
}

template<bool (*IsContent)(const QJsonValue &)>
bool isFile(const QJsonValue &value)
{
    QFile file(value.toString());
    return value.isString()
            && (!file.open(QIODevice::ReadOnly) || IsContent(QString::fromUtf8(file.readAll())));
}

bool isBoolean(const QJsonValue &value)
{
    return value.isBool();
}

bool isVersion(const QJsonValue &value)
{
    return tls::protocolFrom(value.toString()).has_value();
}

constexpr auto CertificateText = "a certificate in PEM";
constexpr auto CertificateFile = "the name of a file with a certificate in PEM";

} // namespace

const std::array<tls::Key, 9> &tls::keys()
{
    static constexpr std::array<Key, 9> All{{
            {"CACertificate", CertificateText, isCertificate},
            {"CAFile", CertificateFile, isFile<isCertificate>},
            {"CertFile", CertificateFile, isFile<isCertificate>},
            {"Certificate", CertificateText, isCertificate},
            {"KeyFile", "the name of a file with an RSA key in PEM", isFile<isKey>},
            {"PrivateKey", "an RSA key in PEM", isKey},
            {"tlsDebug", "true or false", isBoolean},
            {"tlsVersion", "1.2, 1.2+, 1.3 or 1.3+", isVersion},
            {"verifyPeer", "true or false", isBoolean},
    }};
    return All;
}
