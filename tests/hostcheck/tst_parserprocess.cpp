// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/parser/parserchecks.h"
#include "tests/hostcheck/hostchecktest.h"

#include <sys/resource.h>

using namespace hostcheck;

namespace {

// The numbers of tests/hostcheck/plantedparser.cpp.
enum { LeavesProcess = 15, ClosesAndPauses, WritesWildly, UsesTime, StopsClock };

const QByteArray Message("\0\3abc", 5);

ParserProcess parserOf(int number, int timeLimitMs)
{
    return {QStringLiteral(PLANTED_DIR "/plantedparser%1.so").arg(number), timeLimitMs};
}

std::vector<Call> calls()
{
    return {{0, Message.size(), Fence::Behind}, {0, Message.size(), Fence::Before}};
}

} // namespace

//! What a parser can do to the process that calls it, and to the one that waits for it.
class tst_ParserProcess : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void waitsForNoProcessOfParser();
    void endsWhatStandsStill_data();
    void endsWhatStandsStill();
    void standsWildWrites();
    void goesByProcessorTime();
    void saysThatNoCallCanBeMade();
};

void tst_ParserProcess::waitsForNoProcessOfParser()
{
    ParserProcess parser = parserOf(LeavesProcess, HangGuardMs);
    for (const Outcome &outcome : parser.run(Message, calls())) {
        QCOMPARE(outcome.kind, Outcome::Returned);
        QCOMPARE(outcome.value, Message.size());
    }
    QCOMPARE(parser.error(), QString());
}

void tst_ParserProcess::endsWhatStandsStill_data()
{
    QTest::addColumn<int>("number");
    QTest::newRow("closes descriptors and pauses") << int(ClosesAndPauses);
    QTest::newRow("stops its clock") << int(StopsClock);
}

void tst_ParserProcess::endsWhatStandsStill()
{
    QFETCH(int, number);
    ParserProcess parser = parserOf(number, 50);
    parser.setStandstillMs(200);
    for (const Outcome &outcome : parser.run(Message, calls()))
        QCOMPARE(outcome.kind, Outcome::Endless);
}

void tst_ParserProcess::standsWildWrites()
{
    ParserProcess parser = parserOf(WritesWildly, HangGuardMs);
    for (const Outcome &outcome : parser.run(Message, calls()))
        QCOMPARE(outcome.kind, Outcome::Crashed);
    QCOMPARE(parser.error(), QString());
}

// A quarter of a second of it is more than the standstill, and less than the limit.
void tst_ParserProcess::goesByProcessorTime()
{
    ParserProcess parser = parserOf(UsesTime, HangGuardMs);
    parser.setStandstillMs(50);
    for (const Outcome &outcome : parser.run(Message, calls()))
        QCOMPARE(outcome.kind, Outcome::Returned);
}

// The bytes lie in a file in memory, which needs a descriptor.
void tst_ParserProcess::saysThatNoCallCanBeMade()
{
    Traffic traffic;
    traffic.bytes = Message;
    ParserProcess parser = parserOf(0, HangGuardMs);
    rlimit limit = {};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {0, limit.rlim_max};
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &none), 0);
    const QList<Verdict> verdicts = ParserChecks(parser, traffic).run(QRegularExpression());
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &limit), 0);
    QCOMPARE(verdicts.size(), 11);
    for (const Verdict &verdict : verdicts) {
        QCOMPARE(verdict.result, Verdict::Skipped);
        QCOMPARE(verdict.detail, parser.error());
    }
    QVERIFY(!parser.error().isEmpty());
}

QTEST_GUILESS_MAIN(tst_ParserProcess)
#include "tst_parserprocess.moc"
