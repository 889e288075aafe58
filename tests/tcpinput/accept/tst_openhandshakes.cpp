// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/openhandshakes.h"

#include <QtCore/QSet>
#include <QtTest/QTest>

#include <map>

// Which of the open handshakes goes first when there are too many.
class tst_OpenHandshakes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void noneGoesOfNone();
    void oldestGoesFirst();
    void progressIsFollowed();
    void addressWithMostLoses();
    void oldestOfEqualAddresses();
    void sparedOnesStay();
    void addressWithMostThatWaitLoses();
    void addressOfTheOldestIsSpared();
    void sparedOnesMoveOnAndLeave();
    void sparedOnesDoNotCount_data();
    void sparedOnesDoNotCount();
    void addressesThatCountAsOne_data();
    void addressesThatCountAsOne();
    void leaving();

private:
    void enter(const char *address, char name)
    {
        const QHostAddress peer(QString::fromLatin1(address));
        places.emplace(name, open.enter(peer, name));
    }
    void leave(char name) { open.leave(places.extract(name).mapped()); }
    // Those that go, in their order; all but the spared ones.
    QByteArray order(const QSet<char> &spared = {})
    {
        QByteArray names;
        const auto isSpared = [&](char name) { return spared.contains(name); };
        for (auto left = open.excess(0, isSpared); left > 0; --left) {
            const std::optional<char> first = open.goesFirst();
            if (!first)
                return "nobody goes";
            names += *first;
            leave(*first);
        }
        return names;
    }

    OpenHandshakes<char> open;
    std::map<char, OpenHandshakes<char>::Place> places;
};

void tst_OpenHandshakes::init()
{
    open = {};
    places.clear();
}

void tst_OpenHandshakes::noneGoesOfNone()
{
    QCOMPARE(open.size(), 0);
    QVERIFY(!open.goesFirst());
}

void tst_OpenHandshakes::oldestGoesFirst()
{
    for (const char name : {'a', 'b', 'c'})
        enter("10.0.0.1", name);
    QCOMPARE(open.size(), 3);
    QCOMPARE(order(), QByteArray("abc"));
    QCOMPARE(open.size(), 0);
}

void tst_OpenHandshakes::progressIsFollowed()
{
    for (const char name : {'a', 'b', 'c', 'd'})
        enter("10.0.0.1", name);
    open.moveOn(places.at('b'));
    open.moveOn(places.at('a'));
    open.moveOn(places.at('a')); // the last one already
    QCOMPARE(order(), QByteArray("cdba"));
}

void tst_OpenHandshakes::addressWithMostLoses()
{
    enter("10.0.0.1", 'a');
    for (const char name : {'b', 'c', 'd'})
        enter("10.0.0.2", name);
    enter("10.0.0.1", 'e');
    // When both have two, the oldest of all is "a"; and so with one each.
    QCOMPARE(order(), QByteArray("bacde"));
}

void tst_OpenHandshakes::oldestOfEqualAddresses()
{
    enter("10.0.0.1", 'a');
    enter("10.0.0.2", 'b');
    enter("10.0.0.3", 'c');
    open.moveOn(places.at('a'));
    QCOMPARE(order(), QByteArray("bca"));
}

void tst_OpenHandshakes::sparedOnesStay()
{
    for (const char name : {'a', 'b', 'c', 'd'})
        enter("10.0.0.1", name);
    QCOMPARE(order({'a', 'c'}), QByteArray("bd"));
    QCOMPARE(open.size(), 2);
    QCOMPARE(order(), QByteArray("ac"));
}

// An address whose handshakes are served loses none for them, and shields no other address: there
// would be no room for a device otherwise.
void tst_OpenHandshakes::addressWithMostThatWaitLoses()
{
    for (const char name : {'a', 'b', 'c'})
        enter("10.0.0.1", name);
    for (const char name : {'d', 'e'})
        enter("10.0.0.2", name);
    QCOMPARE(order({'a', 'b'}), QByteArray("dce"));
}

