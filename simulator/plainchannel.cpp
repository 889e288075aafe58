// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/plainchannel.h"

#include "simulator/tcpsocket.h"

#include <cerrno>

namespace simulator {
namespace {

constexpr qsizetype DropBytes = 16 * 1024; // read at once, to be dropped

bool isTemporary(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

IoResult failed(int error)
{
    return {IoResult::Failed, 0, errorText(error)};
}

} // namespace

IoResult PlainChannel::send(QByteArrayView data)
{
    const qsizetype sent = socket.send(data.data(), data.size());
    if (sent >= 0)
        return {IoResult::Done, sent, {}};
    return isTemporary(errno) ? IoResult{IoResult::WantWrite, 0, {}} : failed(errno);
}

IoResult PlainChannel::receive()
{
    char dropped[DropBytes];
    for (;;) {
        const qsizetype received = socket.receive(dropped, DropBytes);
        if (received == 0)
            return {IoResult::Closed, 0, {}};
        if (received < 0)
            return isTemporary(errno) ? IoResult{IoResult::WantRead, 0, {}} : failed(errno);
    }
}

} // namespace simulator
