// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "ssl/privatekey.h"

#include "ssl/opensslobjects.h"

#include <QtNetwork/QSslSocket>

#include <algorithm>
#include <utility>

namespace {

//! What OpenSSL asks for while it reads a key.
struct PassPhrase
{
    const std::optional<QByteArray> &text;
    bool wasAsked = false;
};

// Without it, OpenSSL would ask at the terminal.
int givePassPhrase(char *buffer, int size, int, void *user)
{
    auto &phrase = *static_cast<PassPhrase *>(user);
    phrase.wasAsked = true;
    if (!phrase.text || phrase.text->size() > size)
        return -1;
    std::copy(phrase.text->begin(), phrase.text->end(), buffer);
    return static_cast<int>(phrase.text->size());
}

// Qt makes null keys of handles to RSA and EC keys, so it reads them once more. The text is wiped.
QSslKey keyFrom(const tls::EvpKey &key, QSsl::KeyAlgorithm algorithm)
{
    const tls::Bio bio(BIO_new(BIO_s_secmem()));
    if (PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
        return {};
    char *text = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &text);
    return QSslKey(QByteArray::fromRawData(text, size), algorithm);
}

// The handle is of the OpenSSL that this library is linked with.
bool qtUsesOurOpenSsl()
{
    return QSslSocket::activeBackend() == QLatin1String("openssl")
            && QSslSocket::sslLibraryVersionNumber() == static_cast<long>(OpenSSL_version_num());
}

tls::PrivateKey opaque(tls::EvpKey key)
{
    if (!qtUsesOurOpenSsl())
        return {{}, QStringLiteral("Qt has another OpenSSL, which cannot be given an Ed25519 key")};
    return {QSslKey(Qt::HANDLE(key.release()), QSsl::PrivateKey), {}};
}

QString faultOf(const PassPhrase &phrase)
{
    if (!phrase.wasAsked)
        return QStringLiteral("there is no private key in PEM");
    return phrase.text ? QStringLiteral("the pass phrase does not fit")
                       : QStringLiteral("it has a pass phrase");
}

} // namespace

tls::PrivateKey tls::readPrivateKey(const QByteArray &text, KeyAlgorithm algorithm,
                                    const std::optional<QByteArray> &passPhrase)
{
    const QuietErrors quiet;
    PassPhrase phrase{passPhrase};
    EvpKey key(PEM_read_bio_PrivateKey(bioOf(text).get(), nullptr, givePassPhrase, &phrase));
    if (!key)
        return {{}, faultOf(phrase)};

    const int kind = EVP_PKEY_base_id(key.get());
    if (algorithm == KeyAlgorithm::Rsa && kind != EVP_PKEY_RSA)
        return {{}, QStringLiteral("it is no RSA key")};
    if (kind == EVP_PKEY_ED25519)
        return opaque(std::move(key));
    if (kind != EVP_PKEY_RSA && kind != EVP_PKEY_EC)
        return {{}, QStringLiteral("it is neither RSA nor EC nor Ed25519")};
    PrivateKey result{keyFrom(key, kind == EVP_PKEY_RSA ? QSsl::Rsa : QSsl::Ec), {}};
    if (result.key.isNull())
        result.fault = QStringLiteral("Qt cannot read it");
    return result;
}
