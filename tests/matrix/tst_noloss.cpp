// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "oracle.h"
#include "round.h"
#include "stream.h"

#include <QtTest/QtTest>

namespace {

constexpr int Messages = 10;
constexpr qsizetype Size = Stream::MessageBytes;

// The whole stream is offered, parsed and consumed in one piece.
void takeAll(Oracle &oracle, const QByteArray &stream)
{
    oracle.offered(0, stream);
    oracle.parsed(0, stream.size());
    for (qsizetype begin = 0; begin < stream.size(); begin += Size)
        oracle.consumed(begin, QByteArrayView(stream).sliced(begin, Size));
}

} // namespace

/*!
    A short form of the no-loss matrix, with fewer and smaller rounds than the program noloss plays.
    Also tests that the oracle finds each kind of error.
*/
class tst_NoLoss : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void oracleAcceptsWhatIsRight();
    void oracleNoticesLoss();
    void oracleNoticesDisorder();
    void oracleNoticesRepeats();

    void round_data();
    void round();

private:
    const QByteArray stream = Stream::messages(7, Messages);
};

void tst_NoLoss::oracleAcceptsWhatIsRight()
{
    Oracle oracle(stream);
    oracle.offered(0, QByteArrayView(stream).first(3 * Size + 1));
    takeAll(oracle, stream);
    QCOMPARE(oracle.missing(stream.size()), 0);
    QCOMPARE(oracle.outOfOrder(), 0);
    QCOMPARE(oracle.repeated(), 0);
    QCOMPARE(oracle.positionOf(QByteArrayView(stream).sliced(4 * Size)), 4 * Size);
    QCOMPARE(oracle.positionOf(QByteArrayView(stream).first(5)), stream.size()); // all consumed
}

void tst_NoLoss::oracleNoticesLoss()
{
    Oracle end(stream);
    end.offered(0, QByteArrayView(stream).chopped(1));
    QCOMPARE(end.missing(stream.size()), 1);
    QCOMPARE(end.missing(stream.size() - 1), 0);

    Oracle middle(stream);
    middle.offered(0, QByteArrayView(stream).first(2 * Size));
    middle.offered(3 * Size, QByteArrayView(stream).sliced(3 * Size));
    QCOMPARE(middle.missing(stream.size()), Size);
    QCOMPARE(middle.outOfOrder(), 0);
}

void tst_NoLoss::oracleNoticesDisorder()
{
    QByteArray swapped = stream;
    std::swap(swapped[2 * Size - 1], swapped[2 * Size]); // bytes of two messages
    Oracle oracle(stream);
    takeAll(oracle, swapped);
    // Nothing counts as offered from the first wrong byte on. Neither message is intact.
    QCOMPARE(oracle.outOfOrder(), (stream.size() - 2 * Size + 1) + 2 * Size);
    QCOMPARE(oracle.missing(stream.size()), stream.size() - 2 * Size + 1);
}

void tst_NoLoss::oracleNoticesRepeats()
{
    Oracle oracle(stream);
    takeAll(oracle, stream);
    oracle.offered(2 * Size, QByteArrayView(stream).sliced(2 * Size));
    oracle.parsed(2 * Size, stream.size() - 2 * Size);
    QCOMPARE(oracle.repeated(), stream.size() - 2 * Size);
    QCOMPARE(oracle.missing(stream.size()), 0);
}

void tst_NoLoss::round_data()
{
    QTest::addColumn<Ending>("ending");
    QTest::addColumn<Transport>("transport");
    QTest::addColumn<Keys>("keys");
    // Each ending with and without TLS, with plain and exact hosts by turns. The idle time-out is
    // slow, so it is played here only with TLS.
    bool exact = false;
    for (const auto &ending : Endings) {
        for (const auto &transport : Transports) {
            if (!exists(ending.value, transport.value) || transport.value == Transport::Tls12
                || (ending.value == Ending::IdleTimeout && transport.value == Transport::Tcp))
                continue;
            exact = !exact;
            const auto &keys = KeySets[exact ? 1 : 0];
            QTest::addRow("%s, %s, %s", ending.name, transport.name, keys.name)
                    << ending.value << transport.value << keys.value;
        }
    }
    QTest::addRow("close_notify alone, TLS 1.2, exact host")
            << Ending::NotifyAlone << Transport::Tls12 << Keys::Offsets;
    QTest::addRow("plugin destroyed, TLS 1.2, plain host")
            << Ending::Destroyed << Transport::Tls12 << Keys::None;
    // Each ending with all keys, either with or without TLS.
    for (const auto &ending : Endings) {
        const auto &transport = Transports[exists(ending.value, Transport::Tcp) ? 0 : 2];
        QTest::addRow("%s, %s, all keys", ending.name, transport.name)
                << ending.value << transport.value << Keys::All;
    }
    QTest::addRow("close at once, TLS 1.3, all keys")
            << Ending::CloseAtOnce << Transport::Tls13 << Keys::All;
    QTest::addRow("plugin destroyed, TLS 1.3, all keys")
            << Ending::Destroyed << Transport::Tls13 << Keys::All;
}

void tst_NoLoss::round()
{
    RoundPlan plan;
    plan.wholeMessages = 500;
    QFETCH(Ending, ending);
    plan.ending = ending;
    QFETCH(Transport, transport);
    plan.transport = transport;
    QFETCH(Keys, keys);
    plan.keys = keys;

    const QList<CellResult> results = playRound(plan);
    QCOMPARE(results.size(), 12);
    CellResult total = results.first();
    for (const CellResult &result : results.sliced(1))
        total.add(result);
    QCOMPARE(total.connections, 12);
    QCOMPARE(total.failed, 0);
    QCOMPARE(total.missing, 0);
    QCOMPARE(total.outOfOrder, 0);
    QCOMPARE(total.wrongEnds, 0);
    if (keys != Keys::None)
        QCOMPARE(total.repeated, 0);
    QVERIFY(total.accepted > 0);
}

QTEST_GUILESS_MAIN(tst_NoLoss)
#include "tst_noloss.moc"
