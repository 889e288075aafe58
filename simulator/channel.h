// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayView>
#include <QtCore/QString>

namespace simulator {

struct IoResult
{
    enum Status {
        Done,
        WantRead, // call again when the socket is readable
        WantWrite, // call again, with the same bytes, when the socket is writable
        Closed, // by the peer
        Failed,
    };

    Status status = Done;
    qsizetype bytes = 0; // accepted by the kernel
    QString error; // of Failed
};

/*!
    What a connection speaks over its connected socket: plain TCP or TLS.

    Thread: one at a time. Never blocks.
*/
class Channel
{
public:
    Channel() = default;
    virtual ~Channel() = default;
    Q_DISABLE_COPY_MOVE(Channel)

    virtual IoResult handshake() = 0;

    // Whether the handshake has resumed a TLS session.
    virtual bool isResumed() const { return false; }

    // data: not empty.
    virtual IoResult send(QByteArrayView data) = 0;

    // Reads whatever has come and drops it. Never returns Done.
    virtual IoResult receive() = 0;

    // With TLS, tells the peer that nothing more will be sent. The TCP connection stays as it is.
    virtual IoResult sendEnd() = 0;
};

} // namespace simulator
