// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tls/context.h"

#include "tls/errors.h"
#include "tls/session.h"
#include "tls/ticketkeys.h"

#include <QtCore/QDateTime>
#include <QtNetwork/QSslCertificate>
#include <QtNetwork/QSslCipher>
#include <QtNetwork/QSslDiffieHellmanParameters>
#include <QtNetwork/QSslEllipticCurve>
#include <QtNetwork/QSslKey>
#include <QtNetwork/QSslSocket>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/params.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <vector>

namespace {

template<class T, void (*FreeIt)(T *)>
struct Freed
{
    void operator()(T *object) const { FreeIt(object); }
};
using Certificate = std::unique_ptr<X509, Freed<X509, X509_free>>;
using PrivateKey = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY, EVP_PKEY_free>>;
using Revocations = std::unique_ptr<X509_CRL, Freed<X509_CRL, X509_CRL_free>>;
using Number = std::unique_ptr<BIGNUM, Freed<BIGNUM, BN_free>>;
using KeyMaker = std::unique_ptr<EVP_PKEY_CTX, Freed<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using Memory = std::unique_ptr<BIO, Freed<BIO, BIO_free_all>>;

const unsigned char *bytesOf(const QByteArray &data)
{
    return reinterpret_cast<const unsigned char *>(data.constData());
}

// By its bytes, not by Qt's handle: Qt may use another OpenSSL.
Certificate certificateOf(const QSslCertificate &certificate)
{
    const QByteArray der = certificate.toDer();
    const unsigned char *from = bytesOf(der);
    return Certificate(d2i_X509(nullptr, &from, der.size()));
}

PrivateKey keyOf(const QSslKey &key)
{
    if (key.algorithm() == QSsl::Opaque) { // made by this library
        auto *const handle = reinterpret_cast<EVP_PKEY *>(key.handle());
        EVP_PKEY_up_ref(handle);
        return PrivateKey(handle);
    }
    const QByteArray der = key.toDer();
    const unsigned char *from = bytesOf(der);
    return PrivateKey(d2i_AutoPrivateKey(nullptr, &from, der.size()));
}

// PKCS #3: SEQUENCE { prime INTEGER, base INTEGER }, the base 2. prime: of 2048 bits.
QByteArray derOfParameters(const BIGNUM *prime)
{
    QByteArray bytes(BN_num_bytes(prime), Qt::Uninitialized);
    BN_bn2bin(prime, reinterpret_cast<unsigned char *>(bytes.data()));
    return QByteArray::fromHex("308201080282010100") + bytes + QByteArray::fromHex("020102");
}

// The versions of a range; 0: no limit.
struct Versions
{
    int least;
    int most;
};

Versions versionsOf(QSsl::SslProtocol protocol)
{
    switch (protocol) {
    case QSsl::TlsV1_2:
        return {TLS1_2_VERSION, TLS1_2_VERSION};
    case QSsl::TlsV1_3:
        return {TLS1_3_VERSION, TLS1_3_VERSION};
    case QSsl::TlsV1_3OrLater:
        return {TLS1_3_VERSION, 0};
    case QSsl::AnyProtocol:
        return {TLS1_VERSION, 0};
    default:
        return {TLS1_2_VERSION, 0};
    }
}

quint64 optionsOf(const QSslConfiguration &base)
{
    quint64 options = SSL_OP_ALL;
    const auto set = [&options](quint64 option, bool on) {
        options = on ? options | option : options & ~option;
    };
    set(SSL_OP_DONT_INSERT_EMPTY_FRAGMENTS,
        base.testSslOption(QSsl::SslOptionDisableEmptyFragments));
    set(SSL_OP_ALLOW_UNSAFE_LEGACY_RENEGOTIATION,
        !base.testSslOption(QSsl::SslOptionDisableLegacyRenegotiation));
    set(SSL_OP_NO_COMPRESSION, base.testSslOption(QSsl::SslOptionDisableCompression));
    set(SSL_OP_CIPHER_SERVER_PREFERENCE,
        !base.testSslOption(QSsl::SslOptionDisableServerCipherPreference));
    return options | SSL_OP_NO_RENEGOTIATION;
}

// Names for OpenSSL. ofTls13: only the suites of TLS 1.3; otherwise only the others.
QByteArray namesOf(const QList<QSslCipher> &ciphers, bool ofTls13)
{
    QByteArrayList names;
    for (const QSslCipher &cipher : ciphers) {
        const bool isTls13 =
                cipher.protocol() == QSsl::TlsV1_3 || cipher.protocol() == QSsl::TlsV1_3OrLater;
        if (isTls13 == ofTls13)
            names += cipher.name().toLatin1();
    }
    return names.join(':');
}

QString invalidCiphers(const QString &why)
{
    return QSslSocket::tr("Invalid or empty cipher list (%1)").arg(why);
}

// Whether Qt would look for the system's CA certificates when it needs them, instead of loading
// them all. It says so only in this way: a configuration whose CAs were set differs.
bool findsSystemCas(const QSslConfiguration &base)
{
    QSslConfiguration set = base;
    set.setCaCertificates(base.caCertificates());
    return set != base;
}

unsigned int refusePreSharedKey(SSL *, const char *, unsigned char *, unsigned int)
{
    return 0;
}

} // namespace

