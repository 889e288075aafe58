// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/play.h"
#include "tests/kit/proxyheaders.h"
#include "tests/kit/serving.h"
#include "tests/kit/tlsdevice.h"
#include "tests/kit/tlsengines.h"

#include <QtCore/QJsonArray>
#include <QtTest/QtTest>

// Addresses that only this process uses, like testAddress(): one of a proxy, one of another peer.
inline QHostAddress proxyAddress()
{
    return QHostAddress(testAddress().toIPv4Address() + (64U << 16U));
}
inline QHostAddress strangerAddress()
{
    return QHostAddress(testAddress().toIPv4Address() + (128U << 16U));
}

//! A connection to the plugin over TCP or TLS, which may begin with a header.
class ProxiedDevice
{
public:
    explicit ProxiedDevice(bool overTls)
        : tls(overTls ? std::make_unique<TlsDevice>(TLS1_3_VERSION) : nullptr)
    {}

    NativeSocket &socket() { return tls ? tls->socket : plain; }

    bool connect(quint16 port, const QHostAddress &from = proxyAddress())
    {
        socket() = NativeSocket::unconnected(testAddress());
        return socket().bind(from, 0) && socket().connect(testAddress(), port);
    }
    // Sends these bytes in one piece with the next ones.
    void sayFirst(const QByteArray &bytes)
    {
        if (tls)
            tls->sayFirst(bytes);
        else
            first = bytes;
    }
    // Does the TLS handshake first if needed. So the plugin's thread must be free to do its part.
    bool send(const QByteArray &bytes)
    {
        if (!tls)
            return plain.send(std::exchange(first, {}) + bytes);
        if (!tls->isEncrypted() && !tls->handshake())
            return false;
        tls->write(bytes);
        return tls->flush();
    }
    QString endpoint() // as in client ids
    {
        NativeAddress native;
        ::getsockname(socket().descriptor(), native.data(), &native.length);
        const QHostAddress address(native.data());
        return QStringLiteral("%1:%2").arg(address.toString()).arg(native.port());
    }

private:
    std::unique_ptr<TlsDevice> tls;
    NativeSocket plain;
    QByteArray first;
};

/*!
    The key "proxyProtocol" through the loaded library, over TCP and TLS.
*/
class ProxyTest : public QObject
{
protected:
    static void addTransports()
    {
        QTest::addColumn<bool>("tls");
        QTest::addColumn<QString>("engine");
        QTest::newRow("tcp") << false << QString();
        for (const char *engine : TlsEngines)
            QTest::addRow("tls, %s", engine) << true << QString::fromLatin1(engine);
    }
    void begin()
    {
        port = freePort();
        capture = std::make_unique<MessageCapture>();
    }
    void end()
    {
        plugin.reset();
        records.clear();
        log.clear();
        capture.reset();
    }

    static QJsonObject rule(QJsonObject more = {})
    {
        more.insert(QStringLiteral("from"), QJsonArray{proxyAddress().toString()});
        return {{QStringLiteral("proxyProtocol"), more}};
    }

    void start(QJsonObject config)
    {
        QFETCH_GLOBAL(bool, tls);
        const QJsonObject base = tcpConfig(port);
        for (auto entry = base.begin(); entry != base.end(); ++entry)
            config.insert(entry.key(), *entry);
        QFETCH_GLOBAL(QString, engine);
        if (tls)
            config.insert(QStringLiteral("ssl"), withEngine(serverTls(), engine));
        plugin = library.create(config);
        connect(plugin.get(), &IInputPlugin::receivedData, this,
                [this](const shared_parsedData &record) { records.append(record); });
        QVERIFY(plugin->start());
        QVERIFY(isListening(*plugin));
    }
    static ProxiedDevice newDevice()
    {
        QFETCH_GLOBAL(bool, tls);
        return ProxiedDevice(tls);
    }
    static bool send(ProxiedDevice &device, const QByteArray &bytes)
    {
        bool sent = false;
        return play([&] { sent = device.send(bytes); }) && sent;
    }
    bool connectAndSend(ProxiedDevice &device, const QByteArray &header, const QByteArray &bytes,
                        const QHostAddress &from = proxyAddress())
    {
        return device.connect(port, from) && (header.isEmpty() || device.socket().send(header))
                && send(device, bytes);
    }
    bool waitForRecords(qsizetype count)
    {
        return serveUntil([&] { return records.size() >= count; });
    }
    // The plugin's side has closed the connection.
    static bool waitForEnd(ProxiedDevice &device)
    {
        bool ended = false;
        return play([&] { ended = device.socket().ends(); }) && ended;
    }

    QString expectedId(const QString &peer) const
    {
        return QStringLiteral("tcp2:%1:%2-%3").arg(testAddress().toString()).arg(port).arg(peer);
    }
    QString idOf(qsizetype index) const
    {
        return records.at(index)->getPluginSubIdKey(QStringLiteral("client"));
    }
    // All log lines so far.
    QStringList lines() { return log += takeLog(); }
    QStringList warnings() { return lines().filter(QRegularExpression(QStringLiteral("^W: "))); }

    LoadedLibrary library;
    quint16 port = 0;
    std::unique_ptr<IInputPlugin> plugin;
    QList<shared_parsedData> records;

private:
    std::unique_ptr<MessageCapture> capture;
    QStringList log;
};
