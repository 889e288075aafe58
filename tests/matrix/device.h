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
    Plays the device of one cell, and knows what the kernel has taken from it.

    Thread: made in one, run() in another; the results after that has ended.
*/
class CellDevice
{
public:
    // Has its port, and is not connected. seed: for the random segmentation.
    CellDevice(const Cell &playedCell, const QByteArray &deviceStream, quint32 seed,
               const QHostAddress &address);

    // From connecting to the end. atHalf is called once, when half of the stream is sent or
    // nothing more will be.
    void run(const QHostAddress &address, quint16 port, const std::function<void()> &atHalf);

    const Cell cell;
    const QByteArray stream;
    quint16 localPort = 0;

    bool connected = false; // with TLS: and its handshake was done
    qsizetype accepted = 0; // bytes of the stream that the kernel took; of TLS whole records
    // The most that the device's own kernel can have thrown away when the device closed.
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