namespace tls {

void Context::Free::operator()(ssl_ctx_st *freed) const
{
    SSL_CTX_free(freed);
}

Context::Context(const Settings &settings)
{
    clearErrors();
    problem = setUp(settings);
    clearErrors();
}

Context::~Context() = default;

void Context::setTicketTime(std::chrono::steady_clock::time_point now)
{
    if (ticketKeys)
        ticketKeys->setTime(now);
}

QString Context::setUp(const Settings &settings)
{
    context.reset(SSL_CTX_new(TLS_server_method()));
    if (!context)
        return QSslSocket::tr("Error creating SSL context (%1)").arg(takeErrors());
    // An idle connection needs no buffers. Without retries a call returns after each record, so
    // records that carry no data can be counted.
    SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_clear_mode(context.get(), SSL_MODE_AUTO_RETRY);
    SSL_CTX_set_options(context.get(), optionsOf(settings.base));
    if (settings.minimumSecurity >= 0)
        SSL_CTX_set_security_level(context.get(), settings.minimumSecurity);
    setDiffieHellman(settings.base);
    setTickets(settings.sessionTickets);

    for (const auto set : {&Context::setVersions, &Context::setCiphers}) {
        if (QString failed = (this->*set)(settings); !failed.isEmpty())
            return failed;
    }
    setAuthorities(settings);
    if (QString failed = setCertificate(settings.base); !failed.isEmpty())
        return failed;
    setVerification(settings.base);
    // As Qt has it. The peers' keys are never known: the result is another alert than without.
    SSL_CTX_use_psk_identity_hint(context.get(),
                                  settings.base.preSharedKeyIdentityHint().constData());
    SSL_CTX_set_psk_server_callback(context.get(), refusePreSharedKey);
    return setGroups(settings);
}

QString Context::setVersions(const Settings &settings)
{
    const Versions versions = versionsOf(settings.base.protocol());
    if (!SSL_CTX_set_min_proto_version(context.get(), versions.least))
        return QSslSocket::tr("Error while setting the minimal protocol version");
    if (!SSL_CTX_set_max_proto_version(context.get(), versions.most))
        return QSslSocket::tr("Error while setting the maximum protocol version");
    return {};
}

QString Context::setCiphers(const Settings &settings)
{
    QList<QSslCipher> ciphers = settings.base.ciphers();
    if (ciphers.isEmpty())
        ciphers = QSslConfiguration::defaultConfiguration().ciphers();
    const QByteArray list = settings.ciphers.isEmpty() ? namesOf(ciphers, false) : settings.ciphers;
    const QByteArray suites =
            settings.cipherSuites.isEmpty() ? namesOf(ciphers, true) : settings.cipherSuites;
    if (list.isEmpty() && suites.isEmpty())
        return invalidCiphers({});
    if ((!list.isEmpty() && !SSL_CTX_set_cipher_list(context.get(), list.constData()))
        || (!suites.isEmpty() && !SSL_CTX_set_ciphersuites(context.get(), suites.constData())))
        return invalidCiphers(takeErrors());
    return {};
}

QString Context::setGroups(const Settings &settings)
{
    const auto failed = [] {
        return QSslSocket::tr("Error when setting the elliptic curves (%1)").arg(takeErrors());
    };
    if (!settings.groups.isEmpty()) {
        QByteArray list = settings.groups; // OpenSSL's macro wants a char *
        return SSL_CTX_set1_groups_list(context.get(), list.data()) ? QString() : failed();
    }
    std::vector<int> curves;
    const auto wanted = settings.base.ellipticCurves();
    for (const QSslEllipticCurve &curve : wanted)
        curves.push_back(OBJ_sn2nid(curve.shortName().toLatin1().constData()));
    const bool set = curves.empty()
            || SSL_CTX_set1_groups(context.get(), curves.data(), static_cast<int>(curves.size()));
    return set ? QString() : failed();
}

// The default ones of Qt 6.4 are too short for OpenSSL's security level and are refused there.
// Those of Qt 6.8 are a group that OpenSSL knows. Qt tells nothing of them but whether they are
// equal.
void Context::setDiffieHellman(const QSslConfiguration &base)
{
    const QByteArray ofQt = derOfParameters(Number(BN_get_rfc3526_prime_2048(nullptr)).get());
    if (base.diffieHellmanParameters() != QSslDiffieHellmanParameters::fromEncoded(ofQt, QSsl::Der))
        return;
    char name[] = SN_modp_2048;
    OSSL_PARAM group[] = {OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, name, 0),
                          OSSL_PARAM_construct_end()};
    const KeyMaker maker(EVP_PKEY_CTX_new_from_name(nullptr, "DH", nullptr));
    EVP_PKEY *made = nullptr;
    if (EVP_PKEY_fromdata_init(maker.get()) == 1
        && EVP_PKEY_fromdata(maker.get(), &made, EVP_PKEY_KEY_PARAMETERS, group) == 1
        && SSL_CTX_set0_tmp_dh_pkey(context.get(), made) == 1)
        return; // it is the context's now
    EVP_PKEY_free(made);
    clearErrors();
}

