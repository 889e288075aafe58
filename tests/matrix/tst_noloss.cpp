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
    QTest::addColumn<QString>("engine");
    QTest::addColumn<Keys>("keys");
    const auto add = [](const auto &ending, const auto &transport, const QString &engine,
                        const auto &keys) {
        QTest::addRow("%s, %s %s, %s", ending.name, transport.name, qPrintable(engine), keys.name)
                << ending.value << transport.value << engine << keys.value;
    };
    // Each ending with TCP and with each engine, with plain and exact hosts by turns. The idle
    // time-out is slow, so it is played here only once, with TLS.
    bool exact = true;
    for (const auto &ending : Endings) {
        for (const auto &transport : Transports) {
            if (!exists(ending.value, transport.value) || transport.value == Transport::Tls12
                || (ending.value == Ending::IdleTimeout && transport.value == Transport::Tcp))
                continue;
            for (const QString &engine : enginesOf(transport.value)) {
                if (ending.value == Ending::IdleTimeout && engine != enginesOf(transport.value)[0])
                    continue;
                exact = !exact;
                add(ending, transport, engine, KeySets[exact ? 1 : 0]);
            }
        }
    }
    for (const QString &engine : enginesOf(Transport::Tls12)) {
        add(Endings[int(Ending::NotifyAlone)], Transports[1], engine, KeySets[1]);
        add(Endings[int(Ending::Destroyed)], Transports[1], engine, KeySets[0]);
    }
    // Each ending with all keys, either with or without TLS. The engines take turns.
    auto addWithAllKeys = [&add, turn = 0](const auto &ending, const auto &transport) mutable {
        const QStringList engines = enginesOf(transport.value);
        add(ending, transport, engines[turn++ % engines.size()], KeySets[2]);
    };
    for (const auto &ending : Endings)
        addWithAllKeys(ending, Transports[exists(ending.value, Transport::Tcp) ? 0 : 2]);
    addWithAllKeys(Endings[int(Ending::CloseAtOnce)], Transports[2]);
    addWithAllKeys(Endings[int(Ending::Destroyed)], Transports[2]);
}

void tst_NoLoss::round()
{
    RoundPlan plan;
    plan.wholeMessages = 500;
    QFETCH(Ending, ending);
    plan.ending = ending;
    QFETCH(Transport, transport);
    plan.transport = transport;
    QFETCH(QString, engine);
    plan.engine = engine;
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
