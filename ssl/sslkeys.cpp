// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "ssl/sslkeys.h"

#include "ssl/algorithms.h"
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

bool isEngine(const QJsonValue &value)
{
    return value.toString() == QLatin1String("qt") || value.toString() == QLatin1String("own");
}

bool isAlgorithm(const QJsonValue &value)
{
    return value.toString() == QLatin1String("rsa") || value.toString() == QLatin1String("auto");
}

bool isFileName(const QJsonValue &value)
{
    return !value.toString().isEmpty();
}

bool isLevel(const QJsonValue &value)
{
    constexpr int Highest = 5;
    const int level = value.toInt(-1);
    return level >= 0 && level <= Highest;
}

template<bool (*IsList)(const QByteArray &)>
bool isListOf(const QJsonValue &value)
{
    const QByteArray list = value.toString().toUtf8();
    return !list.contains('\0') && IsList(list);
}

constexpr auto CertificateText = "a certificate in PEM";
constexpr auto CertificateFile = "the name of a file with a certificate in PEM";
constexpr auto FileName = "the name of a file";
constexpr auto Boolean = "true or false";
constexpr auto KeyFileKey = "KeyFile";
constexpr auto KeyTextKey = "PrivateKey";

} // namespace

const std::array<tls::Key, 21> &tls::keys()
{
    static constexpr std::array<Key, 21> All{{
            {"CACertificate", CertificateText, isCertificate},
            {"CAFile", CertificateFile, isFile<isCertificate>},
            {"CRLFile", FileName, isFileName, Bad::Refused},
            {"CertFile", CertificateFile, isFile<isCertificate>},
            {"Certificate", CertificateText, isCertificate},
            {"Chain", Boolean, isBoolean, Bad::Refused},
            {"ChainFile", FileName, isFileName, Bad::Refused},
            {"CipherSuites", "OpenSSL's names of cipher suites for TLS 1.3, with colons between",
             isListOf<areCipherSuites>, Bad::Refused},
            {"Ciphers", "a list of ciphers as OpenSSL has it, with at least one up to TLS 1.2",
             isListOf<isCipherList>, Bad::Refused},
            {"Groups", "OpenSSL's names of groups, with colons between", isListOf<areGroups>,
             Bad::Refused},
            {"KeyAlgorithm", "\"rsa\" or \"auto\"", isAlgorithm, Bad::Refused},
            {KeyFileKey, "the name of a file with an RSA key in PEM", isFile<isKey>},
            {"KeyPassphraseFile", FileName, isFileName, Bad::Refused},
            {KeyTextKey, "an RSA key in PEM", isKey},
            {"engine", "\"qt\" or \"own\"", isEngine, Bad::Refused},
            {"minimumSecurity", "0 to 5", isLevel, Bad::Refused},
            {"sessionTickets", Boolean, isBoolean, Bad::Refused},
            {"systemCAs", Boolean, isBoolean, Bad::Refused},
            {"tlsDebug", Boolean, isBoolean},
            {"tlsVersion", "1.2, 1.2+, 1.3 or 1.3+", isVersion},
            {"verifyPeer", Boolean, isBoolean},
    }};
    return All;
}

bool tls::refusesBad(const Key &key, const QJsonObject &object, bool strict)
{
    const auto is = [&key](const char *name) { return qstrcmp(key.name, name) == 0; };
    const bool isReadOtherwise = object.contains(QLatin1String("KeyPassphraseFile"))
            || object.value(QLatin1String("KeyAlgorithm")) == QLatin1String("auto");
    if (isReadOtherwise && (is(KeyFileKey) || is(KeyTextKey)))
        return false;
    return strict || key.bad == Bad::Refused;
}
