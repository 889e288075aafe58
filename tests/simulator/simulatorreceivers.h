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

// There is an end of the stream, or an error, behind the bytes that have come.
inline bool peerHasClosed(qintptr descriptor)
{
    pollfd polled = {static_cast<int>(descriptor), POLLRDHUP, 0};
    return ::poll(&polled, 1, 0) != 0;
}

/*!
    The receiving end of one connection, bare, to tell a FIN from an RST.
*/
class Peer : public QObject
{
public:
    enum Ended {
        Open,
        Fin,
        Reset,
        Here, // by close() or reset()
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

    // If it has ended, the other direction as well.
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
    Receives TCP as it is.
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
    bool answersEnd = true; // closes when the device has sent its FIN
    QList<Peer *> peers; // as they came
    int mostOpen = 0; // at once

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
    Receives TLS as Qt programs do.
*/
class TlsReceiver : public QTcpServer
{
public:
    explicit TlsReceiver(const QSslConfiguration &sslConfiguration)
        : configuration(sslConfiguration)
    {}

    QList<QSslSocket *> sockets; // as they came
    QHash<QSslSocket *, QByteArray> bytes;
    QList<QSsl::SslProtocol> protocols; // one for each handshake done
    QStringList peerNames; // of client certificates
    int encrypted = 0;
    int disconnected = 0;
    int closeNotified = 0; // the end of the TLS stream came, but no FIN yet

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
    The receiving end of one TLS connection, bare, to tell a FIN from an RST. Blocks.
*/
class TlsPeer
{
public:
    TlsPeer(qintptr descriptor, const QString &certFile, const QString &keyFile)
        : fd(static_cast<int>(descriptor)),
          context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free),
          ssl(nullptr, SSL_free)
    {
        SSL_CTX_use_certificate_chain_file(context.get(), QFile::encodeName(certFile));
        SSL_CTX_use_PrivateKey_file(context.get(), QFile::encodeName(keyFile), SSL_FILETYPE_PEM);
        // No alert in answer to a mere FIN: it would make the device's kernel send an RST.
        SSL_CTX_set_options(context.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
        ssl.reset(SSL_new(context.get()));
        SSL_set_fd(ssl.get(), fd);
    }

    // Of whatever authority.
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

    // What came until the end of the TLS stream, or of TCP.
    QByteArray readToEnd()
    {
        QByteArray bytes;
        for (;;) {
            char buffer[16384];
            const int result = SSL_read(ssl.get(), buffer, sizeof buffer);
            if (result > 0)
                bytes.append(buffer, result);
            else if (!waitAfter(result))
                return bytes;
        }
    }

    void endTls() { SSL_shutdown(ssl.get()); }

    // The kernel has no connection any more: a FIN alone would leave it half open.
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
    const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX *)> context;
    std::unique_ptr<SSL, void (*)(SSL *)> ssl;
};