void tst_OpenHandshakes::addressOfTheOldestIsSpared()
{
    enter("10.0.0.1", 'a');
    enter("10.0.0.2", 'b');
    enter("10.0.0.3", 'c');
    QCOMPARE(order({'a'}), QByteArray("bc"));
}

void tst_OpenHandshakes::sparedOnesMoveOnAndLeave()
{
    for (const char name : {'a', 'b', 'c', 'd'})
        enter("10.0.0.1", name);
    QCOMPARE(open.excess(0, [](char name) { return name != 'c'; }), 1);
    open.moveOn(places.at('a'));
    leave('b');
    QCOMPARE(open.size(), 3);
    QVERIFY(open.goesFirst() == 'c');
    QCOMPARE(order(), QByteArray("cda"));
    QCOMPARE(open.size(), 0);
}

void tst_OpenHandshakes::sparedOnesDoNotCount_data()
{
    QTest::addColumn<QByteArray>("spared");
    QTest::addColumn<int>("most");
    QTest::addColumn<int>("excess");
    QTest::newRow("as many as may be") << QByteArray() << 5 << 0;
    QTest::newRow("less") << QByteArray() << 6 << 0;
    QTest::newRow("more") << QByteArray() << 3 << 2;
    QTest::newRow("some of them are spared") << QByteArray("b") << 3 << 1;
    QTest::newRow("as many of them") << QByteArray("ae") << 3 << 0;
    QTest::newRow("more of them") << QByteArray("abe") << 3 << 0;
    QTest::newRow("all of them") << QByteArray("abcde") << 3 << 0;
}

void tst_OpenHandshakes::sparedOnesDoNotCount()
{
    QFETCH(QByteArray, spared);
    QFETCH(int, most);
    for (const char name : {'a', 'b', 'c'})
        enter("10.0.0.1", name);
    for (const char name : {'d', 'e'})
        enter("10.0.0.2", name);
    const auto isSpared = [&](char name) { return spared.contains(name); };
    QTEST(int(open.excess(most, isSpared)), "excess");
}

void tst_OpenHandshakes::addressesThatCountAsOne_data()
{
    QTest::addColumn<QByteArray>("one");
    QTest::addColumn<QByteArray>("other");
    QTest::addColumn<bool>("same");
    const auto row = [](const char *one, const char *other, bool same) {
        QTest::addRow("%s and %s", one, other) << QByteArray(one) << QByteArray(other) << same;
    };
    row("10.0.0.1", "10.0.0.1", true);
    row("10.0.0.1", "10.0.0.2", false);
    row("10.0.0.1", "::ffff:10.0.0.1", true);
    row("2001:db8:0:1::1", "2001:db8:0:1:ffff::2", true);
    row("2001:db8:0:1::1", "2001:db8:0:2::1", false);
    row("2001:db8::1", "10.0.0.1", false);
}

void tst_OpenHandshakes::addressesThatCountAsOne()
{
    QFETCH(QByteArray, one);
    QFETCH(QByteArray, other);
    QFETCH(bool, same);
    enter("192.0.2.1", 'a');
    enter("192.0.2.1", 'b');
    enter(one, 'c');
    enter(one, 'd');
    enter(other, 'e');
    QCOMPARE(order().front(), same ? 'c' : 'a');
}

void tst_OpenHandshakes::leaving()
{
    for (const char name : {'a', 'b', 'c', 'd'})
        enter("10.0.0.1", name);
    enter("10.0.0.2", 'e');
    leave('a');
    leave('c');
    leave('e');
    QCOMPARE(open.size(), 2);
    enter("10.0.0.2", 'f');
    QCOMPARE(order(), QByteArray("bdf"));
}

QTEST_APPLESS_MAIN(tst_OpenHandshakes)
#include "tst_openhandshakes.moc"
