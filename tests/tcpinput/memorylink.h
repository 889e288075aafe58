// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/memorysocket.h"
#include "tests/tcpinput/clientlink.h"

#include <QtCore/QPointer>

#include <limits>

//! A link without a connection; see MemorySocket.
class MemoryLink final : public ClientLink
{
public:
    MemoryLink()
        : ClientLink({QHostAddress(QStringLiteral("10.1.2.3")),
                      QHostAddress(QStringLiteral("192.168.0.10")), 40001, 5000})
    {}

    QTcpSocket *socket() const override { return memory; }

    const std::vector<int> &sizes() const override
    {
        static const std::vector<int> all = {1,   2,    3,    19,   20,    21,    22,
                                             40,  60,   79,   80,   81,    82,    100,
                                             999, 1000, 1001, 4096, 16384, 16385, 70000};
        return all;
    }
    qsizetype room() const override { return std::numeric_limits<qsizetype>::max(); }
    bool arrive(const QByteArray &bytes) override
    {
        memory->arrive(bytes);
        return true;
    }
    void end(Choices &) override { memory->arriveEnd(); }

    QByteArray unread() const override { return memory ? memory->unread() : QByteArray(); }
    QByteArray nextRead() const override { return unread(); }

    bool turn() override { return memory->notify(); }
    bool turnMakesCalls() const override { return false; }
    bool look() override
    {
        memory->takeIn();
        Q_EMIT memory->readyRead();
        return true;
    }
    void holdBack() override { memory->takeIn(); }

private:
    const QPointer<MemorySocket> memory = new MemorySocket(endpoints); // the client's
};
