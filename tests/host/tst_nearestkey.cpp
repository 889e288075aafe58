// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/check/nearestkey.h"

#include <QtTest/QtTest>

using namespace host;

class tst_NearestKey : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void guesses_data();
    void guesses();
};

void tst_NearestKey::guesses_data()
{
    QTest::addColumn<QString>("unknown");
    QTest::addColumn<QString>("meant");
    const auto row = [](const char *unknown, const char *meant) {
        QTest::newRow(*unknown ? unknown : "empty")
                << QString::fromUtf8(unknown) << QString::fromUtf8(meant);
    };
    row("Port", "port");
    row("prot", ""); // two of four letters
    row("ipaddr", "ipAddr");
    row("timeOut", "timeout");
    row("proxyProtocol.timeOut", "proxyProtocol.timeout");
    row("threadPoolSize", "threadpoolSize");
    row("threadpoolsise", "threadpoolSize");
    row("tls", "ssl");
    row("ssl.certfile", "ssl.CertFile");
    row("CertFile", "ssl.CertFile");
    row("limits.port", "port");
    row("maxConections", "limits.maxConnections");
    row("colour", "");
    row("", "");
    row("\xc3\xa4", "");
}

void tst_NearestKey::guesses()
{
    QFETCH(QString, unknown);
    QTEST(nearestKey(unknown), "meant");
}

QTEST_GUILESS_MAIN(tst_NearestKey)
#include "tst_nearestkey.moc"
