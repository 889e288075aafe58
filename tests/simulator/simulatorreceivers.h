// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/hangguard.h"

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QSocketNotifier>
#include <QtCore/QStringList>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QSslCertificate>
#include <QtNetwork/QSslConfiguration>
#include <QtNetwork/QSslSocket>
#include <QtNetwork/QTcpServer>

#include <cerrno>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

// Whether the stream has ended, or has failed. There may be unread bytes before that end.
inline bool peerHasClosed(qintptr descriptor)
{
    pollfd polled = {static_cast<int>(descriptor), POLLRDHUP, 0};
    return ::poll(&polled, 1, 0) != 0;
}

/*!
    The receiving end of one connection, made of system calls alone, which distinguish a FIN from an
    RST.
*/
class Peer : public QObject
{
public:
    enum Ended {
        Open,
        Fin,
        Reset,
        Here, // closed by close() or reset()
    };

    Peer(QObject *parent, qintptr descriptor, bool reads)
        : QObject(parent),
          fd(static_cast<int>(descriptor))
    {
        QTcpSocket names;
        names.setSocketDescriptor(::dup(fd));
        address = names.peerAddress();
        port = names.peerPort();
        QObject::connect(&readable, &QSocketNotifier::activated, this, &Peer::read);
        if (reads)
            startReading();
    }
    ~Peer() override { closeDescriptor(); }

    void startReading()
    {
        readable.setSocket(fd);
        readable.setEnabled(true);
    }

    bool bytesWait() const
    {
        pollfd polled = {fd, POLLIN, 0};
        return ::poll(&polled, 1, 0) > 0;
    }

    // Closes both directions, even if the device has already ended its own.
    void close()
    {
        closeDescriptor();
        if (ended == Open)
            ended = Here;
    }

    void reset()
    {
        const linger now = {1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        close();
    }

    QHostAddress address;
    quint16 port = 0;
    QByteArray bytes;
    Ended ended = Open;
    bool answersEnd = true;

private:
    void read()
    {
        char buffer[65536];
        for (;;) {
            const ssize_t count = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (count < 0 && errno == EAGAIN)
                return;
            if (count <= 0)
                return end(count == 0 ? Fin : Reset);
            bytes.append(buffer, count);
        }
    }

    void end(Ended how)
    {
        ended = how;
        readable.setEnabled(false);
        if (answersEnd)
            closeDescriptor();
    }

    void closeDescriptor()
    {
        readable.setEnabled(false);
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }

    int fd;
    QSocketNotifier readable{QSocketNotifier::Read};
};

/*!
    Receives plain TCP.
*/
class Receiver : public QTcpServer
{
public:
    Receiver() { setListenBacklogSize(1024); }

    int openPeers() const
    {
        int count = 0;
        for (const Peer *peer : peers)
            count += peer->ended == Peer::Open ? 1 : 0;
        return count;
    }

    bool reads = true;
    bool answersEnd = true; // closes a connection after the device's FIN
    QList<Peer *> peers; // in order of their connections
    int mostOpen = 0; // largest number of connections open at once

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto *peer = new Peer(this, descriptor, reads);
        peer->answersEnd = answersEnd;
        peers.append(peer);
        mostOpen = qMax(mostOpen, openPeers());
    }
};

/*!
    Receives TLS with Qt's classes.
*/
class TlsReceiver : public QTcpServer
{
public:
    explicit TlsReceiver(const QSslConfiguration &sslConfiguration)
        : configuration(sslConfiguration)
    {}

    QList<QSslSocket *> sockets; // in order of their connections
    QHash<QSslSocket *, QByteArray> bytes;
    QList<QSsl::SslProtocol> protocols; // one for each completed handshake
    QStringList peerNames; // of client certificates
    int encrypted = 0;
    int disconnected = 0;
    int closeNotified = 0; // connections with the end of the TLS stream, but no FIN yet

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto *socket = new QSslSocket(this);
        sockets.append(socket);
        socket->setSslConfiguration(configuration);
        connect(socket, &QSslSocket::encrypted, this, [this, socket] { onEncrypted(socket); });
        connect(socket, &QSslSocket::readyRead, this, [this, socket] { read(socket); });
        connect(socket, &QSslSocket::errorOccurred, this,
                [this, socket](QAbstractSocket::SocketError error) { onError(socket, error); });
        connect(socket, &QSslSocket::disconnected, this, [this, socket] {
            read(socket);
            ++disconnected;
        });
        socket->setSocketDescriptor(descriptor);
        socket->startServerEncryption();
    }

