// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/endpoints.h"
#include "tcpinput/receive/decryption.h"
#include "tcpinput/receive/transport.h"

#include <QtCore/QByteArray>
#include <QtCore/QSocketNotifier>
#include <QtNetwork/QTcpSocket>

#include <memory>
#include <optional>

/*!
    The server's end of a connection, plain or with a TLS session of our own, which only receives. A
    message of usual size takes one system call, where QTcpSocket's engine makes two. The start and
    the end of a connection take a few, where that engine makes dozens.

    Its user sees a QTcpSocket: readyRead() comes with bytes, errorOccurred() and disconnected()
    come once when the peer has closed or reset the connection. If there is a reader, it is called
    instead of readyRead(): Qt's signal and device layer cost several times as much as reading a
    small message. The socket knows both endpoints from the beginning and keeps them, even if the
    peer has gone early. It refuses or ignores what only Qt's engine can do: connecting, sending,
    pausing, and socket options other than KeepAliveOption.

    Thread: the one it lives in; made there.
    Owner:  the caller.
*/
class ReceivingSocket final : public QTcpSocket, public Transport
{
public:
    // Owns the descriptor from now on. session: its handshake is done, and it may have bytes that
    // came behind that; null for a plain connection.
    ReceivingSocket(qintptr descriptor, const Endpoints &known,
                    std::unique_ptr<tls::Session> session = nullptr);
    ~ReceivingSocket() override;

    void setReader(TransportReader *value) override { reader = value; }
    // Always true: the socket can be read, and keeps its peer's address, when the peer has gone.
    bool isUsable() const override { return true; }
    EndReason endReason() const override;
    QString failure() const override;
    void setPaused(bool on) override;
    void endWriting() override;
    bool peerHasEnded() const override;
    void setLimited(bool) override {} // receives nothing ahead
    QByteArray takeBlock(qint64 size) override;
    qint64 take(char *data, qint64 maxSize) override { return readData(data, maxSize); }

    // Bytes received and not read yet. Reading them emits no signal.
    qint64 bytesAvailable() const override { return unread.size(); }
    // Waits for bytes or the end, without limit if msecs is negative. Then takes all bytes that the
    // kernel holds.
    bool waitForReadyRead(int msecs) override;
    bool waitForDisconnected(int) override { return false; } // waits for nothing
    void setSocketOption(SocketOption option, const QVariant &value) override;
    // -1 once it is disconnected.
    qintptr socketDescriptor() const override;
    void disconnectFromHost() override;
    void close() override;

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 skipData(qint64 maxSize) override;

private:
    //! Calls receive() directly, without a signal.
    class Notifier final : public QSocketNotifier
    {
    public:
        Notifier(qintptr descriptor, ReceivingSocket &owner)
            : QSocketNotifier(descriptor, Read, &owner),
              receiver(owner)
        {}
        bool event(QEvent *event) override;

    private:
        ReceivingSocket &receiver;
    };

    bool waitForDecrypted(int msecs);
    qsizetype receive(qsizetype most);
    qsizetype receiveAll(char *buffer, qsizetype received, qsizetype most);
    void decrypt(QByteArrayView received);
    qsizetype decryptAll(char *buffer, qsizetype received, qsizetype most);
    void endTurn(bool hasMore);
    void goOnLater();
    void goOn();
    QByteArray emptyBlock(qsizetype size);
    qsizetype room(qsizetype wanted);
    QByteArray receiveOn(QByteArrayView first, qsizetype most);
    void handOut(QByteArrayView received);
    void handOutBlock(QByteArray block);
    void tellReader();
    qsizetype bytesInKernel() const;
    bool waitForNews(int msecs) const;
    void endByPeer(SocketError error, const QString &text);
    void disconnectNow();
    int descriptor() const { return static_cast<int>(notifier.socket()); }

    Notifier notifier;
    std::optional<Decryption> encryption; // null: plain
    TransportReader *reader = nullptr;
    bool paused = false;
    bool hasEndedWriting = false;
    bool goesOn = false; // a call is posted that goes on with what was received
    int readError = 0; // that has broken it, as in errno; 0: none, the peer has closed it
    QByteArrayView unread; // in kept, or in the thread's buffer while the reader is called
    QByteArray kept; // a large read, or the bytes that a reader has left (rare)
};
