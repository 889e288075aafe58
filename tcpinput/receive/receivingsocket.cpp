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

// Room for what decrypting ReceiveBytes may give: a record that began in an earlier turn may end.
constexpr qsizetype RecordBytes = 16 * 1024;
constexpr qsizetype PlainBytes = ReceiveBytes + RecordBytes;

// A buffer that all sockets of a thread use: into one they receive, into another they decrypt. The
// reader almost always takes everything at once, so no socket needs memory of its own, and the
// bytes are still in the processor's cache. If a reader runs a nested event loop, the sockets in
// there use another buffer.
template<qsizetype Bytes>
class ThreadBuffer
{
public:
    ThreadBuffer() : buffer(std::exchange(ofThread, {}))
    {
        if (buffer.isEmpty())
            buffer = QByteArray(Bytes, Qt::Uninitialized);
    }
    ~ThreadBuffer() { ofThread = std::move(buffer); }
    Q_DISABLE_COPY_MOVE(ThreadBuffer)

    char *data() { return buffer.data(); }

private:
    inline static thread_local QByteArray ofThread; // null while it is in use
    QByteArray buffer;
};

// Whether a call may work the next time.
bool isTemporary(int error)
{
    return error == EAGAIN || error == EINTR;
}

} // namespace

ReceivingSocket::ReceivingSocket(qintptr descriptor, const Endpoints &known,
                                 std::unique_ptr<tls::Session> session)
    : notifier(descriptor, *this)
{
    if (session)
        encryption.emplace(std::move(session));
    if (encryption && (encryption->hasRest() || encryption->hasUnsent()))
        goOnLater();
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
    if (encryption)
        return waitForDecrypted(msecs);
    if (state() != ConnectedState || !waitForNews(msecs))
        return false;
    QByteArray all = receiveOn({}, bytesInKernel()); // not what comes meanwhile
    const bool came = !all.isEmpty();
    if (came)
        handOutBlock(std::move(all));
    else
        receive(1); // no bytes: it can only be the end
    return came;
}

bool ReceivingSocket::waitForDecrypted(int msecs)
{
    const qsizetype before = unread.size();
    const auto useRest = [this] {
        while (state() == ConnectedState && encryption->hasRest())
            goOn();
    };
    useRest();
    if (state() != ConnectedState || !waitForNews(msecs))
        return unread.size() > before;
    qsizetype left = std::max<qsizetype>(bytesInKernel(), 1); // not what comes meanwhile
    while (state() == ConnectedState && left > 0) {
        const qsizetype size = receive(left);
        if (size == 0)
            break;
        left -= size;
        useRest();
    }
    return unread.size() > before;
}

