// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/certificates.h"
#include "tls/context.h"
#include "tls/session.h"

#include <QtNetwork/QSslCertificate>
#include <QtNetwork/QSslConfiguration>
#include <QtNetwork/QSslKey>
#include <QtNetwork/QSslSocket>

#include <openssl/ssl.h>

#include <memory>

/*!
    A TLS client in memory, which talks to a tls::Session.

    Thread: one.
*/
class MemoryClient
{
public:
    explicit MemoryClient(int version) : context(SSL_CTX_new(TLS_client_method()))
    {
        SSL_CTX_set_min_proto_version(context.get(), version);
        SSL_CTX_set_max_proto_version(context.get(), version);
        SSL_CTX_set_session_cache_mode(context.get(),
                                       SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
        SSL_CTX_sess_set_new_cb(context.get(), noteTicket);
        start();
    }

    // Begins a new connection. resumed: a session of an earlier one, or null.
    void start(SSL_SESSION *resumed = nullptr)
    {
        if (ssl) // otherwise OpenSSL does not trust the session any more
            SSL_set_shutdown(ssl.get(), SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
        ssl.reset(SSL_new(context.get()));
        SSL_set_bio(ssl.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        SSL_set_connect_state(ssl.get());
        SSL_set_app_data(ssl.get(), this);
        if (resumed)
            SSL_set_session(ssl.get(), resumed);
    }

    // Shows a certificate. name: of its files.
    void show(const QString &name)
    {
        const QByteArray file = certificateFile(name).toLocal8Bit();
        SSL_use_certificate_file(ssl.get(), file + ".pem", SSL_FILETYPE_PEM);
        SSL_use_PrivateKey_file(ssl.get(), file + ".key", SSL_FILETYPE_PEM);
    }

    // Goes on with the handshake. True when it is done.
    bool handshake() { return SSL_do_handshake(ssl.get()) == 1; }
    // What it has to say, as bytes of TLS.
    QByteArray takeOutput()
    {
        char *bytes = nullptr;
        const long count = BIO_get_mem_data(SSL_get_wbio(ssl.get()), &bytes);
        QByteArray result(bytes, count);
        (void)BIO_reset(SSL_get_wbio(ssl.get()));
        return result;
    }
    void receive(const QByteArray &bytes)
    {
        BIO_write(SSL_get_rbio(ssl.get()), bytes.constData(), static_cast<int>(bytes.size()));
    }
    void write(const QByteArray &plain)
    {
        SSL_write(ssl.get(), plain.constData(), static_cast<int>(plain.size()));
    }
    // Reads what has come, tickets and alerts among it. What SSL_get_error() says then.
    int read()
    {
        char byte = 0;
        return SSL_get_error(ssl.get(), SSL_read(ssl.get(), &byte, 1));
    }

    // The handshake of both. False if one of them has failed.
    bool connectTo(tls::Session &session)
    {
        auto step = tls::Session::Step::Unfinished;
        bool done = false;
        while (!done || step == tls::Session::Step::Unfinished) {
            done = handshake();
            const QByteArray said = takeOutput();
            if (said.isEmpty() && !done)
                return false;
            if (step == tls::Session::Step::Unfinished) {
                session.feed(said);
                step = session.handshake();
                session.keepRest();
            }
            answer(session);
            if (step == tls::Session::Step::Failed)
                return false;
        }
        return step == tls::Session::Step::Done;
    }
    // What the session has to say is received.
    void answer(tls::Session &session)
    {
        const QByteArray said = session.unsent();
        receive(said);
        session.sent(said.size());
    }

    SSL *handle() const { return ssl.get(); }

    // The session of the last ticket. With TLS 1.2 a new ticket in a resumed connection is not told
    // of, but the connection's session has it.
    std::shared_ptr<SSL_SESSION> resumable() const
    {
        if (SSL_version(ssl.get()) == TLS1_3_VERSION)
            return latest;
        return {SSL_get1_session(ssl.get()), SSL_SESSION_free};
    }

    int tickets = 0; // that were told of

private:
    static int noteTicket(SSL *ssl, SSL_SESSION *session)
    {
        auto *const self = static_cast<MemoryClient *>(SSL_get_app_data(ssl));
        self->tickets += SSL_SESSION_has_ticket(session);
        self->latest.reset(session, SSL_SESSION_free);
        return 1; // it is ours now
    }

    template<auto function>
    struct Free
    {
        template<class T>
        void operator()(T *object) const
        {
            function(object);
        }
    };
    std::unique_ptr<SSL_CTX, Free<SSL_CTX_free>> context;
    std::unique_ptr<SSL, Free<SSL_free>> ssl;
    std::shared_ptr<SSL_SESSION> latest;
};

// Of the valid server. Clients need no certificate.
inline tls::Settings serverSettings()
{
    tls::Settings settings;
    settings.base = QSslConfiguration::defaultConfiguration();
    settings.base.setLocalCertificate(
            QSslCertificate(certificateText(QStringLiteral("server.pem")).toLatin1(), QSsl::Pem));
    settings.base.setPrivateKey(
            QSslKey(certificateText(QStringLiteral("server.key")).toLatin1(), QSsl::Rsa));
    settings.base.setPeerVerifyMode(QSslSocket::VerifyNone);
    return settings;
}
