// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/endpoints.h"
#include "tcpinput/receive/transport.h"

#include <QtCore/QByteArray>
#include <QtCore/QSocketNotifier>
#include <QtNetwork/QTcpSocket>

/*!
    The server's end of a plain connection, which only ever receives: one call to the kernel for
    a message of usual size, where a QTcpSocket's own engine makes two, and a few at the start and
    the end of a connection, where that makes dozens.

    To its user it is a QTcpSocket: readyRead() comes with bytes, errorOccurred() and disconnected()
    once when the peer has closed or reset the connection. A reader, if it has one, is called
    instead of readyRead(): Qt's signal and device layer cost several times what reading a small
    message does. It knows both its endpoints from the beginning and never forgets them,
    however early the peer has gone. What Qt's engine alone can do (connecting, sending, pausing,
    socket options other than KeepAliveOption) it refuses or ignores.

    Thread: the one it lives in; made there.
    Owner:  the caller.
*/
class ReceivingSocket final : public QTcpSocket, public Transport
{
public:
    // Owns the descriptor from now on.
    ReceivingSocket(qintptr descriptor, const Endpoints &known);
    ~ReceivingSocket() override;

    void setReader(TransportReader *value) override { reader = value; }
    // Until it is closed from this side. It keeps its peer's address when the peer has gone.
    bool isUsable() const override { return true; }
    QByteArray takeBlock(qint64 size) override;
    qint64 take(char *data, qint64 maxSize) override { return readData(data, maxSize); }

    // What has been received and not been read. Reading that never emits a signal.
    qint64 bytesAvailable() const override { return unread.size(); }
    // Waits for bytes or the end, without limit if msecs is negative, and takes all that the kernel
    // has got.
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
    //! Calls receive() itself, without a signal.
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

    void receive();
    QByteArray receiveOn(QByteArrayView first, qsizetype most);
    void handOut(QByteArrayView received);
    void handOutBlock(QByteArray block);
    void tellReader();
    qsizetype bytesInKernel() const;
    bool waitForNews(int msecs) const;
    void endByPeer();
    void disconnectNow();
    int descriptor() const { return static_cast<int>(notifier.socket()); }

    Notifier notifier;
    TransportReader *reader = nullptr;
    QByteArrayView unread; // in kept, or in the thread's buffer while the reader is told
    QByteArray kept; // a lot that came at once, or what readers have left, which they seldom do
};
