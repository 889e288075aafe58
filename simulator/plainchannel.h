// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/channel.h"

namespace simulator {

class TcpSocket;

/*!
    Plain TCP.
*/
class PlainChannel : public Channel
{
public:
    explicit PlainChannel(TcpSocket &tcpSocket) : socket(tcpSocket) {}

    IoResult handshake() override { return {}; }
    IoResult send(QByteArrayView data) override;
    IoResult receive() override;
    IoResult sendEnd() override { return {}; }

private:
    TcpSocket &socket;
};

} // namespace simulator
