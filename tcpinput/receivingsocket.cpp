// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receivingsocket.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QEvent>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr qsizetype ReceiveBytes = 64 * 1024;
// Of one connection in one turn of the event loop, so that others have theirs.
constexpr qsizetype MostBytesPerTurn = 256 * 1024;

// Where all sockets of a thread receive: almost always the reader takes everything at once, so no
// socket needs memory of its own, and the bytes are still in the processor's cache. If a reader
// runs a nested event loop, the sockets in there find the buffer lent out and get another one.
class ReceiveBuffer
{
public:
    ReceiveBuffer() : buffer(std::exchange(ofThread, {}))
    {
        if (buffer.isEmpty())
            buffer = QByteArray(ReceiveBytes, Qt::Uninitialized);
    }
    ~ReceiveBuffer() { ofThread = std::move(buffer); }
    Q_DISABLE_COPY_MOVE(ReceiveBuffer)

    char *data() { return buffer.data(); }

private:
    static thread_local QByteArray ofThread; // null while it is lent out
    QByteArray buffer;
};

thread_local QByteArray ReceiveBuffer::ofThread;

} // namespace

ReceivingSocket::ReceivingSocket(qintptr descriptor, const Acceptance &known)
    : AcceptedConnection(known),
      notifier(descriptor, *this)
{
    setLocalAddress(known.endpoints.local);
    setLocalPort(known.endpoints.localPort);
    setPeerAddress(known.endpoints.peer);
    setPeerPort(known.endpoints.peerPort);
    setSocketState(ConnectedState);
    setOpenMode(QIODevice::ReadOnly | QIODevice::Unbuffered);
}

ReceivingSocket::~ReceivingSocket()
{
    if (state() != ConnectedState)
        return;
    notifier.setEnabled(false);
    ::close(descriptor());
    setSocketState(UnconnectedState); // or else the base closes it once more
}

bool ReceivingSocket::waitForReadyRead(int msecs)
{
    if (state() != ConnectedState || !waitForNews(msecs))
        return false;
    QByteArray all(bytesInKernel(), Qt::Uninitialized);
    if (all.isEmpty()) {
        receive(); // nothing, unless it is the end
        return false;
    }
    const ssize_t size =
            ::recv(descriptor(), all.data(), static_cast<std::size_t>(all.size()), MSG_DONTWAIT);
    if (size > 0)
        handOut(QByteArrayView(all).first(size));
    return size > 0;
}

// For bytes, or for the end.
bool ReceivingSocket::waitForNews(int msecs) const
{
    const QDeadlineTimer deadline(msecs);
    pollfd request = {descriptor(), POLLIN, 0};
    int count = 0;
    do {
        count = ::poll(&request, 1, static_cast<int>(deadline.remainingTime()));
    } while (count < 0 && errno == EINTR);
    return count > 0;
}

void ReceivingSocket::setSocketOption(SocketOption option, const QVariant &value)
{
    if (option != KeepAliveOption || state() != ConnectedState)
        return;
    const int on = value.toBool() ? 1 : 0;
    ::setsockopt(descriptor(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

qintptr ReceivingSocket::socketDescriptor() const
{
    return state() == ConnectedState ? descriptor() : -1;
}

void ReceivingSocket::disconnectFromHost()
{
    disconnectNow();
}

void ReceivingSocket::close()
{
    unread = {};
    waiting = 0;
    kept.clear();
    QTcpSocket::close(); // disconnects
}

qint64 ReceivingSocket::readData(char *data, qint64 maxSize)
{
    const qsizetype size = std::min<qsizetype>(maxSize, unread.size());
    std::memcpy(data, unread.data(), static_cast<std::size_t>(size));
    skipData(size);

    const qsizetype more = std::min<qsizetype>(maxSize - size, waiting);
    if (more == 0)
        return size;
    const ssize_t came =
            ::recv(descriptor(), data + size, static_cast<std::size_t>(more), MSG_DONTWAIT);
    waiting = came > 0 ? waiting - came : 0; // an end is noticed at the next notification
    return size + std::max<ssize_t>(came, 0);
}

// Of what has been received.
qint64 ReceivingSocket::skipData(qint64 maxSize)
{
    const qsizetype size = std::min<qsizetype>(maxSize, unread.size());
    unread = unread.sliced(size);
    return size;
}

bool ReceivingSocket::Notifier::event(QEvent *event)
{
    if (event->type() != QEvent::SockAct)
        return QSocketNotifier::event(event);
    receiver.receive();
    return true;
}

void ReceivingSocket::receive()
{
    ReceiveBuffer buffer;
    const ssize_t size = ::recv(descriptor(), buffer.data(), ReceiveBytes, MSG_DONTWAIT);
    if (size == ReceiveBytes)
        waiting = std::min(bytesInKernel(), MostBytesPerTurn - ReceiveBytes);
    if (size > 0)
        handOut(QByteArrayView(buffer.data(), size));
    else if (size == 0 || (errno != EAGAIN && errno != EINTR))
        endByPeer();
}

// received: valid during the call only.
void ReceivingSocket::handOut(QByteArrayView received)
{
    if (!unread.isEmpty()) {
        kept = unread.toByteArray().append(received);
        received = kept;
    }
    unread = received;
    if (reader)
        reader->bytesCame();
    else
        Q_EMIT readyRead();
    waiting = 0; // there will be another notification
    if (unread.isEmpty())
        return;
    kept = unread.toByteArray();
    unread = kept;
}

qsizetype ReceivingSocket::bytesInKernel() const
{
    int size = 0;
    return ::ioctl(descriptor(), FIONREAD, &size) == 0 ? size : 0;
}

void ReceivingSocket::endByPeer()
{
    setSocketError(RemoteHostClosedError);
    setErrorString(QStringLiteral("The remote host closed the connection"));
    Q_EMIT errorOccurred(RemoteHostClosedError);
    disconnectNow();
}

void ReceivingSocket::disconnectNow()
{
    if (state() != ConnectedState)
        return;
    notifier.setEnabled(false);
    ::close(descriptor());
    waiting = 0; // whoever has the number next is read from otherwise
    setSocketState(UnconnectedState);
    Q_EMIT stateChanged(UnconnectedState);
    Q_EMIT readChannelFinished();
    Q_EMIT disconnected();
}
