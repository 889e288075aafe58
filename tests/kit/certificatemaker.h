// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <memory>

/*!
    Makes keys and certificates of kinds that the build's certificates do not have, in memory.
*/
namespace made {

template<auto free>
struct Free
{
    template<class T>
    void operator()(T *object) const
    {
        free(object);
    }
};

using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Free<X509_free>>;

inline Key rsaKey()
{
    return Key(EVP_RSA_gen(2048));
}
inline Key ecKey()
{
    return Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
}
inline Key ed25519Key()
{
    return Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
}

// The text that write() makes.
template<class Write>
QByteArray pem(Write write)
{
    const std::unique_ptr<BIO, Free<BIO_free>> bio(BIO_new(BIO_s_mem()));
    write(bio.get());
    char *text = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &text);
    return {text, size};
}

inline QByteArray pkcs8(const Key &key, const QByteArray &passPhrase = {})
{
    const EVP_CIPHER *cipher = passPhrase.isEmpty() ? nullptr : EVP_aes_128_cbc();
    return pem([&](BIO *bio) {
        PEM_write_bio_PKCS8PrivateKey(bio, key.get(), cipher, passPhrase.constData(),
                                      static_cast<int>(passPhrase.size()), nullptr, nullptr);
    });
}
// PKCS#1 of RSA, SEC1 of EC.
inline QByteArray traditional(const Key &key, const QByteArray &passPhrase = {})
{
    const EVP_CIPHER *cipher = passPhrase.isEmpty() ? nullptr : EVP_aes_128_cbc();
    return pem([&](BIO *bio) {
        PEM_write_bio_PrivateKey_traditional(
                bio, key.get(), cipher,
                reinterpret_cast<const unsigned char *>(passPhrase.constData()),
                static_cast<int>(passPhrase.size()), nullptr, nullptr);
    });
}
inline QByteArray pem(const Certificate &certificate)
{
    return pem([&](BIO *bio) { PEM_write_bio_X509(bio, certificate.get()); });
}

//! What issues certificates: one, or itself if it has none.
struct Authority
{
    const Key &key;
    const Certificate *certificate;
};

inline void setName(X509_NAME *name, const char *text)
{
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>(text), -1, -1, 0);
}

inline void sign(X509 *certificate, const Key &key)
{
    const bool hasOwnDigest = EVP_PKEY_base_id(key.get()) == EVP_PKEY_ED25519;
    X509_sign(certificate, key.get(), hasOwnDigest ? nullptr : EVP_sha256());
}

// A certificate of the key, valid since an hour for so many seconds from now.
inline Certificate certificate(const char *subject, const Key &key, const Authority &issuer,
                               bool isAuthority = false, long seconds = 100L * 24 * 3600)
{
    static long serial = 1;
    Certificate result(X509_new());
    X509 *x509 = result.get();
    X509_set_version(x509, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(x509), serial++);
    X509_gmtime_adj(X509_getm_notBefore(x509), -3600L - (seconds < 0 ? -seconds : 0));
    X509_gmtime_adj(X509_getm_notAfter(x509), seconds);
    setName(X509_get_subject_name(x509), subject);
    X509_set_issuer_name(
            x509, X509_get_subject_name(issuer.certificate ? issuer.certificate->get() : x509));
    X509_set_pubkey(x509, key.get());
    const char *constraints = isAuthority ? "critical,CA:TRUE" : "critical,CA:FALSE";
    if (X509_EXTENSION *extension =
                X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, constraints)) {
        X509_add_ext(x509, extension, -1);
        X509_EXTENSION_free(extension);
    }
    sign(x509, issuer.key);
    return result;
}

// A list of revoked certificates, with none in it.
inline QByteArray revocationList(const Key &key, const Certificate &authority)
{
    const std::unique_ptr<X509_CRL, Free<X509_CRL_free>> list(X509_CRL_new());
    X509_CRL_set_version(list.get(), X509_CRL_VERSION_2);
    X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(authority.get()));
    const std::unique_ptr<ASN1_TIME, Free<ASN1_TIME_free>> now(X509_gmtime_adj(nullptr, 0));
    X509_CRL_set1_lastUpdate(list.get(), now.get());
    X509_CRL_set1_nextUpdate(list.get(), now.get());
    X509_CRL_sign(list.get(), key.get(), EVP_sha256());
    return pem([&](BIO *bio) { PEM_write_bio_X509_CRL(bio, list.get()); });
}

} // namespace made
