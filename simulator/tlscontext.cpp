// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/tlscontext.h"

#include "simulator/tcpsocket.h"

#include <QtCore/QFile>

#include <openssl/err.h>
#include <openssl/x509v3.h>

namespace simulator {

QString takeSslErrors()
{
    QStringList texts;
    while (const unsigned long error = ERR_get_error()) {
        char text[256];
        ERR_error_string_n(error, text, sizeof text);
        texts.append(QString::fromLatin1(text));
    }
    return texts.join(QStringLiteral("; "));
}

TlsContext::TlsContext(const Options &options) : context(SSL_CTX_new(TLS_client_method()))
{
    require(context != nullptr, QStringLiteral("OpenSSL"));
    if (!context)
        return;
    const QString name = options.tls.serverName.isEmpty() ? options.host : options.tls.serverName;
    serverName = name.toUtf8();
    isAddress = !QHostAddress(name).isNull();

    SSL_CTX_set_mode(context.get(),
                     SSL_MODE_ENABLE_PARTIAL_WRITE // count what the kernel has accepted
                             | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER
                             | SSL_MODE_RELEASE_BUFFERS); // thousands of idle connections
    // A peer may close without close_notify: no data from it is needed.
    SSL_CTX_set_options(context.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
    setVersion(options.tls.version);
    loadAuthorities(options.tls);
    loadCertificate(options.tls);
    if (options.tls.resume)
        keepSessions();
    if (options.tls.recordSize > 0)
        SSL_CTX_set_max_send_fragment(context.get(), options.tls.recordSize);
}

SslPointer TlsContext::newClient(const TcpSocket &socket) const
{
    SslPointer ssl(SSL_new(context.get()));
    if (!ssl || SSL_set_fd(ssl.get(), socket.descriptor()) != 1)
        return nullptr;
    if (isAddress) {
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl.get()), serverName.constData());
    } else {
        SSL_set1_host(ssl.get(), serverName.constData());
        // The same as SSL_set_tlsext_host_name(), whose cast is not const-correct.
        SSL_ctrl(ssl.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                 const_cast<char *>(serverName.constData()));
    }
    if (last) {
        // A copy: OpenSSL allows a session of TLS 1.3 only once, but a test needs many connections
        // that resume at the same time.
        const SessionPointer session(SSL_SESSION_dup(last.get()));
        if (!session || SSL_set_session(ssl.get(), session.get()) != 1)
            return nullptr;
    }
    SSL_set_connect_state(ssl.get());
    return ssl;
}

void TlsContext::loadAuthorities(const TlsOptions &tls)
{
    if (tls.insecure) {
        SSL_CTX_set_verify(context.get(), SSL_VERIFY_NONE, nullptr);
        return;
    }
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    if (tls.caFile.isEmpty())
        require(SSL_CTX_set_default_verify_paths(context.get()) == 1,
                QStringLiteral("the system's certificate authorities"));
    else
        require(SSL_CTX_load_verify_file(context.get(), QFile::encodeName(tls.caFile)) == 1,
                tls.caFile);
}

void TlsContext::loadCertificate(const TlsOptions &tls)
{
    if (tls.certFile.isEmpty())
        return;
    const QByteArray certFile = QFile::encodeName(tls.certFile);
    const QByteArray keyFile = QFile::encodeName(tls.keyFile);
    require(SSL_CTX_use_certificate_chain_file(context.get(), certFile) == 1, tls.certFile);
    require(SSL_CTX_use_PrivateKey_file(context.get(), keyFile, SSL_FILETYPE_PEM) == 1,
            tls.keyFile);
}

void TlsContext::setVersion(TlsVersion version)
{
    if (version == TlsVersion::Any) {
        SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
        return;
    }
    const int only = version == TlsVersion::OneTwo ? TLS1_2_VERSION : TLS1_3_VERSION;
    SSL_CTX_set_min_proto_version(context.get(), only);
    SSL_CTX_set_max_proto_version(context.get(), only);
}

void TlsContext::keepSessions()
{
    SSL_CTX_set_app_data(context.get(), this);
    SSL_CTX_set_session_cache_mode(context.get(),
                                   SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_sess_set_new_cb(context.get(), &TlsContext::noteSession);
}

// OpenSSL calls it with each session: at the end of a handshake of TLS 1.2, and with TLS 1.3 for
// each ticket that is read. The copy stays good when OpenSSL marks the original as used.
int TlsContext::noteSession(SSL *ssl, SSL_SESSION *session)
{
    auto *self = static_cast<TlsContext *>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
    self->last.reset(SSL_SESSION_dup(session));
    return 0; // the reference stays OpenSSL's
}

// Keeps the first problem. Empties OpenSSL's error queue each time.
void TlsContext::require(bool succeeded, const QString &what)
{
    const QString errors = takeSslErrors();
    if (!succeeded && problem.isEmpty())
        problem = QStringLiteral("%1: %2").arg(what, errors);
}

} // namespace simulator
