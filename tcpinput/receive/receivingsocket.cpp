// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/receivingsocket.h"

#include "tcpinput/receive/inputbuffer.h"
#include "tcpinput/receive/peerend.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QEvent>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr qsizetype ReceiveBytes = 64 * 1024;
// Limit for one connection in one turn of the event loop: all that its kernel buffer may hold.
// Bytes that a turn leaves behind could wait two seconds for their offer.
constexpr qsizetype MostBytesPerTurn = 64 * 1024 * 1024;

// The buffer into which all sockets of a thread receive. The reader almost always takes everything
// at once, so no socket needs memory of its own, and the bytes are still in the processor's cache.
// If a reader runs a nested event loop, the sockets in there use another buffer.
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
    static thread_local QByteArray ofThread; // null while it is in use
    QByteArray buffer;
};

thread_local QByteArray ReceiveBuffer::ofThread;

} // namespace

ReceivingSocket::ReceivingSocket(qintptr descriptor, const Endpoints &known)
    : notifier(descriptor, *this)
{
    setLocalAddress(known.local);
    setLocalPort(known.localPort);
    setPeerAddress(known.peer);
    setPeerPort(known.peerPort);
    setSocketState(ConnectedState);
    setOpenMode(QIODevice::ReadOnly | QIODevice::Unbuffered);
}

ReceivingSocket::~ReceivingSocket()
{
    if (state() != ConnectedState)
        return;
    notifier.setEnabled(false);
    ::close(descriptor());
    setSocketState(UnconnectedState); // otherwise the base class closes it once more
}

bool ReceivingSocket::waitForReadyRead(int msecs)
{
    if (state() != ConnectedState || !waitForNews(msecs))
        return false;
    QByteArray all = receiveOn({}, bytesInKernel()); // not what comes meanwhile
    const bool came = !all.isEmpty();
    if (came)
        handOutBlock(std::move(all));
    else
        receive(); // no bytes: it can only be the end
    return came;
}

QString ReceivingSocket::failure() const
{
    return readError == 0 || readError == ECONNRESET ? QString() : qt_error_string(readError);
}

// Waits for bytes or the end.
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
    kept.clear();
    QTcpSocket::close(); // disconnects
}

qint64 ReceivingSocket::readData(char *data, qint64 maxSize)
{
    const qsizetype size = std::min<qsizetype>(maxSize, unread.size());
    std::copy_n(unread.data(), size, data); // unread.data() may be null
    return skipData(size);
}

QByteArray ReceivingSocket::takeBlock(qint64 size)
{
    if (unread.size() != size || unread.data() != kept.constData() || kept.size() != size)
        return {};
    unread = {};
    return std::exchange(kept, {});
}

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
    const qsizetype atOnce = room(ReceiveBytes);
    if (atOnce == 0)
        return reader->noRoom();
    ReceiveBuffer buffer;
    const ssize_t size =
            ::recv(descriptor(), buffer.data(), static_cast<std::size_t>(atOnce), MSG_DONTWAIT);
    if (size == ReceiveBytes) {
        handOutBlock(receiveOn(QByteArrayView(buffer.data(), size), MostBytesPerTurn));
    } else if (size > 0) {
        handOut(QByteArrayView(buffer.data(), size));
    } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
        readError = size < 0 ? errno : 0;
        endByPeer();
    } else if (reader) {
        reader->nothingCame();
    }
}

// How many of the wanted bytes may be received.
qsizetype ReceivingSocket::room(qsizetype wanted)
{
    return reader ? reader->room(wanted) : wanted;
}

// Returns first and all bytes that follow, until the kernel has none left or most is reached. The
// rest of a large message must not wait for the next turn, which may come late. Reading makes room
// for what the peer could not send yet, so more may come than the kernel held at first.
QByteArray ReceivingSocket::receiveOn(QByteArrayView first, qsizetype most)
{
    const auto next = [&](qsizetype had) { return room(std::min(bytesInKernel(), most - had)); };
    qsizetype more = next(first.size());
    QByteArray all = InputBuffer::emptyBlock(first.size() + more);
    all.resize(first.size());
    std::copy(first.begin(), first.end(), all.begin());
    for (; more > 0; more = next(all.size())) {
        const qsizetype before = all.size();
        all.resize(before + more);
        const ssize_t size = ::recv(descriptor(), all.data() + before,
                                    static_cast<std::size_t>(more), MSG_DONTWAIT);
        all.truncate(before + std::max<ssize_t>(size, 0));
        if (size <= 0) // an end is noticed at the next notification
            break;
    }
    return all;
}

// received: valid during the call only.
void ReceivingSocket::handOut(QByteArrayView received)
{
    if (!unread.isEmpty())
        return handOutBlock(received.toByteArray());
    unread = received;
    tellReader();
}

void ReceivingSocket::handOutBlock(QByteArray block)
{
    kept = unread.isEmpty() ? std::move(block) : unread.toByteArray().append(block);
    unread = kept;
    tellReader();
}

void ReceivingSocket::tellReader()
{
    if (reader)
        reader->bytesCame();
    else
        Q_EMIT readyRead();
    if (unread.isEmpty()) {
        kept.clear();
    } else if (unread.data() != kept.constData()) {
        kept = unread.toByteArray();
        unread = kept;
    }
}

void ReceivingSocket::setPaused(bool on)
{
    notifier.setEnabled(!on && state() == ConnectedState);
}

bool ReceivingSocket::peerHasEnded() const
{
    return hasPeerEnded(descriptor());
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
    setSocketState(UnconnectedState);
    Q_EMIT stateChanged(UnconnectedState);
    Q_EMIT readChannelFinished();
    Q_EMIT disconnected();
}
