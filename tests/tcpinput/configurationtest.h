// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/tcpinputplugin2.h"
#include "tests/kit/loglines.h"
#include "tests/kit/testaddress.h"

#include <QtTest/QTest>

#include <optional>

namespace configurationtest {

using namespace Qt::StringLiterals;

inline const QString FirstStatus = u"Listen: :0, timeout: 60s, pool size: 4\r\n"_s;
inline const QString ReadingLine = u"D: SSL: Reading SSL config"_s;

// The lines of a start() with plain TCP, or with TLS.
inline QStringList startLines(const QString &address, int port, const QString &kind = u"TCP"_s)
{
    const QString number = QString::number(port);
    return {u"D: TcpInputPlugin2(cfg): Listening on "_s + address + u':' + number,
            u"I: TcpInputPlugin2(cfg): Starting "_s + kind + u" server on port "_s + number};
}

inline QStringList tlsStartLines(const QString &address, int port)
{
    return QStringList{ReadingLine} + startLines(address, port, u"SSL"_s);
}

inline QString statusLine(const QString &address, int port, int seconds = 60, int poolSize = 4)
{
    return u"Listen: %1:%2, timeout: %3s, pool size: %4\r\n"_s.arg(address)
            .arg(port)
            .arg(seconds)
            .arg(poolSize);
}

//! A plugin that says what start() has done.
class Plugin : public TcpInputPlugin2
{
public:
    explicit Plugin(const QJsonObject &object) : TcpInputPlugin2(nullptr, object)
    {
        pluginId = u"cfg"_s;
    }

    QStringList startLog(bool expected = true)
    {
        takeLog();
        const bool started = start();
        QStringList lines = takeLog();
        if (started != expected)
            lines.append(started ? u"start() returned true"_s : u"start() returned false"_s);
        return lines;
    }

    TcpServer &plainServer() { return *findChild<TcpServer *>(); }
    SslServer &tlsServer() { return *findChild<SslServer *>(); }
};

inline QJsonObject with(QJsonObject object, const QString &key, const QJsonValue &value)
{
    object.insert(key, value);
    return object;
}

// The lines that start() logs show most of the configuration.
class ConfigurationTest : public QObject
{
protected:
    void begin();
    void end();

    QJsonObject own() const { return {{u"ipAddr"_s, address.toString()}}; }
    QJsonObject ownWithPort() const { return with(own(), u"port"_s, freePort(address)); }

    const QHostAddress address = testAddress();
    std::optional<MessageCapture> capture;
};

inline void ConfigurationTest::begin()
{
    capture.emplace();
}

// Each test has taken the lines that it expects; no others may be left.
inline void ConfigurationTest::end()
{
    const QStringList rest = takeLog();
    capture.reset();
    QCOMPARE(rest, QStringList());
}

} // namespace configurationtest
