// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/tlsdevice.h"

#include <QtCore/QStringList>

#include <functional>

/*!
    A TLS device that keeps what the server answers: everything that a server decides, and nothing
    that is random.

    Takes part in whatever the server wants: security level 0, and a pre-shared key that the server
    does not know. Offers no session ticket, unless asked.

    Thread: any, one at a time.
*/
class TlsProbe
{
public:
    TlsProbe(int minVersion, int maxVersion);

    // Afterwards the answer is known. False if the handshake fails.
    bool shakeHands(quint16 port);
    // Ends the connection and keeps what still comes.
    void finish();

    SSL *native() const { return device.native(); }
    const QStringList &answer() const { return messages; }

    TlsDevice device;
    int group = 0; // this and the next: as in the protocol; 0: none
    int scheme = 0; // of the server's signature

private:
    static void note(int isWritten, int version, int type, const void *bytes, size_t length, SSL *,
                     void *probe);
    void noteMessage(const QByteArray &message);
    void noteHello(const QByteArray &body);
    void noteKeyExchange(const QByteArray &body);

    QStringList messages;
};
