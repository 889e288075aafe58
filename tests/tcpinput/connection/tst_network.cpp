// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/connection/network.h"

#include <QtTest/QTest>

using namespace Qt::StringLiterals;

class tst_Network : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void contains_data();
    void contains();
    void refuses_data();
    void refuses();
};

void tst_Network::contains_data()
{
    QTest::addColumn<QString>("network");
    QTest::addColumn<QString>("address");
    QTest::addColumn<bool>("contained");
    const auto row = [](const QString &network, const QString &address, bool contained) {
        QTest::addRow("%s, %s", qPrintable(network), qPrintable(address))
                << network << address << contained;
    };
    row(u"10.0.0.0/8"_s, u"10.255.1.2"_s, true);
    row(u"10.0.0.0/8"_s, u"11.0.0.0"_s, false);
    row(u"10.1.2.3/8"_s, u"10.255.1.2"_s, true);
    row(u"192.168.4.0/22"_s, u"192.168.7.255"_s, true);
    row(u"192.168.4.0/22"_s, u"192.168.8.0"_s, false);
    row(u"127.0.0.1"_s, u"127.0.0.1"_s, true);
    row(u"127.0.0.1"_s, u"127.0.0.2"_s, false);
    row(u"127.0.0.1/32"_s, u"127.0.0.2"_s, false);
    row(u"0.0.0.0/0"_s, u"203.0.113.7"_s, true);
    row(u"0.0.0.0/0"_s, u"::1"_s, false);
    row(u"::/0"_s, u"2001:db8::1"_s, true);
    row(u"::/0"_s, u"1.2.3.4"_s, false);
    row(u"fd00::/8"_s, u"fdff::1"_s, true);
    row(u"fd00::/8"_s, u"fe00::1"_s, false);
    row(u"::1"_s, u"::1"_s, true);
    row(u"::1"_s, u"::2"_s, false);
    row(u"2001:db8::/127"_s, u"2001:db8::1"_s, true);
    row(u"2001:db8::/127"_s, u"2001:db8::2"_s, false);
    row(u"fe80::/10"_s, u"fe80::1%lo"_s, true);
    // The form in which a server on "::" shows its IPv4 peers.
    row(u"10.0.0.0/8"_s, u"::ffff:10.1.2.3"_s, true);
    row(u"10.0.0.0/8"_s, u"::ffff:11.1.2.3"_s, false);
    row(u"::ffff:10.0.0.0/104"_s, u"10.1.2.3"_s, true);
    row(u"::ffff:10.0.0.0/104"_s, u"::ffff:10.1.2.3"_s, true);
    row(u"::ffff:10.0.0.0/104"_s, u"11.1.2.3"_s, false);
    row(u"10.0.0.0/8"_s, QString(), false);
}

void tst_Network::contains()
{
    QFETCH(QString, network);
    QFETCH(QString, address);
    QFETCH(bool, contained);
    const auto read = Network::from(network);
    QVERIFY(read);
    QCOMPARE(read->contains(QHostAddress(address)), contained);
}

void tst_Network::refuses_data()
{
    QTest::addColumn<QString>("text");
    for (const char *text :
         {"", "/", "/8", "10", "10/8", "10.0/16", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/-1",
          "10.0.0.0/+8", "10.0.0.0/ 8", "10.0.0.0/8/8", "10.0.0.0/255.0.0.0", "10.0.0.256",
          "::/129", "fe80::1%lo", "localhost", "any"})
        QTest::addRow("'%s'", text) << QString::fromLatin1(text);
}

void tst_Network::refuses()
{
    QFETCH(QString, text);
    QVERIFY(!Network::from(text));
}

QTEST_GUILESS_MAIN(tst_Network)
#include "tst_network.moc"
