// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/endreason.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

//! Is called when bytes have come.
class TransportReader
{
public:
    virtual void bytesCame() = 0;
    // How many of the wanted bytes may come, beside those of earlier calls. They are kept free
    // until one of the other functions is called, or the transport ends.
    virtual qsizetype room(qsizetype wanted) { return wanted; }
    virtual void nothingCame() {}
    // Not one byte may come: pause the transport.
    virtual void noRoom() {}
    // An empty block with room for that many bytes, for a large read.
    virtual QByteArray emptyBlock(qsizetype size) = 0;

protected:
    ~TransportReader() = default;
};

/*!
    How a client receives from its socket, whatever the kind of socket.

    Thread: the socket's.
    Owner:  its maker.
*/
class Transport
{
public:
    virtual ~Transport() = default;

    // value: not owned. Null, the default: nobody is called.
    virtual void setReader(TransportReader *value) = 0;
    // False: nothing can come any more, and reading fails.
    virtual bool isUsable() const = 0;
    // Why the socket is connected no more, if this side has not closed it.
    virtual EndReason endReason() const = 0;
    // Why reading has failed. Empty if it has not, or if the peer has closed or reset the
    // connection.
    virtual QString failure() const = 0;
    // While paused nothing is received, and an end is not noticed. Default: off.
    virtual void setPaused(bool on) = 0;
    // Tells the peer that nothing follows from here: FIN, with TLS close_notify before it.
    // Receiving goes on. A second call does nothing.
    virtual void endWriting() = 0;
    // Whether the peer has closed or reset the connection. Its bytes may still wait.
    virtual bool peerHasEnded() const = 0;
    // Whether the reader may pause this, so that little may be received ahead. Default: off.
    virtual void setLimited(bool on) = 0;
    // All available bytes without a copy, if they are size bytes in a block of their own. Otherwise
    // empty: use take().
    virtual QByteArray takeBlock(qint64 size) = 0;
    // Copies to data. Returns the number of bytes, or -1.
    virtual qint64 take(char *data, qint64 maxSize) = 0;
};
