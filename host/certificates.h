// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QJsonObject>
#include <QtCore/QString>

#include <memory>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

class QDateTime;

/*!
    The certificates and the key of a TLS configuration, as OpenSSL's objects. ssl: the
    configuration's object of that name.

    Thread: any; no shared state. OpenSSL's errors stay in the thread's queue.
*/
namespace host::certificates {

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

// Of a regular file, or of one that a link leads to: reading a FIFO could last for ever, and would
// take its bytes away from the plugin. Empty if there is none.
QByteArray contentOf(const QJsonValue &fileName);

// The server's certificate and what it sends along; empty if there is none.
std::vector<Certificate> certificatesOf(const QJsonObject &ssl);

// Null: there is none that can be read.
Key keyOf(const QJsonObject &ssl);

// The common name, or else the whole subject; without control characters.
QString nameOf(const Certificate &certificate);
QDateTime endOf(const Certificate &certificate);

} // namespace host::certificates
