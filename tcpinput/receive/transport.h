// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

//! Who is told that bytes have come.
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

    // Not owned; null for none, which is the default.
    virtual void setReader(TransportReader *value) = 0;
    // False: nothing can come any more, and reading fails.
    virtual bool isUsable() const = 0;
    // Everything available, without copying it, if that is size bytes in a block of its own.
    // Otherwise nothing: take() gets it.
    virtual QByteArray takeBlock(qint64 size) = 0;
    // Copies to data; how many bytes there were, or -1.
    virtual qint64 take(char *data, qint64 maxSize) = 0;
};
