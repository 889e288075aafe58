// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tls/errors.h"

#include <QtNetwork/QSslCertificate>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace {

// The others are "unspecified" to Qt.
constexpr std::array KnownErrors{
        std::pair(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT, QSslError::UnableToGetIssuerCertificate),
        std::pair(X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE,
                  QSslError::UnableToDecryptCertificateSignature),
        std::pair(X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY,
                  QSslError::UnableToDecodeIssuerPublicKey),
        std::pair(X509_V_ERR_CERT_SIGNATURE_FAILURE, QSslError::CertificateSignatureFailed),
        std::pair(X509_V_ERR_CERT_NOT_YET_VALID, QSslError::CertificateNotYetValid),
        std::pair(X509_V_ERR_CERT_HAS_EXPIRED, QSslError::CertificateExpired),
        std::pair(X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD, QSslError::InvalidNotBeforeField),
        std::pair(X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD, QSslError::InvalidNotAfterField),
        std::pair(X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, QSslError::SelfSignedCertificate),
        std::pair(X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, QSslError::SelfSignedCertificateInChain),
        std::pair(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
                  QSslError::UnableToGetLocalIssuerCertificate),
        std::pair(X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE,
                  QSslError::UnableToVerifyFirstCertificate),
        std::pair(X509_V_ERR_CERT_REVOKED, QSslError::CertificateRevoked),
        std::pair(X509_V_ERR_INVALID_CA, QSslError::InvalidCaCertificate),
        std::pair(X509_V_ERR_PATH_LENGTH_EXCEEDED, QSslError::PathLengthExceeded),
        std::pair(X509_V_ERR_INVALID_PURPOSE, QSslError::InvalidPurpose),
        std::pair(X509_V_ERR_CERT_UNTRUSTED, QSslError::CertificateUntrusted),
        std::pair(X509_V_ERR_CERT_REJECTED, QSslError::CertificateRejected),
};

} // namespace

QString tls::takeErrors()
{
    std::array<char, 256> text; // the most that OpenSSL writes
    QString all;
    while (const unsigned long code = ERR_get_error()) {
        ERR_error_string_n(code, text.data(), text.size());
        if (!all.isEmpty())
            all += QLatin1String(", ");
        all += QLatin1String(text.data());
    }
    return all;
}

void tls::clearErrors()
{
    ERR_clear_error();
}

QSslError tls::errorFrom(int code, const QSslCertificate &certificate)
{
    if (code == X509_V_OK)
        return {};
    const auto *const known = std::find_if(KnownErrors.begin(), KnownErrors.end(),
                                           [code](const auto &each) { return each.first == code; });
    return QSslError(known == KnownErrors.end() ? QSslError::UnspecifiedError : known->second,
                     certificate);
}

QSslCertificate tls::certificateFrom(x509_st *certificate)
{
    unsigned char *der = nullptr;
    const int size = certificate ? i2d_X509(certificate, &der) : 0;
    if (size <= 0)
        return QSslCertificate();
    const QSslCertificate result(QByteArray(reinterpret_cast<const char *>(der), size), QSsl::Der);
    OPENSSL_free(der);
    return result;
}

QSsl::AlertLevel tls::alertLevel(int value)
{
    const QLatin1String level(SSL_alert_type_string(value));
    if (level == QLatin1String("W"))
        return QSsl::AlertLevel::Warning;
    return level == QLatin1String("F") ? QSsl::AlertLevel::Fatal : QSsl::AlertLevel::Unknown;
}

QSsl::AlertType tls::alertType(int value)
{
    return static_cast<QSsl::AlertType>(value & 0xff);
}

QString tls::alertText(int value)
{
    return QLatin1String(SSL_alert_desc_string_long(value));
}
