// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <memory>

// Owners of OpenSSL's objects.
namespace tls {

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
using EvpKey = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using Context = std::unique_ptr<SSL_CTX, Free<SSL_CTX_free>>;

//! Errors of OpenSSL that come up in its scope are forgotten: nobody else shall find them.
class QuietErrors
{
public:
    QuietErrors() { ERR_set_mark(); }
    ~QuietErrors() { ERR_pop_to_mark(); }
    Q_DISABLE_COPY_MOVE(QuietErrors)
};

// A source of the bytes, which must outlive it.
inline Bio bioOf(const QByteArray &bytes)
{
    return Bio(BIO_new_mem_buf(bytes.constData(), static_cast<int>(bytes.size())));
}

// Whether the text holds objects of this kind, at least one, and none that is broken. What else
// stands in the text does not matter.
template<auto read, auto free>
bool holdsPem(const QByteArray &text)
{
    const QuietErrors quiet;
    const Bio bio = bioOf(text);
    int count = 0;
    while (auto *object = read(bio.get(), nullptr, nullptr, nullptr)) {
        free(object);
        ++count;
    }
    return count > 0 && ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
}

} // namespace tls
