// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/endreason.h"

#include <QtCore/QByteArray>

//! Is called when bytes have come.
class TransportReader
{
public:
    virtual void bytesCame() = 0;

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
    // All available bytes without a copy, if they are size bytes in a block of their own. Otherwise
    // empty: use take().
    virtual QByteArray takeBlock(qint64 size) = 0;
    // Copies to data. Returns the number of bytes, or -1.
    virtual qint64 take(char *data, qint64 maxSize) = 0;
};