EndReason ReceivingSocket::endReason() const
{
    if (encryption && encryption->isBroken())
        return EndReason::Tls;
    return readError != 0 ? EndReason::Reset : EndReason::Peer;
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

// A peer that has ended the connection itself gets no answer, as with Qt.
void ReceivingSocket::disconnectFromHost()
{
    if (encryption && state() == ConnectedState && !hasEndedWriting)
        encryption->end(descriptor());
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
    receiver.receive(MostBytesPerTurn);
    return true;
}

// Returns how many bytes it took from the kernel, at most as many.
qsizetype ReceivingSocket::receive(qsizetype most)
{
    if (encryption && encryption->hasRest()) { // comes first, and must not grow
        goOn();
        return 0;
    }
    const qsizetype atOnce = room(std::min(ReceiveBytes, most));
    if (atOnce == 0) {
        reader->noRoom();
        return 0;
    }
    ThreadBuffer<ReceiveBytes> buffer;
    const ssize_t size =
            ::recv(descriptor(), buffer.data(), static_cast<std::size_t>(atOnce), MSG_DONTWAIT);
    if (size > 0)
        return receiveAll(buffer.data(), size, most);
    if (size == 0 || !isTemporary(errno)) {
        readError = size < 0 ? errno : readError;
        endByPeer(RemoteHostClosedError, QStringLiteral("The remote host closed the connection"));
    } else if (reader) {
        reader->nothingCame();
    }
    return 0;
}

// buffer: of ReceiveBytes; has the received bytes. If it is full, more is waiting.
qsizetype ReceivingSocket::receiveAll(char *buffer, qsizetype received, qsizetype most)
{
    const bool isFull = received == ReceiveBytes;
    const QByteArrayView first(buffer, received);
    if (encryption && isFull)
        return decryptAll(buffer, received, most);
    if (encryption)
        decrypt(first);
    else if (isFull)
        handOutBlock(receiveOn(first, most));
    else
        handOut(first);
    return received;
}

void ReceivingSocket::decrypt(QByteArrayView received)
{
    ThreadBuffer<PlainBytes> plain;
    encryption->feed(received);
    const qsizetype size = encryption->read(plain.data(), PlainBytes);
    encryption->endTurn(descriptor());
    if (size > 0)
        handOut(QByteArrayView(plain.data(), size));
    else if (reader)
        reader->nothingCame();
    endTurn(size == PlainBytes);
}

// Goes on receiving until the kernel has nothing left. Each part is decrypted while it is in the
// processor's cache.
qsizetype ReceivingSocket::decryptAll(char *buffer, qsizetype received, qsizetype most)
{
    QByteArray plain = emptyBlock(received + bytesInKernel() + RecordBytes);
    qsizetype total = 0;
    bool isFull = false;
    for (ssize_t size = received; size > 0;) {
        const qsizetype before = plain.size();
        const qsizetype space = size + RecordBytes;
        encryption->feed(QByteArrayView(buffer, size));
        plain.resize(before + space);
        const qsizetype more = encryption->read(plain.data() + before, space);
        encryption->endTurn(descriptor());
        plain.truncate(before + more);
        isFull = more == space;
        total += size;
        const bool mayGoOn = !encryption->isOver() && !encryption->hasRest();
        const qsizetype next = mayGoOn ? room(std::min(ReceiveBytes, most - total)) : 0;
        if (next == 0)
            break;
        size = ::recv(descriptor(), buffer, static_cast<std::size_t>(next), MSG_DONTWAIT);
        if (size < 0 && !isTemporary(errno))
            readError = errno; // the kernel tells it only once
    } // an end is noticed at the next notification
    if (!plain.isEmpty())
        handOutBlock(std::move(plain));
    else if (reader)
        reader->nothingCame();
    endTurn(isFull);
    return total;
}

// hasMore: decrypted bytes are left. The reader may have paused the connection, or ended it.
void ReceivingSocket::endTurn(bool hasMore)
{
    if (state() != ConnectedState)
        return;
    if (hasMore || encryption->hasRest())
        goOnLater();
    else if (encryption->isBroken())
        endByPeer(SslInternalError, QStringLiteral("What came is not valid TLS"));
    else if (encryption->isOver())
        endByPeer(RemoteHostClosedError, QStringLiteral("The TLS/SSL connection has been closed"));
}

// In a later pass of the event loop: the other connections of the thread come first.
void ReceivingSocket::goOnLater()
{
    if (std::exchange(goesOn, true))
        return;
    QMetaObject::invokeMethod(
            this,
            [this] {
                goesOn = false;
                if (state() == ConnectedState && !paused)
                    goOn();
            },
            Qt::QueuedConnection);
}

void ReceivingSocket::goOn()
{
    decrypt({});
}

QByteArray ReceivingSocket::emptyBlock(qsizetype size)
{
    return reader ? reader->emptyBlock(size) : InputBuffer().emptyBlock(size);
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
    QByteArray all = emptyBlock(first.size() + more);
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
    paused = on;
    notifier.setEnabled(!on && state() == ConnectedState);
    if (encryption && !on)
        goOnLater();
}

void ReceivingSocket::endWriting()
{
    if (state() != ConnectedState || std::exchange(hasEndedWriting, true))
        return;
    if (encryption)
        encryption->end(descriptor());
    ::shutdown(descriptor(), SHUT_WR);
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

void ReceivingSocket::endByPeer(SocketError error, const QString &text)
{
    setSocketError(error);
    setErrorString(text);
    Q_EMIT errorOccurred(error);
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
