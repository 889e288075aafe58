// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/check/deviceview.h"

#include <QtNetwork/QHostAddress>

#include <openssl/err.h>
#include <openssl/x509v3.h>

namespace host {
namespace {

using namespace certificates;

using Trust = std::unique_ptr<X509_STORE, Free<X509_STORE_free>>;
using Verification = std::unique_ptr<X509_STORE_CTX, Free<X509_STORE_CTX_free>>;
using Names = std::unique_ptr<GENERAL_NAMES, Free<GENERAL_NAMES_free>>;

//! Certificates of somebody else's.
struct FreeStack
{
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};
using Stack = std::unique_ptr<STACK_OF(X509), FreeStack>;

QString addressOf(const ASN1_OCTET_STRING *bytes)
{
    constexpr int Ipv4Size = 4;
    constexpr int Ipv6Size = 16;
    const unsigned char *data = ASN1_STRING_get0_data(bytes);
    switch (ASN1_STRING_length(bytes)) {
    case Ipv4Size: {
        quint32 address = 0;
        for (int i = 0; i < Ipv4Size; ++i)
            address = address << 8 | data[i];
        return QHostAddress(address).toString();
    }
    case Ipv6Size:
        return QHostAddress(data).toString();
    default:
        return {};
    }
}

QString nameOf(const GENERAL_NAME *name)
{
    if (name->type == GEN_IPADD)
        return addressOf(name->d.iPAddress);
    if (name->type != GEN_DNS)
        return {};
    const ASN1_IA5STRING *text = name->d.dNSName;
    return QString::fromLatin1(reinterpret_cast<const char *>(ASN1_STRING_get0_data(text)),
                               ASN1_STRING_length(text));
}

} // namespace

QString verdictOf(const std::vector<Certificate> &list)
{
    ERR_set_mark();
    const Trust trust(X509_STORE_new());
    X509_STORE_set_default_paths(trust.get());
    const Stack sent(sk_X509_new_null());
    for (const Certificate &each : list)
        sk_X509_push(sent.get(), each.get());
    const Verification verification(X509_STORE_CTX_new());
    X509_STORE_CTX_init(verification.get(), trust.get(), list.front().get(), sent.get());
    X509_STORE_CTX_set_purpose(verification.get(), X509_PURPOSE_SSL_SERVER);
    X509_verify_cert(verification.get());
    ERR_pop_to_mark();
    return QLatin1String(
            X509_verify_cert_error_string(X509_STORE_CTX_get_error(verification.get())));
}

bool isValidNow(const Certificate &certificate)
{
    return X509_cmp_current_time(X509_get0_notBefore(certificate.get())) < 0
            && X509_cmp_current_time(X509_get0_notAfter(certificate.get())) > 0;
}

QStringList serverNamesOf(const Certificate &certificate)
{
    const Names names(static_cast<GENERAL_NAMES *>(
            X509_get_ext_d2i(certificate.get(), NID_subject_alt_name, nullptr, nullptr)));
    QStringList result;
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i)
        result += nameOf(sk_GENERAL_NAME_value(names.get(), i));
    result.removeAll(QString());
    return result;
}

} // namespace host
