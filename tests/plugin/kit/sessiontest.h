// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/inputsession.h"
#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/testaddress.h"

#include <QtCore/QMap>
#include <QtNetwork/QSslSocket>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

#include <memory>

namespace sessiontest {

using namespace inputkit;

inline InputSettings settingsFor(const InputHandlers &handlers)
{
    InputSettings settings;
    settings.handlers = handlers;
    settings.library = QStringLiteral(PLUGIN_FILE);
    settings.pluginId = QStringLiteral("t");
    return settings;
}

inline QJsonObject configurationOf(quint16 port, bool useTls = false)
{
    QJsonObject configuration = {{QStringLiteral("ipAddr"), testAddress().toString()},
                                 {QStringLiteral("port"), port}};
    if (useTls)
        configuration.insert(QStringLiteral("ssl"), serverTls());
    return configuration;
}

//! A device that is connected to the session.
inline std::unique_ptr<QTcpSocket> connectTo(const InputSession &session, bool useTls = false)
{
    const auto port = static_cast<quint16>(session.port());
    if (!useTls) {
        auto socket = std::make_unique<QTcpSocket>();
        socket->connectToHost(session.address(), port);
        return socket->waitForConnected(HangGuardMs) ? std::move(socket) : nullptr;
    }
    auto socket = std::make_unique<QSslSocket>();
    socket->setPeerVerifyMode(QSslSocket::VerifyNone);
    socket->connectToHostEncrypted(session.address(), port);
    return QTest::qWaitFor([&] { return socket->isEncrypted(); }, HangGuardMs) ? std::move(socket)
                                                                               : nullptr;
}

//! What a session has handed out.
struct Log
{
    QMap<quint64, QByteArrayList> messages; // by connection
    QMap<quint64, quint64> ends; // of the last message; by connection
    QStringList over; // reasons, in their order
    int count = 0;
    bool gaps = false; // a message did not begin where the one before ended

    InputHandlers handlers()
    {
        InputHandlers result;
        result.message = [this](const InputMessage &message) { add(message); };
        result.end = [this](const InputEnd &end) { over += end.reason; };
        return result;
    }

    void add(const InputMessage &message)
    {
        const quint64 connection = message.origin.connection;
        gaps = gaps || message.position != ends.value(connection, 0);
        ends[connection] = message.end;
        messages[connection] += message.partial ? "(" + message.bytes.toByteArray() + ")"
                                                : message.bytes.toByteArray();
        ++count;
    }
    QByteArrayList all() const
    {
        QByteArrayList result;
        for (const QByteArrayList &each : messages)
            result += each;
        return result;
    }
};

inline QByteArray numberedLines(const QByteArray &name, int first, int count)
{
    QByteArray result;
    for (int n = first; n < first + count; ++n)
        result += name + ' ' + QByteArray::number(n) + '\n';
    return result;
}

} // namespace sessiontest
