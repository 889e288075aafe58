// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "device.h"

#include "tests/kit/proxyheaders.h"

#include <linux/sockios.h>
#include <random>

namespace {

constexpr qsizetype RecordBytes = 16384; // the most bytes in one TLS record
constexpr int LargestPiece = 400; // bytes, of the random segmentation
constexpr int LongestPauseMs = 30;

NativeSocket boundTo(const QHostAddress &address)
{
    NativeSocket socket = NativeSocket::unconnected(address);
    if (!socket.bind(address, 0))
        qFatal("no port for a device");
    return socket;
}

int unacknowledgedBytes(const NativeSocket &socket)
{
    int count = 0;
    ::ioctl(socket.descriptor(), SIOCOUTQ, &count);
    return count;
}

} // namespace

CellDevice::CellDevice(const Cell &playedCell, const QByteArray &deviceStream, quint32 seed,
                       const QHostAddress &address)
    : cell(playedCell),
      stream(deviceStream),
      plain(boundTo(address)),
      randomState(seed)
{
    localPort = plain.localPort();
    if (cell.transport == Transport::Tcp)
        return;
    tls.emplace(cell.transport == Transport::Tls12 ? TLS1_2_VERSION : TLS1_3_VERSION);
    tls->socket = std::move(plain);
}

void CellDevice::run(const QHostAddress &address, quint16 port, const std::function<void()> &atHalf)
{
    connected = connectTo(address, port);
    const qsizetype half = stream.size() / 2;
    const bool sending = connected && sendPart(0, half);
    atHalf();
    if (sending && sendPart(half, stream.size()))
        end();
    socket().close();
}

bool CellDevice::connectTo(const QHostAddress &address, quint16 port)
{
    if (!socket().connect(address, port))
        return false;
    if (cell.keys == Keys::All) // through a proxy that gives the device its own address
        socket().send(proxyheaders::text(address, localPort));
    return !tls || tls->handshake();
}

// False if the connection ended before all bytes were sent.
bool CellDevice::sendPart(qsizetype begin, qsizetype end)
{
    std::minstd_rand random(randomState += 2);
    while (begin < end) {
        qsizetype piece = end - begin;
        if (cell.segmentation == Segmentation::Bytes)
            piece = 1;
        if (cell.segmentation == Segmentation::Random) {
            piece = qMin<qsizetype>(piece, 1 + static_cast<int>(random() % LargestPiece));
            QThread::msleep(random() % LongestPauseMs); // the device's own pace
        }
        if (!write(stream.mid(begin, piece)))
            return false;
        begin += piece;
    }
    return true;
}

// The bytes reach the kernel in one piece.
bool CellDevice::write(const QByteArray &bytes)
{
    if (!tls) {
        const qsizetype sent = transmit(bytes);
        accepted += sent;
        return sent == bytes.size();
    }
    QByteArray records;
    QList<std::pair<qsizetype, qsizetype>> ends; // of each record, and of its contents
    for (qsizetype begin = 0; begin < bytes.size(); begin += RecordBytes) {
        tls->write(bytes.mid(begin, RecordBytes));
        records += tls->takeOutput();
        ends.append({records.size(), qMin(begin + RecordBytes, bytes.size())});
    }
    const qsizetype sent = transmit(records);
    qsizetype carried = 0;
    for (const auto &[recordEnd, carriedEnd] : std::as_const(ends))
        carried = recordEnd <= sent ? carriedEnd : carried;
    accepted += carried;
    return sent == records.size();
}

// Returns the number of bytes that the kernel took.
qsizetype CellDevice::transmit(const QByteArray &bytes) const
{
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = ::send(socket().descriptor(), bytes.constData() + done,
                                    static_cast<size_t>(bytes.size() - done), MSG_NOSIGNAL);
        if (sent <= 0)
            break;
        done += sent;
    }
    return done;
}

void CellDevice::end()
{
    switch (cell.ending) {
    case Ending::Fin:
        NativeSocket::waitFor([this] { return unacknowledgedBytes(socket()) == 0; });
        readArrived();
        socket().close();
        break;
    case Ending::HalfClose:
        finishAndWait();
        break;
    case Ending::CloseAtOnce:
        closeNow();
        break;
    case Ending::Reset:
        unacknowledged = unacknowledgedBytes(socket());
        socket().reset();
        break;
    case Ending::NotifyThenFin:
        notify();
        finishAndWait();
        break;
    case Ending::NotifyAlone:
        notify();
        readToEnd();
        break;
    case Ending::FinWithoutNotify:
        readArrived();
        closeNow();
        break;
    case Ending::IdleTimeout:
    case Ending::HostStop:
    case Ending::Destroyed:
        readToEnd();
        break;
    }
}

void CellDevice::notify()
{
    tls->writeCloseNotify();
    tls->flush();
}

void CellDevice::finishAndWait()
{
    socket().finish();
    readToEnd();
}

// The kernel resets the connection if there are unread bytes, or if bytes arrive later.
void CellDevice::closeNow()
{
    unacknowledged = unacknowledgedBytes(socket());
    socket().close();
}

void CellDevice::readArrived() const
{
    char bytes[4096];
    while (::recv(socket().descriptor(), bytes, sizeof bytes, MSG_DONTWAIT) > 0) {}
}

void CellDevice::readToEnd() const
{
    char bytes[4096];
    while (::recv(socket().descriptor(), bytes, sizeof bytes, 0) > 0) {}
}
