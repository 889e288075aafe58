// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/certificates.h"

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <ctime>

namespace host {
namespace {

using namespace certificates;

using Bio = std::unique_ptr<BIO, Free<BIO_free>>;

Bio bioOf(const QByteArray &text)
{
    return Bio(BIO_new_mem_buf(text.constData(), static_cast<int>(text.size())));
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

// Without it, OpenSSL would ask at the terminal.
int givePassPhrase(char *buffer, int size, int, void *user)
{
    const auto &phrase = *static_cast<const QByteArray *>(user);
    if (phrase.size() > size)
        return -1;
    std::copy(phrase.begin(), phrase.end(), buffer);
    return static_cast<int>(phrase.size());
}

} // namespace

QByteArray certificates::contentOf(const QJsonValue &fileName)
{
    if (!fileName.isString() || !QFileInfo(fileName.toString()).isFile())
        return {};
    QFile file(fileName.toString());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

std::vector<certificates::Certificate> certificates::certificatesOf(const QJsonObject &ssl)
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

certificates::Key certificates::keyOf(const QJsonObject &ssl)
{
    const QByteArray text = textOf(ssl, "PrivateKey", "KeyFile");
    QByteArray phrase =
            contentOf(ssl.value(QLatin1String("KeyPassphraseFile"))).split('\n').first();
    if (phrase.endsWith('\r'))
        phrase.chop(1);
    return Key(PEM_read_bio_PrivateKey(bioOf(text).get(), nullptr, givePassPhrase, &phrase));
}

QString certificates::nameOf(const Certificate &certificate)
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

QDateTime certificates::endOf(const Certificate &certificate)
{
    std::tm time{};
    if (ASN1_TIME_to_tm(X509_get0_notAfter(certificate.get()), &time) != 1)
        return {};
    return QDateTime::fromSecsSinceEpoch(::timegm(&time)).toUTC();
}

} // namespace host
