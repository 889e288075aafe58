// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/tlschecks.h"

#include "host/certificates.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QDateTime>
#include <QtNetwork/QHostAddress>

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <vector>

namespace host {
namespace {

constexpr int WarnDays = 30;

using namespace certificates;

QString warningOfEnd(const Certificate &certificate, const QDateTime &now)
{
    const QDateTime end = endOf(certificate);
    if (!end.isValid() || end > now.addDays(WarnDays))
        return {};
    const QString format = end < now ? QStringLiteral("Certificate %1 has expired on %2")
                                     : QStringLiteral("Certificate %1 expires on %2");
    return format.arg(nameOf(certificate), end.date().toString(Qt::ISODate));
}

bool isIssuer(const Certificate &issuer, const Certificate &certificate)
{
    return X509_check_issued(issuer.get(), certificate.get()) == X509_V_OK;
}

// Of the first one that is not followed by its issuer.
QString warningOfChain(const std::vector<Certificate> &list)
{
    for (std::size_t i = 0; i + 1 < list.size(); ++i) {
        const Certificate &one = list[i];
        const Certificate &next = list[i + 1];
        if (isIssuer(next, one))
            continue;
        if (std::none_of(list.begin(), list.end(),
                         [&one](const Certificate &each) { return isIssuer(each, one); }))
            return QStringLiteral("Certificate %1 has an issuer that is not in its chain")
                    .arg(nameOf(one));
        return QStringLiteral("Certificate %1 is followed by %2 in its chain, which has not "
                              "issued it")
                .arg(nameOf(one), nameOf(next));
    }
    return {};
}

} // namespace

QString tlsRefusal(const QJsonObject &configuration)
{
    if (!configuration.contains(QLatin1String("ssl")))
        return {};
    const QJsonObject ssl = configuration.value(QLatin1String("ssl")).toObject();
    const bool verifies = ssl.value(QLatin1String("verifyPeer"))
                                  .toBool(!ssl.contains(QLatin1String("verifyPeer")));
    if (!verifies || ssl.contains(QLatin1String("CAFile"))
        || ssl.contains(QLatin1String("CACertificate"))
        || ssl.value(QLatin1String("systemCAs")).toBool())
        return {};
    return QStringLiteral(
            "\"ssl\" verifies devices, but names no CA. Set \"CAFile\"; or \"verifyPeer\": false "
            "if devices have no certificates; or \"systemCAs\": true if any CA that the system "
            "trusts may vouch for them");
}

QByteArray fingerprintOfFiles(const QJsonObject &ssl)
{
    QCryptographicHash hash(QCryptographicHash::Sha256);
    for (const char *key :
         {"CAFile", "CRLFile", "CertFile", "ChainFile", "KeyFile", "KeyPassphraseFile"})
        hash.addData(QCryptographicHash::hash(contentOf(ssl.value(QLatin1String(key))),
                                              QCryptographicHash::Sha256));
    return hash.result();
}

QString mismatchOf(const QJsonObject &ssl)
{
    ERR_set_mark();
    QString text;
    const std::vector<Certificate> list = certificatesOf(ssl);
    const Key key = keyOf(ssl);
    if (!list.empty() && key && X509_check_private_key(list.front().get(), key.get()) != 1)
        text = QStringLiteral("Certificate %1 does not match the private key")
                       .arg(nameOf(list.front()));
    ERR_pop_to_mark();
    return text;
}

QString plainTcpWarning(const QJsonObject &configuration, const QString &address)
{
    if (configuration.contains(QLatin1String("ssl")) || QHostAddress(address).isLoopback())
        return {};
    return QStringLiteral("Plain TCP on %1: whoever is on the way can read and change what devices "
                          "send. \"ssl\" switches TLS on")
            .arg(address);
}

QStringList certificateWarnings(const QJsonObject &ssl, const QDateTime &now)
{
    ERR_set_mark();
    QStringList warnings;
    const std::vector<Certificate> list = certificatesOf(ssl);
    for (const Certificate &each : list)
        warnings += warningOfEnd(each, now);
    if (!list.empty()) {
        warnings += mismatchOf(ssl);
        warnings += warningOfChain(list);
    }
    warnings.removeAll(QString());
    ERR_pop_to_mark();
    return warnings;
}

QList<CertificateEnd> certificateEnds(const QJsonObject &ssl)
{
    ERR_set_mark();
    QList<CertificateEnd> ends;
    for (const Certificate &each : certificatesOf(ssl)) {
        const QDateTime end = endOf(each);
        if (end.isValid())
            ends.append({nameOf(each), end});
    }
    ERR_pop_to_mark();
    return ends;
}

} // namespace host
