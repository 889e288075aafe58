// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/counters.h"
#include "plugin/kit/listenstatus.h"

#include <QtTest/QtTest>

using namespace host;

//! What the host reads in the plugin's status text, and the host's own counters line.
class tst_HostTexts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void listenStatus_data();
    void listenStatus();
    void countersLine();
    void connectionsAreCountedOnce();
    void connectionsTakeBoundedMemory();
};

void tst_HostTexts::listenStatus_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("address");
    QTest::addColumn<int>("port");
    QTest::addColumn<qint64>("timeout");

    QTest::newRow("IPv4") << "Listen: 0.0.0.0:7446, timeout: 60s, pool size: 4\r\n"
                          << "0.0.0.0" << 7446 << qint64(60);
    QTest::newRow("IPv6") << "Listen: ::1:65534, timeout: 1s, pool size: 4\r\n"
                          << "::1" << 65534 << qint64(1);
    QTest::newRow("any IPv6") << "Listen: :::1, timeout: 1s, pool size: 4\r\n"
                              << "::" << 1 << qint64(1);
    QTest::newRow("with clients") << "Listen: 1.2.3.4:5, timeout: 2147483s, pool size: 1\r\n"
                                     "   tcp2:1.2.3.4:5-6.7.8.9:10\r\n      (empty 0)\r\n"
                                  << "1.2.3.4" << 5 << qint64(2147483);
    QTest::newRow("not listening") << "Listen: :0, timeout: 60s, pool size: 4\r\n"
                                   << "" << 0 << qint64(60);
    QTest::newRow("empty") << ""
                           << "" << 0 << qint64(0);
    QTest::newRow("other text") << "Status: fine\r\n"
                                << "" << 0 << qint64(0);
}

void tst_HostTexts::listenStatus()
{
    QFETCH(QString, text);
    QFETCH(int, port);
    const auto status = inputkit::ListenStatus::parse(text);
    QTEST(status.address, "address");
    QCOMPARE(status.port, port);
    QTEST(status.timeoutSeconds, "timeout");
    QCOMPARE(status.isListening(), port != 0);
}

void tst_HostTexts::countersLine()
{
    Counters counters;
    QCOMPARE(counters.line(), QStringLiteral("messages 0 bytes 0 connections 0"));
    counters.messages = 1;
    counters.bytes = 2;
    counters.addConnection(u"a");
    counters.partial = 3;
    counters.tooLong = 4;
    counters.offers = 5;
    QCOMPARE(counters.line(), QStringLiteral("messages 1 bytes 2 connections 1"));
    QCOMPARE(counters.longLine(),
             QStringLiteral("messages 1 bytes 2 connections 1 partial 3 "
                            "too-long 4 offers 5"));
}

void tst_HostTexts::connectionsAreCountedOnce()
{
    Counters counters;
    for (int round = 0; round < 2; ++round) {
        for (int n = 0; n < 10000; ++n)
            counters.addConnection(QStringLiteral("tcp2:127.0.0.1:7446-127.0.0.1:%1").arg(n));
    }
    QCOMPARE(counters.connections(), 10000);
}

void tst_HostTexts::connectionsTakeBoundedMemory()
{
    Counters counters;
    for (int n = 0; n < 1000001; ++n)
        counters.addConnection(QString::number(n));
    QCOMPARE(counters.connections(), 1000001);
    // The first id has been forgotten, so it counts again.
    counters.addConnection(u"0");
    QCOMPARE(counters.connections(), 1000002);
}

QTEST_GUILESS_MAIN(tst_HostTexts)
#include "tst_hosttexts.moc"
