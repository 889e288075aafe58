// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/peersinuse.h"

#include <QtTest/QTest>

using namespace Qt::StringLiterals;

namespace {

Acceptance from(const QString &address, quint16 port, bool isProxied, quint64 number = 0)
{
    Acceptance result;
    result.endpoints.peer = QHostAddress(address);
    result.endpoints.peerPort = port;
    result.isProxied = isProxied;
    result.number = number;
    return result;
}

} // namespace

class tst_PeersInUse : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void otherPeersShareNothing();
    void whoGetsANumber_data();
    void whoGetsANumber();
    void numberIsTheConnections();
    void numbersDiffer();
    void placeLastsAsLongAsAnyCopy();
    void placesOutliveTheServer();
};

void tst_PeersInUse::otherPeersShareNothing()
{
    PeersInUse peers;
    QList<Acceptance> all{from(u"10.0.0.1"_s, 1, true), from(u"10.0.0.1"_s, 2, true),
                          from(u"10.0.0.2"_s, 1, true), from(u"::ffff:10.0.0.1"_s, 1, true)};
    for (Acceptance &each : all) {
        peers.enter(each);
        QCOMPARE(each.endpoints.idNumber, 0U);
        QCOMPARE(each.places.size(), 1U);
    }
}

void tst_PeersInUse::whoGetsANumber_data()
{
    QTest::addColumn<bool>("first");
    QTest::addColumn<bool>("second");
    QTest::addColumn<bool>("numbered");
    QTest::newRow("both proxied") << true << true << true;
    QTest::newRow("the second proxied") << false << true << true;
    QTest::newRow("the first proxied") << true << false << true;
    QTest::newRow("a device that was reset and has come back") << false << false << false;
}

void tst_PeersInUse::whoGetsANumber()
{
    QFETCH(bool, first);
    QFETCH(bool, second);
    QFETCH(bool, numbered);
    PeersInUse peers;
    Acceptance one = from(u"10.0.0.1"_s, 1, first);
    Acceptance other = from(u"10.0.0.1"_s, 1, second);
    peers.enter(one);
    peers.enter(other);
    QCOMPARE(one.endpoints.idNumber, 0U);
    QCOMPARE(other.endpoints.idNumber != 0, numbered);
}

void tst_PeersInUse::numberIsTheConnections()
{
    PeersInUse peers;
    Acceptance one = from(u"10.0.0.1"_s, 1, true, 4711);
    Acceptance other = from(u"10.0.0.1"_s, 1, true, 4712);
    peers.enter(one);
    peers.enter(other);
    QCOMPARE(one.endpoints.idNumber, 0U);
    QCOMPARE(other.endpoints.idNumber, 4712U);
}

void tst_PeersInUse::numbersDiffer()
{
    PeersInUse peers;
    QList<Acceptance> all(100, from(u"10.0.0.1"_s, 1, true));
    QSet<quint64> numbers;
    for (Acceptance &each : all) {
        peers.enter(each);
        numbers.insert(each.endpoints.idNumber);
    }
    QCOMPARE(numbers.size(), all.size());
}

void tst_PeersInUse::placeLastsAsLongAsAnyCopy()
{
    PeersInUse peers;
    const auto isInUse = [&peers] {
        Acceptance probe = from(u"10.0.0.1"_s, 1, true);
        peers.enter(probe);
        return probe.endpoints.idNumber != 0;
    };
    std::optional<Acceptance> one = from(u"10.0.0.1"_s, 1, true);
    peers.enter(*one);
    std::optional<Acceptance> copy = one;
    QVERIFY(isInUse());
    one.reset();
    QVERIFY(isInUse());
    copy.reset();
    QVERIFY(!isInUse());
}

void tst_PeersInUse::placesOutliveTheServer()
{
    std::optional<PeersInUse> peers;
    peers.emplace();
    Acceptance one = from(u"10.0.0.1"_s, 1, true);
    peers->enter(one);
    peers.reset();
    one.places.clear(); // AddressSanitizer would report a use after free
}

QTEST_GUILESS_MAIN(tst_PeersInUse)
#include "tst_peersinuse.moc"
