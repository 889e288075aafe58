// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/options.h"

#include <memory>
#include <openssl/ssl.h>

namespace simulator {

class TcpSocket;

template<class T, void (*free)(T *)>
struct OpenSslDeleter
{
    void operator()(T *object) const { free(object); }
};
using SslPointer = std::unique_ptr<SSL, OpenSslDeleter<SSL, SSL_free>>;
using SessionPointer = std::unique_ptr<SSL_SESSION, OpenSslDeleter<SSL_SESSION, SSL_SESSION_free>>;
using SslContextPointer = std::unique_ptr<SSL_CTX, OpenSslDeleter<SSL_CTX, SSL_CTX_free>>;

// Empties OpenSSL's error queue of this thread and returns the errors as a text.
QString takeSslErrors();

/*!
    What the TLS connections of a run share: certificates, key, versions, how the peer is verified,
    and with --resume the last session.

    Thread: one at a time.
*/
class TlsContext
{
public:
    // Reads the files; error() tells of the first one that is not usable.
    explicit TlsContext(const Options &options);
    Q_DISABLE_COPY_MOVE(TlsContext) // OpenSSL keeps its address

    QString error() const { return problem; }

    // A client before its handshake over the socket. Null if there is no memory.
    SslPointer newClient(const TcpSocket &socket) const;

private:
    void loadAuthorities(const TlsOptions &tls);
    void loadCertificate(const TlsOptions &tls);
    void setVersion(TlsVersion version);
    void keepSessions();
    static int noteSession(SSL *ssl, SSL_SESSION *session);
    void require(bool succeeded, const QString &what);

    SslContextPointer context;
    SessionPointer last; // with --resume the session that was given last; null: none yet
    QByteArray serverName; // expected in the certificate; a name or an address
    bool isAddress = false;
    QString problem;
};

} // namespace simulator