private:
    void read(QSslSocket *socket) { bytes[socket] += socket->readAll(); }

    void onEncrypted(QSslSocket *socket)
    {
        ++encrypted;
        protocols.append(socket->sessionProtocol());
        if (!socket->peerCertificate().isNull())
            peerNames += socket->peerCertificate().subjectInfo(QSslCertificate::CommonName);
    }

    void onError(QSslSocket *socket, QAbstractSocket::SocketError error)
    {
        read(socket);
        if (error == QAbstractSocket::RemoteHostClosedError
            && !peerHasClosed(socket->socketDescriptor()))
            ++closeNotified;
    }

    const QSslConfiguration configuration;
};

/*!
    The receiving end of one TLS connection, made with OpenSSL and system calls, which distinguish a
    FIN from an RST. Its functions block.
*/
class TlsPeer
{
public:
    // Peers that share a context can resume each other's sessions.
    static std::shared_ptr<SSL_CTX> newContext(const QString &certFile, const QString &keyFile)
    {
        std::shared_ptr<SSL_CTX> made(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
        SSL_CTX_use_certificate_chain_file(made.get(), QFile::encodeName(certFile));
        SSL_CTX_use_PrivateKey_file(made.get(), QFile::encodeName(keyFile), SSL_FILETYPE_PEM);
        // Do not answer a FIN without close_notify with an alert. The device's kernel would answer
        // the alert with an RST.
        SSL_CTX_set_options(made.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
        return made;
    }

    TlsPeer(qintptr descriptor, const std::shared_ptr<SSL_CTX> &sharedContext)
        : fd(static_cast<int>(descriptor)),
          context(sharedContext),
          ssl(SSL_new(context.get()), SSL_free)
    {
        SSL_set_fd(ssl.get(), fd);
    }
    TlsPeer(qintptr descriptor, const QString &certFile, const QString &keyFile)
        : TlsPeer(descriptor, newContext(certFile, keyFile))
    {}

    // The certificate may come from any authority.
    void requireCertificate()
    {
        SSL_set_verify(ssl.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }

    bool handshake()
    {
        for (;;) {
            const int result = SSL_accept(ssl.get());
            if (result == 1 || !waitAfter(result))
                return result == 1;
        }
    }

    // The bytes until the end of the TLS stream or of the TCP connection.
    QByteArray readToEnd()
    {
        QByteArray bytes;
        for (;;) {
            char buffer[16384];
            const int result = SSL_read(ssl.get(), buffer, sizeof buffer);
            if (result > 0) {
                bytes.append(buffer, result);
                longestRecord = qMax(longestRecord, result);
            }
            if (result <= 0 && !waitAfter(result))
                return bytes;
        }
    }

    bool isResumed() const { return SSL_session_reused(ssl.get()) == 1; }
    int longestRead() const { return longestRecord; } // a read gives no more than one record

    void endTls() { SSL_shutdown(ssl.get()); }

    // True if the kernel's connection is closed. After a FIN alone it would be half open.
    bool wasReset() const
    {
        tcp_info info = {};
        socklen_t length = sizeof info;
        return ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0
                && info.tcpi_state == TCP_CLOSE;
    }

private:
    bool waitAfter(int result)
    {
        const int error = SSL_get_error(ssl.get(), result);
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE)
            return false;
        pollfd polled = {fd, POLLIN, 0};
        if (error == SSL_ERROR_WANT_WRITE)
            polled.events = POLLOUT;
        return ::poll(&polled, 1, HangGuardMs) > 0;
    }

    const int fd;
    const std::shared_ptr<SSL_CTX> context;
    const std::unique_ptr<SSL, void (*)(SSL *)> ssl;
    int longestRecord = 0;
};
