// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/numberedmessages.h"
#include "tests/kit/tlsdevice.h"

#include <QtCore/QThread>

#include <atomic>
#include <memory>

#include <poll.h>
#include <sys/socket.h>

/*!
    A device in a thread of its own that sends numbered messages without a pause, over one
    connection after the other: when its server says that nothing follows, it closes, and connects
    again at once.

    Thread: the maker's; the counts from any.
    Owner:  the caller. The destructor ends the device.
*/
class TirelessDevice
{
public:
    TirelessDevice(int stream, const QHostAddress &address, quint16 port, bool useTls)
        : number(stream),
          server(address),
          serverPort(port),
          tls(useTls),
          thread(QThread::create([this] { run(); }))
    {
        thread->start();
    }
    ~TirelessDevice() { finish(); }
    Q_DISABLE_COPY_MOVE(TirelessDevice)

    // Ends its connection in order. Afterwards the counts are final.
    void finish()
    {
        isOver = true;
        thread->wait();
    }
    int stream() const { return number; }
    int sent() const { return messages; } // with numbers from 0 on
    int connections() const { return begun; }
    // A connect was refused, or a connection ended otherwise than in order.
    bool hasFailed() const { return failed; }

private:
    void run()
    {
        while (!isOver && !failed)
            failed = !(tls ? serveTls() : serve());
    }
    bool serve()
    {
        const NativeSocket socket = NativeSocket::connectedTo(server, serverPort);
        if (!socket.isValid())
            return false;
        ++begun;
        while (!isOver && !hasNews(socket)) {
            if (!socket.send(numberedMessage(number, messages)))
                return false;
            next();
        }
        return isOver || socket.ends();
    }
    bool serveTls()
    {
        TlsDevice device(TLS1_3_VERSION);
        if (!device.connect(server, serverPort) || !device.handshake())
            return false;
        ++begun;
        while (!isOver && !hasNews(device.socket)) {
            device.write(numberedMessage(number, messages));
            if (!device.flush())
                return false;
            next();
        }
        if (!isOver)
            device.readToEnd();
        device.writeCloseNotify();
        return device.flush();
    }
    // Nobody waits for this: it only keeps a test from millions of messages.
    void next()
    {
        ++messages;
        QThread::usleep(100);
    }
    static bool hasNews(const NativeSocket &socket)
    {
        pollfd request{socket.descriptor(), POLLIN, 0};
        return ::poll(&request, 1, 0) != 0;
    }

    const int number;
    const QHostAddress server;
    const quint16 serverPort;
    const bool tls;
    std::atomic<int> messages = 0;
    std::atomic<int> begun = 0;
    std::atomic<bool> isOver = false;
    std::atomic<bool> failed = false;
    const std::unique_ptr<QThread> thread; // last: it uses all of the above
};
