// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tls/ticketkeys.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

#include <algorithm>

namespace {

constexpr std::chrono::hours Lifetime{1};

// What OpenSSL's callback for tickets returns: see SSL_CTX_set_tlsext_ticket_key_evp_cb(3).
constexpr int Failed = -1;
constexpr int Unknown = 0;
constexpr int Good = 1;
constexpr int GoodButReplace = 2;

int ownerIndex()
{
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

bool setDigest(EVP_MAC_CTX *digest, const unsigned char *key, std::size_t size)
{
    char name[] = "SHA256";
    const OSSL_PARAM parameters[] = {
            OSSL_PARAM_construct_octet_string(OSSL_MAC_PARAM_KEY, const_cast<unsigned char *>(key),
                                              size),
            OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, name, 0),
            OSSL_PARAM_construct_end(),
    };
    return EVP_MAC_CTX_set_params(digest, parameters) == 1;
}

} // namespace

namespace tls {

TicketKeys::TicketKeys(ssl_ctx_st &context)
{
    SSL_CTX_set_ex_data(&context, ownerIndex(), this);
    SSL_CTX_set_tlsext_ticket_key_evp_cb(&context, use);
}

void TicketKeys::setTime(Time now)
{
    const std::lock_guard locker(mutex);
    fixedTime = now;
}

int TicketKeys::use(ssl_st *session, unsigned char *name, unsigned char *iv,
                    evp_cipher_ctx_st *cipher, evp_mac_ctx_st *digest, int encrypts)
{
    auto *const keys =
            static_cast<TicketKeys *>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(session), ownerIndex()));
    const std::lock_guard locker(keys->mutex);
    keys->rotate();
    return encrypts ? keys->encrypt(name, iv, cipher, digest)
                    : keys->decrypt(name, iv, cipher, digest);
}

int TicketKeys::encrypt(unsigned char *name, unsigned char *iv, evp_cipher_ctx_st *cipher,
                        evp_mac_ctx_st *digest)
{
    if (!current)
        return Failed;
    std::copy(current->name.begin(), current->name.end(), name);
    const int ivBytes = EVP_CIPHER_get_iv_length(EVP_aes_256_cbc());
    const bool done = RAND_bytes(iv, ivBytes) == 1
            && EVP_EncryptInit_ex(cipher, EVP_aes_256_cbc(), nullptr, current->cipher.data(), iv)
                    == 1
            && setDigest(digest, current->digest.data(), current->digest.size());
    return done ? Good : Failed;
}

int TicketKeys::decrypt(const unsigned char *name, const unsigned char *iv,
                        evp_cipher_ctx_st *cipher, evp_mac_ctx_st *digest)
{
    const auto isNamed = [name](const std::optional<Key> &key) {
        return key && std::equal(key->name.begin(), key->name.end(), name);
    };
    const bool isCurrent = isNamed(current);
    if (!isCurrent && !isNamed(former))
        return Unknown;
    const Key &key = isCurrent ? *current : *former;
    const bool done =
            EVP_DecryptInit_ex(cipher, EVP_aes_256_cbc(), nullptr, key.cipher.data(), iv) == 1
            && setDigest(digest, key.digest.data(), key.digest.size());
    if (!done)
        return Failed;
    return isCurrent ? Good : GoodButReplace;
}

void TicketKeys::rotate()
{
    const Time time = now();
    if (current && time - current->made < Lifetime)
        return;
    const bool isFormerValid = current && time - current->made < 2 * Lifetime;
    former = isFormerValid ? current : std::nullopt;
    current = make(time);
}

std::optional<TicketKeys::Key> TicketKeys::make(Time now)
{
    Key key{};
    key.made = now;
    const bool done = RAND_bytes(key.name.data(), static_cast<int>(key.name.size())) == 1
            && RAND_priv_bytes(key.cipher.data(), static_cast<int>(key.cipher.size())) == 1
            && RAND_priv_bytes(key.digest.data(), static_cast<int>(key.digest.size())) == 1;
    return done ? std::optional(key) : std::nullopt;
}

TicketKeys::Time TicketKeys::now() const
{
    return fixedTime.value_or(std::chrono::steady_clock::now());
}

} // namespace tls
