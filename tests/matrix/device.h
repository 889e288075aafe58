// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "cell.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/tlsdevice.h"

#include <QtCore/QByteArray>
#include <QtNetwork/QHostAddress>

#include <functional>
#include <optional>

/*!
    Plays the device of one cell, and counts the bytes that the kernel has taken.

    Thread: may be created in one thread and run() in another. Read the results after run().
*/
class CellDevice
{
public:
    // Binds its port, but does not connect. seed: for the random segmentation.
    CellDevice(const Cell &playedCell, const QByteArray &deviceStream, quint32 seed,
               const QHostAddress &address);

    // Connects, sends and ends. Calls atHalf once: when half of the stream is sent, or when nothing
    // more can be sent.
    void run(const QHostAddress &address, quint16 port, const std::function<void()> &atHalf);

    const Cell cell;
    const QByteArray stream;
    quint16 localPort = 0;

    bool connected = false; // with TLS: after the handshake
    qsizetype accepted = 0; // bytes of the stream that the kernel took; with TLS whole records
    // When the device closed, its own kernel dropped at most so many bytes.
    qsizetype unacknowledged = 0;

private:
    bool connectTo(const QHostAddress &address, quint16 port);
    bool sendPart(qsizetype begin, qsizetype end);
    bool write(const QByteArray &bytes);
    qsizetype transmit(const QByteArray &bytes) const;
    void end();
    void notify();
    void finishAndWait();
    void closeNow();
    void readArrived() const;
    void readToEnd() const;

    NativeSocket &socket() { return tls ? tls->socket : plain; }
    const NativeSocket &socket() const { return tls ? tls->socket : plain; }

    NativeSocket plain;
    std::optional<TlsDevice> tls;
    quint32 randomState;
};
