// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "certificates.h"
#include "nativesocket.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <memory>

/*!
    A TLS device made of one blocking socket, so that any thread can play it without an event loop.
    Its output is collected until flush(), which hands it to the kernel in one piece.

    Does not verify the server. The device's destructor frees what OpenSSL keeps for the thread.
    QThread::wait() returns before thread-local destructors have run, so at the end of the program
    that memory could count as a leak.

    Thread: any, one at a time.
*/
class TlsDevice
{
public:
    // version: TLS1_2_VERSION or TLS1_3_VERSION. certificate: the name of its files, or nothing.
    explicit TlsDevice(int version, const QString &certificate = QString())
        : context(SSL_CTX_new(TLS_client_method()))
    {
        SSL_CTX_set_min_proto_version(context.get(), version);
        SSL_CTX_set_max_proto_version(context.get(), version);
        if (!certificate.isEmpty()) {
            const QByteArray name = certificateFile(certificate).toLocal8Bit();
            SSL_CTX_use_certificate_file(context.get(), name + ".pem", SSL_FILETYPE_PEM);
            SSL_CTX_use_PrivateKey_file(context.get(), name + ".key", SSL_FILETYPE_PEM);
        }
        ssl.reset(SSL_new(context.get()));
        SSL_set_bio(ssl.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        SSL_set_connect_state(ssl.get());
    }

    // For what this class has no function for.
    SSL *native() const { return ssl.get(); }

    // The pre-shared key, which a device and its server can use instead of certificates.
    static QByteArray sharedKey() { return QByteArray(32, 'k'); }
    // Offers the key, with TLS 1.3 only. Call it before the handshake.
    void offerSharedKey()
    {
        // OpenSSL assumes that such a key belongs to this cipher's hash. If others were offered, a
        // server with a certificate would choose another one.
        SSL_set_ciphersuites(ssl.get(), "TLS_AES_128_GCM_SHA256");
        SSL_set_psk_client_callback(ssl.get(),
                                    [](SSL *, const char *, char *identity, unsigned int,
                                       unsigned char *key, unsigned int) {
                                        qstrcpy(identity, "device");
                                        const QByteArray shared = sharedKey();
                                        std::copy(shared.begin(), shared.end(), key);
                                        return static_cast<unsigned int>(shared.size());
                                    });
    }

    // Bytes before the TLS stream, sent in one piece with the first flight. Call it before the
    // handshake.
    void sayFirst(const QByteArray &bytes)
    {
        BIO_write(SSL_get_wbio(ssl.get()), bytes.constData(), static_cast<int>(bytes.size()));
    }

    bool connect(const QHostAddress &address, quint16 port)
    {
        socket = NativeSocket::connectedTo(address, port);
        return socket.isValid();
    }

    // Completes the handshake. With TLS 1.3 the last flight is not flushed: it can be sent together
    // with the device's first bytes. False if the server gives up.
    bool handshake()
    {
        while (!step()) {
            if (!flush() || !receive())
                return false;
        }
        return isEncrypted();
    }
    // Returns the hello, unsent. Call it before the handshake, which then waits for an answer.
    QByteArray takeHello()
    {
        step();
        return takeOutput();
    }
    // Begins the handshake, and stops before it sends its answer to the server's first flight.
    bool handshakeUntilAnswer()
    {
        step();
        if (!flush())
            return false;
        while (BIO_ctrl_pending(SSL_get_wbio(ssl.get())) == 0) {
            if (!receive())
                return false;
            step();
        }
        return true;
    }
    bool isEncrypted() const { return SSL_is_init_finished(ssl.get()) == 1; }
    // After the handshake: whether the server accepted the offered key.
    bool usesSharedKey() const { return SSL_session_reused(ssl.get()) == 1; }

    void write(const QByteArray &bytes)
    {
        if (!bytes.isEmpty())
            SSL_write(ssl.get(), bytes.constData(), static_cast<int>(bytes.size()));
    }
    void writeCloseNotify() { SSL_shutdown(ssl.get()); }
    bool flush()
    {
        const QByteArray bytes = takeOutput();
        return bytes.isEmpty() || socket.send(bytes);
    }
    // Returns the bytes that flush() would send, so that the caller can send them differently.
    QByteArray takeOutput()
    {
        char *bytes = nullptr;
        const long count = BIO_get_mem_data(SSL_get_wbio(ssl.get()), &bytes);
        QByteArray result(bytes, count > 0 ? count : 0);
        (void)BIO_reset(SSL_get_wbio(ssl.get()));
        return result;
    }

    // Reads and ignores bytes until the server ends the connection. False if reading fails before.
    bool waitForEnd() const
    {
        char bytes[4096];
        ssize_t count = 0;
        do
            count = ::recv(socket.descriptor(), bytes, sizeof bytes, 0);
        while (count > 0);
        return count == 0 || errno == ECONNRESET;
    }
    // The same, but OpenSSL sees the bytes, and the alerts among them.
    void readToEnd()
    {
        char bytes[4096];
        while (receive()) {
            ERR_clear_error();
            while (SSL_read(ssl.get(), bytes, sizeof bytes) > 0) {}
        }
    }

    NativeSocket socket;

private:
    // True when the handshake needs no more bytes from the server, or has failed.
    bool step()
    {
        ERR_clear_error();
        const int result = SSL_do_handshake(ssl.get());
        return result == 1 || SSL_get_error(ssl.get(), result) != SSL_ERROR_WANT_READ;
    }
    bool receive()
    {
        char bytes[16384];
        const ssize_t count = ::recv(socket.descriptor(), bytes, sizeof bytes, 0);
        if (count <= 0)
            return false;
        BIO_write(SSL_get_rbio(ssl.get()), bytes, static_cast<int>(count));
        return true;
    }

    struct ThreadState
    {
        ~ThreadState() { OPENSSL_thread_stop(); } // OpenSSL makes it again if needed
    };
    template<auto function>
    struct Free
    {
        template<class T>
        void operator()(T *object) const
        {
            function(object);
        }
    };
    ThreadState threadState; // the first member, so it is destroyed last
    std::unique_ptr<SSL_CTX, Free<SSL_CTX_free>> context;
    std::unique_ptr<SSL, Free<SSL_free>> ssl;
};