QString Context::setCertificate(const QSslConfiguration &base)
{
    if (base.localCertificate().isNull())
        return {};
    if (base.privateKey().isNull())
        return QSslSocket::tr("Cannot provide a certificate with no key");
    const Certificate certificate = certificateOf(base.localCertificate());
    if (!SSL_CTX_use_certificate(context.get(), certificate.get()))
        return QSslSocket::tr("Error loading local certificate, %1").arg(takeErrors());
    const PrivateKey key = keyOf(base.privateKey());
    if (!SSL_CTX_use_PrivateKey(context.get(), key.get()))
        return QSslSocket::tr("Error loading private key, %1").arg(takeErrors());
    if (!SSL_CTX_check_private_key(context.get()))
        return QSslSocket::tr("Private key does not certify public key, %1").arg(takeErrors());
    const auto chain = base.localCertificateChain().mid(1); // the first is the certificate itself
    for (const QSslCertificate &each : chain) {
        Certificate intermediate = certificateOf(each);
        if (SSL_CTX_add_extra_chain_cert(context.get(), intermediate.get()))
            static_cast<void>(intermediate.release()); // it owns it now
    }
    return {};
}

void Context::setAuthorities(const Settings &settings)
{
    X509_STORE *const store = SSL_CTX_get_cert_store(context.get());
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const auto authorities = settings.base.caCertificates();
    for (const QSslCertificate &authority : authorities) {
        // An expired one could hide a valid one of the same name.
        if (authority.expiryDate() >= now)
            X509_STORE_add_cert(store, certificateOf(authority).get());
    }
    if (settings.systemCas && findsSystemCas(settings.base))
        SSL_CTX_set_default_verify_dir(context.get());

    if (settings.revoked.isEmpty())
        return;
    const Memory text(BIO_new_mem_buf(settings.revoked.constData(),
                                      static_cast<int>(settings.revoked.size())));
    while (const auto list =
                   Revocations(PEM_read_bio_X509_CRL(text.get(), nullptr, nullptr, nullptr)))
        X509_STORE_add_crl(store, list.get());
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
}

void Context::setVerification(const QSslConfiguration &base)
{
    const auto mode = base.peerVerifyMode();
    verifies = mode == QSslSocket::VerifyPeer; // Auto: a server does not ask for certificates then
    if (mode == QSslSocket::VerifyNone)
        SSL_CTX_set_verify(context.get(), SSL_VERIFY_NONE, nullptr);
    else
        SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER,
                           base.handshakeMustInterruptOnError() ? &Session::interruptAtError
                                                                : &Session::collectError);
    if (base.peerVerifyDepth() != 0)
        SSL_CTX_set_verify_depth(context.get(), base.peerVerifyDepth());
}

void Context::setTickets(bool wanted)
{
    // With TLS 1.2 a session has an id, as with Qt, but nothing is kept to resume it.
    SSL_CTX_set_session_cache_mode(context.get(),
                                   SSL_SESS_CACHE_SERVER | SSL_SESS_CACHE_NO_INTERNAL);
    if (!wanted) {
        SSL_CTX_set_options(context.get(), SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(context.get(), 0);
        return;
    }
    static constexpr unsigned char Name[] = "tcpinput";
    SSL_CTX_set_session_id_context(context.get(), Name, sizeof Name - 1);
    SSL_CTX_set_num_tickets(context.get(), 1);
    ticketKeys = std::make_unique<TicketKeys>(*context);
}

} // namespace tls
