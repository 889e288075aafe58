// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/channel.h"
#include "simulator/tlscontext.h"

namespace simulator {

/*!
    TLS, client side. Bytes count as accepted when their complete TLS record went to the kernel.
*/
class TlsChannel : public Channel
{
public:
    TlsChannel(const TlsContext &context, const TcpSocket &socket) : ssl(context.newClient(socket))
    {}

    IoResult handshake() override;
    bool isResumed() const override { return ssl && SSL_session_reused(ssl.get()) == 1; }
    IoResult send(QByteArrayView data) override;
    IoResult receive() override;
    IoResult sendEnd() override;

private:
    IoResult resultOf(int returned) const;

    SslPointer ssl;
};

} // namespace simulator
