// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/tcpinputplugin2.h"
#include "tcpinput/tcptask2.h"
#include "tcpinput/workers/threadid.h"
#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/play.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tlsdevice.h"

#include <QtCore/QRegularExpression>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <optional>

namespace plugintest {

using namespace Qt::StringLiterals;

using SubIdMap = QMap<QString, QString>;

inline const QString ThreadLine = u"D: TcpInputPlugin2(p): Creating new TCP Thread"_s;
inline const QString TaskLine = u"I: TcpInputPlugin2(p): Creating new TcpTask2"_s;

inline QString newConnectionLine()
{
    return u"D: TcpInputPlugin2(p): new connection, %1"_s.arg(currentThreadNumber());
}

inline QString reportLine(int threads, int tasks)
{
    return u"D: TcpInputPlugin2 p: #threads = %1, #tasks = %2"_s.arg(threads).arg(tasks);
}

//! What a host gets from its plugin, and what it answers.
struct Host
{
    QList<shared_parsedData> records;
    QStringList queries;
    QStringList answer;
};

//! A plugin with the id "p" on a port of its own. The host outlives it, and gets its last records.
class Plugin : public Host, public TcpInputPlugin2
{
public:
    explicit Plugin(const QJsonObject &settings = {}, const QHostAddress &at = testAddress())
        : TcpInputPlugin2(nullptr),
          address(at),
          port(freePort(at))
    {
        pluginId = u"p"_s;
        configure(settings);
        connect(this, &IInputPlugin::receivedData, this,
                [this](const shared_parsedData &record) { records.append(record); });
        connect(this, &IInputPlugin::query, this, [this](const QString &q) {
            queries.append(q);
            return answer;
        });
    }

    void configure(QJsonObject settings)
    {
        settings.insert(u"ipAddr"_s, address.toString());
        settings.insert(u"port"_s, port);
        setConfig(settings);
    }

    NativeSocket connectDevice() const { return NativeSocket::connectedTo(address, port); }

    // The record that offers exactly these bytes; null if none has come in time.
    shared_parsedData recordOf(const QByteArray &bytes)
    {
        shared_parsedData found;
        (void)QTest::qWaitFor(
                [&] {
                    for (const shared_parsedData &record : std::as_const(records)) {
                        if (record->getOriginalMessage() == bytes)
                            found = record;
                    }
                    return !found.isNull();
                },
                HangGuardMs);
        return found;
    }

    // The number of the task whose record has these bytes; empty if none has come in time.
    QString taskOf(const QByteArray &bytes)
    {
        const auto record = recordOf(bytes);
        return record ? record->getPluginSubId().value(u"task"_s) : QString();
    }

    QStringList threadNames()
    {
        QStringList names;
        for (const QThread *thread : workers().allThreads())
            names.append(thread->objectName());
        return names;
    }

    const QHostAddress address;
    const quint16 port;
};

// All calls that were queued to the task before have run when this returns.
inline void passQueueOf(TcpTask2 *task)
{
    QMetaObject::invokeMethod(
            task, [] {}, Qt::BlockingQueuedConnection);
}

inline long threadNumberOf(TcpTask2 *task)
{
    long number = 0;
    QMetaObject::invokeMethod(
            task, [&number] { number = currentThreadNumber(); }, Qt::BlockingQueuedConnection);
    return number;
}

// Plays a TLS device while this thread, the plugin's, serves. False if the handshake fails. With
// TLS 1.3 the handshake also succeeds for a device whose certificate is refused afterwards.
inline bool sendOverTls(TlsDevice &device, const Plugin &plugin, const QByteArray &bytes)
{
    bool sent = false;
    const bool played = play([&] {
        if (!device.connect(plugin.address, plugin.port) || !device.handshake())
            return;
        device.write(bytes);
        sent = device.flush();
    });
    return played && sent;
}

inline QJsonObject poolOf(int size)
{
    return {{u"threadpoolSize"_s, size}};
}

inline QJsonObject withTls(QJsonObject object, const QJsonObject &tls = serverTls())
{
    object.insert(u"ssl"_s, tls);
    return object;
}

// Each test has a log of its own.
class PluginTest : public QObject
{
protected:
    void begin();
    void end();

    std::optional<MessageCapture> capture;
};

inline void PluginTest::begin()
{
    capture.emplace();
}

// Fails if lines are left that the test has not taken: warnings, or lines of Qt.
inline void PluginTest::end()
{
    const QStringList rest = takeLog();
    capture.reset();
    const QStringList unexpected = rest.filter(QRegularExpression(u"^[^DI]"_s));
    QVERIFY2(unexpected.isEmpty(), qPrintable(unexpected.join(u'\n')));
}

} // namespace plugintest
