// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/countersevent.h"
#include "tcpinput/accept/sslserver.h"
#include "tcpinput/tcpinputplugin2.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/play.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tlsdevice.h"
#include "tests/kit/tlsengines.h"

#include <QtCore/QJsonObject>
#include <QtTest/QtTest>

namespace tlsfaultstest {

inline QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

inline const QByteArray HalfHello("\x16\x03\x01\x02\x00\x01", 6);

/*!
    What peers whose TLS fails do to the plugin, and what they must not do.
*/
class TlsFaultsTest : public QObject
{
protected:
    // The rows of initTestCase_data().
    static void addEngines()
    {
        QTest::addColumn<QString>("engine");
        for (const char *engine : TlsEngines)
            QTest::newRow(engine) << text(engine);
    }
    void begin();
    void end();

    // more: keys of the configuration beside "ssl".
    void start(const QJsonObject &tls = serverTls(), const QJsonObject &more = {});
    SslServer &server() const { return *plugin->findChild<SslServer *>(); }
    // Open ones, and connections that no worker has yet.
    qsizetype handshakes() const
    {
        return static_cast<qsizetype>(CountersEvent::countersOf(*plugin)->waiting);
    }
    bool serve(int version, const QByteArray &bytes, const QString &certificate = QString());
    void keepLog() { log += takeLog(); }
    qsizetype logged(const QString &line)
    {
        keepLog();
        return log.filter(line).size();
    }
    qsizetype socketErrors() { return logged(text("W: TcpInputPlugin2(t): SSL Socket error: ")); }
    bool waitForRecord(const QByteArray &bytes)
    {
        return QTest::qWaitFor([&] { return records.contains(bytes); }, LoadHangGuardMs);
    }

    quint16 port = 0;
    std::unique_ptr<TcpInputPlugin2> plugin;
    double servedMs = 0; // how long the last good device took
    bool discards = true;
    QList<QByteArray> records;
    QStringList peers; // of the records
    std::unique_ptr<MessageCapture> capture;
    QStringList log;
};

inline void TlsFaultsTest::begin()
{
    port = freePort();
    capture = std::make_unique<MessageCapture>();
}

inline void TlsFaultsTest::end()
{
    plugin.reset();
    capture.reset();
    discards = true;
    records.clear();
    peers.clear();
    log.clear();
}

inline void TlsFaultsTest::start(const QJsonObject &tls, const QJsonObject &more)
{
    QFETCH_GLOBAL(QString, engine);
    QJsonObject configuration{{text("ipAddr"), testAddress().toString()},
                              {text("port"), port},
                              {text("ssl"), withEngine(tls, engine)},
                              {text("threadpoolSize"), 1},
                              {text("timeout"), 600}};
    for (auto key = more.begin(); key != more.end(); ++key)
        configuration.insert(key.key(), *key);
    plugin = std::make_unique<TcpInputPlugin2>(nullptr, configuration);
    plugin->pluginId = text("t");
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this, host = plugin.get()](const shared_parsedData &record) {
                records.append(record->getOriginalMessage());
                peers.append(record->getPeerAddress());
                if (discards)
                    host->discard(static_cast<int>(record->getOriginalMessage().size()),
                                  record->getPluginSubId());
            });
    QVERIFY(plugin->start());
    QVERIFY(server().isListening());
}

// Plays a good device from beginning to end.
inline bool TlsFaultsTest::serve(int version, const QByteArray &bytes, const QString &certificate)
{
    bool ended = false;
    return play([&] {
               QElapsedTimer clock;
               clock.start();
               TlsDevice device(version, certificate);
               if (!device.connect(testAddress(), port) || !device.handshake())
                   return;
               device.write(bytes);
               device.writeCloseNotify();
               device.flush();
               device.socket.finish();
               ended = device.waitForEnd();
               servedMs = static_cast<double>(clock.nsecsElapsed()) / 1e6;
           })
            && ended && waitForRecord(bytes);
}

} // namespace tlsfaultstest
