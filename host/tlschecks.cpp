// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/tlschecks.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <vector>

namespace host {
namespace {

constexpr int WarnDays = 30;

template<auto free>
struct Free
{
    template<class T>
    void operator()(T *object) const
    {
        free(object);
    }
};

using Bio = std::unique_ptr<BIO, Free<BIO_free>>;
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Free<X509_free>>;

Bio bioOf(const QByteArray &text)
{
    return Bio(BIO_new_mem_buf(text.constData(), static_cast<int>(text.size())));
}

// Of a regular file, or of one that a link leads to. Reading a FIFO could last for ever, and would
// take its bytes away from the plugin.
QByteArray contentOf(const QJsonValue &name)
{
    if (!name.isString() || !QFileInfo(name.toString()).isFile())
        return {};
    QFile file(name.toString());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The text of the first key, or else what is in the file that the second one names.
QByteArray textOf(const QJsonObject &ssl, const char *textKey, const char *fileKey)
{
    const auto text = ssl.constFind(QLatin1String(textKey));
    return text != ssl.constEnd() ? text->toString().toUtf8()
                                  : contentOf(ssl.value(QLatin1String(fileKey)));
}

void appendCertificates(std::vector<Certificate> &list, const QByteArray &pem)
{
    const Bio bio = bioOf(pem);
    while (X509 *certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr))
        list.emplace_back(certificate);
}

// The server's certificate and what it sends along; empty if there is none.
std::vector<Certificate> certificatesOf(const QJsonObject &ssl)
{
    std::vector<Certificate> list;
    appendCertificates(list, textOf(ssl, "Certificate", "CertFile"));
    const QJsonValue chain = ssl.value(QLatin1String("ChainFile"));
    if (list.empty())
        return list;
    if (!chain.isUndefined() || !ssl.value(QLatin1String("Chain")).toBool())
        list.resize(1);
    appendCertificates(list, contentOf(chain));
    const X509 *own = list.front().get();
    list.erase(std::remove_if(
                       list.begin() + 1, list.end(),
                       [own](const Certificate &each) { return X509_cmp(own, each.get()) == 0; }),
               list.end());
    return list;
}

// Without it, OpenSSL would ask at the terminal.
int givePassPhrase(char *buffer, int size, int, void *user)
{
    const auto &phrase = *static_cast<const QByteArray *>(user);
    if (phrase.size() > size)
        return -1;
    std::copy(phrase.begin(), phrase.end(), buffer);
    return static_cast<int>(phrase.size());
}

Key keyOf(const QJsonObject &ssl)
{
    const QByteArray text = textOf(ssl, "PrivateKey", "KeyFile");
    QByteArray phrase =
            contentOf(ssl.value(QLatin1String("KeyPassphraseFile"))).split('\n').first();
    if (phrase.endsWith('\r'))
        phrase.chop(1);
    return Key(PEM_read_bio_PrivateKey(bioOf(text).get(), nullptr, givePassPhrase, &phrase));
}

QString nameOf(const Certificate &certificate)
{
    const Bio bio(BIO_new(BIO_s_mem()));
    const X509_NAME *subject = X509_get_subject_name(certificate.get());
    const int last = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (last >= 0)
        ASN1_STRING_print_ex(bio.get(),
                             X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, last)),
                             ASN1_STRFLGS_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
    else
        X509_NAME_print_ex(bio.get(), subject, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
    char *text = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &text);
    return QString::fromUtf8(text, size);
}

QDateTime endOf(const Certificate &certificate)
{
    std::tm time{};
    if (ASN1_TIME_to_tm(X509_get0_notAfter(certificate.get()), &time) != 1)
        return {};
    return QDateTime::fromSecsSinceEpoch(::timegm(&time)).toUTC();
}

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

QStringList certificateWarnings(const QJsonObject &ssl, const QDateTime &now)
{
    ERR_set_mark();
    QStringList warnings;
    const std::vector<Certificate> list = certificatesOf(ssl);
    for (const Certificate &each : list)
        warnings += warningOfEnd(each, now);
    if (!list.empty()) {
        const Key key = keyOf(ssl);
        if (key && X509_check_private_key(list.front().get(), key.get()) != 1)
            warnings += QStringLiteral("Certificate %1 does not match the private key")
                                .arg(nameOf(list.front()));
        warnings += warningOfChain(list);
    }
    warnings.removeAll(QString());
    ERR_pop_to_mark();
    return warnings;
}

} // namespace host
