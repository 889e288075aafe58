// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "comparison.h"
#include "figures.h"
#include "metaobjects.h"
#include "scriptwriter.h"
#include "tests/kit/seeds.h"

#include <QtTest/QtTest>

#include <openssl/ssl.h>

namespace {

constexpr int ConnectionsPerEpisode = 50;
constexpr double LongestMs = 3000; // of a script, so that the test does not take longer

CourseNames plainNames()
{
    CourseNames names;
    names.listens = names.local = QStringLiteral("127.0.0.1");
    return names;
}

// Messages, each with the pause before it and its size. The end comes endMs after the last one.
Script scriptOf(const QList<std::pair<int, int>> &msAndBytes, int endMs)
{
    Script script;
    for (const auto &[ms, bytes] : msAndBytes)
        script.messages.append({ms * 1000, bytes});
    script.endPauseUs = endMs * 1000;
    return script;
}

Course courseOf(const Script &script)
{
    return Course(script, plainNames(), Course::plannedTimes(script));
}

QStringList offersOf(const Course &course)
{
    QStringList texts;
    for (const Course::Offer &offer : course.offers)
        texts += QStringLiteral("%1: %2").arg(offer.at).arg(offer.text);
    return texts;
}

EpisodePlan planOf(const Script &script)
{
    EpisodePlan plan;
    plan.scripts.append(script);
    return plan;
}

// The trace of a connection that went exactly as planned.
Trace traceOf(const Script &script)
{
    const Course course(script, planOf(script).names(0), Course::plannedTimes(script));
    const CourseTimes times = Course::plannedTimes(script);
    const auto at = [](double ms) {
        return Clock::time_point(std::chrono::hours(1))
                + std::chrono::microseconds(static_cast<qint64>(ms * 1000));
    };
    Trace trace;
    trace.zero = at(0);
    const QString record = Course::recordText(planOf(script).names(0));
    trace.created = at(times.created);
    trace.end = at(times.end);
    for (const double message : times.messages)
        trace.messages.append(at(message));
    trace.sent = trace.received = trace.discarded = script.size();
    trace.ended = true;
    for (qsizetype i = 0; i < course.lines.size(); ++i)
        trace.lines.append({100 * i, at(0), course.lines[i]});
    for (const Course::Offer &offer : course.offers) {
        const QStringList numbers = offer.text.split(QStringLiteral(" + "));
        trace.offers.append({100 * offer.lines - 50, at(offer.at), numbers[0].toLongLong(),
                             numbers[1].toLongLong(), true, record});
    }
    return trace;
}

} // namespace

/*!
    Compares the plain plugin and the library in a few connections. Also checks that the comparison
    notices what it has to notice.
*/
class tst_Stock : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void courseOffersAsTimePasses();
    void courseFollowsTheHost();
    void courseKicksAndEnds();
    void courseKnowsWhatWasClose();
    void judgeAcceptsTheCourse();
    void judgeNotices_data();
    void judgeNotices();
    void judgeLeavesCloseCallsOpen();
    void latenessNoticesMoreThanNoise();

    void metaObjects();
    void lastRecordFollowsClosingLine_data();
    void lastRecordFollowsClosingLine();
    void episodes_data();
    void episodes();

private:
    const Script simple = scriptOf({{0, 30}, {300, 100}}, 300);
};

void tst_Stock::courseOffersAsTimePasses()
{
    Script script = scriptOf({{0, 30}, {100, 50}, {250, 1500}}, 100);
    script.further.reply = Reply::None;
    const Course course = courseOf(script);
    QCOMPARE(offersOf(course),
             QStringList({QStringLiteral("0: 0 + 30"), QStringLiteral("350: 0 + 1580"),
                          QStringLiteral("450: 0 + 1580")}));
    QCOMPARE(course.lines.mid(5),
             QStringList({QStringLiteral("D: TCP READ: 127.0.0.1:port (127.0.0.1:device)"),
                          QStringLiteral("I: TcpClient2 (tcp2:127.0.0.1:port-127.0.0.1:device): "
                                         "msgsize = 1500"),
                          QStringLiteral("D: TcpClient: closing connection "
                                         "tcp2:127.0.0.1:port-127.0.0.1:device (received 1580 "
                                         "bytes, 3 msgs)")}));
    QCOMPARE(course.offers.last().lines, course.lines.size()); // the closing line comes first
}

void tst_Stock::courseFollowsTheHost()
{
    Script script = scriptOf({{0, 100}}, 1000);
    script.answers = {{Reply::Part, 500, 0}, {Reply::Twice, 100, 0}, {Reply::TooLong, 7, 300}};
    // The first answer leaves 50 bytes, the second one cuts 5 and then 5 more. The late answer is
    // to the third offer.
    script.further.reply = Reply::None;
    const Course course = courseOf(script);
    QCOMPARE(offersOf(course),
             QStringList({QStringLiteral("0: 0 + 100"), QStringLiteral("0: 50 + 50"),
                          QStringLiteral("0: 55 + 45"), QStringLiteral("0: 60 + 40")}));
    // The late answer leaves nothing to offer at the end.
    QCOMPARE(course.lines.mid(6),
             QStringList({QStringLiteral("D: TcpClient: inbuf still 50 bytes, triggering"),
                          QStringLiteral("D: TcpClient: inbuf still 45 bytes, triggering"),
                          QStringLiteral("D: TcpClient: inbuf still 40 bytes, triggering"),
                          QStringLiteral("D: TcpClient: closing connection "
                                         "tcp2:127.0.0.1:port-127.0.0.1:device (received 100 "
                                         "bytes, 1 msgs)")}));
}

void tst_Stock::courseKicksAndEnds()
{
    Script script = scriptOf({{0, 81}}, 5000);
    script.startMs = 500; // checks come at 1500 and 3500
    script.further.reply = Reply::None;
    QCOMPARE(offersOf(courseOf(script)),
             QStringList({QStringLiteral("0: 0 + 81"), QStringLiteral("3500: 0 + 81"),
                          QStringLiteral("5000: 0 + 81")}));
    script.messages[0].bytes = 80;
    QCOMPARE(courseOf(script).offers.size(), 2);

    script.ending = Ending::IdleTimeout;
    CourseNames names = plainNames();
    names.timeoutMs = 4000;
    const Course idle(script, names, Course::plannedTimes(script));
    QCOMPARE(offersOf(idle).last(), QStringLiteral("4000: 0 + 80"));
    QCOMPARE(idle.lines[idle.lines.size() - 2], QStringLiteral("D: TcpClient: timeout"));
}

void tst_Stock::courseKnowsWhatWasClose()
{
    QCOMPARE(courseOf(scriptOf({{0, 30}, {250, 30}}, 300)).slack, 50.0); // to the 200 ms
    // Between two reads.
    QCOMPARE(courseOf(scriptOf({{0, 30}, {300, 30}, {7, 30}, {400, 30}}, 300)).slack, 7.0);
    Script script = scriptOf({{0, 30}, {300, 30}}, 300);
    script.answers = {{Reply::All, 0, 290}};
    QCOMPARE(courseOf(script).slack, 10.0); // between a cut and a read

    script = scriptOf({{0, 81}, {3400, 30}}, 300);
    script.startMs = 500; // a check at 3500 may come before the second message
    script.further.reply = Reply::None;
    QVERIFY(courseOf(script).slack < 0);
}

void tst_Stock::judgeAcceptsTheCourse()
{
    const Judge::Verdict verdict = Judge::judge(planOf(simple), 0, traceOf(simple), true);
    QVERIFY(verdict.decided);
    QCOMPARE(verdict.differences, QStringList());
}

void tst_Stock::judgeNotices_data()
{
    using Change = std::function<void(Trace &)>;
    QTest::addColumn<Change>("change");
    QTest::newRow("an offer that is missing")
            << Change([](Trace &trace) { trace.offers.removeFirst(); });
    QTest::newRow("an offer too many")
            << Change([](Trace &trace) { trace.offers.append(trace.offers.last()); });
    QTest::newRow("other bytes") << Change([](Trace &trace) { trace.offers[0].intact = false; });
    QTest::newRow("another record")
            << Change([](Trace &trace) { trace.offers[0].record += QLatin1Char('x'); });
    QTest::newRow("bytes left out") << Change([](Trace &trace) { trace.offers[1].begin += 1; });
    QTest::newRow("bytes doubled") << Change([](Trace &trace) { trace.offers[1].begin -= 1; });
    QTest::newRow("bytes that never came") << Change([](Trace &trace) { trace.received -= 1; });
    QTest::newRow("a line that is missing") << Change([](Trace &trace) { trace.lines.remove(5); });
    QTest::newRow("a line too many")
            << Change([](Trace &trace) { trace.lines.append(trace.lines.last()); });
    QTest::newRow("lines in another order")
            << Change([](Trace &trace) { trace.lines.swapItemsAt(2, 3); });
    QTest::newRow("another count") << Change([](Trace &trace) {
        trace.lines.last().text.replace(QLatin1Char('2'), QLatin1Char('3'));
    });
    QTest::newRow("an offer before its line")
            << Change([](Trace &trace) { trace.offers[0].order = trace.lines[5].order - 1; });
    QTest::newRow("a late offer") << Change(
            [](Trace &trace) { trace.offers[1].at += std::chrono::milliseconds(40); });
    QTest::newRow("no end") << Change([](Trace &trace) { trace.ended = false; });
}

void tst_Stock::judgeNotices()
{
    QFETCH(std::function<void(Trace &)>, change);
    Trace trace = traceOf(simple);
    change(trace);
    QVERIFY(!Judge::judge(planOf(simple), 0, trace, true).differences.isEmpty());
}

void tst_Stock::judgeLeavesCloseCallsOpen()
{
    Trace trace = traceOf(simple);
    trace.messages[1] -= std::chrono::milliseconds(90); // 210 ms after the first
    QVERIFY(!Judge::judge(planOf(simple), 0, trace, true).decided);

    trace = traceOf(simple);
    trace.heldUp = std::chrono::milliseconds(150);
    QVERIFY(!Judge::judge(planOf(simple), 0, trace, true).decided);

    trace = traceOf(simple);
    // The host's thread was late.
    trace.discards[1] = trace.offers[1].at + std::chrono::milliseconds(150);
    QVERIFY(!Judge::judge(planOf(simple), 0, trace, true).decided);
}

void tst_Stock::latenessNoticesMoreThanNoise()
{
    const auto later = [this](int libraryMs, int everyNth) {
        EpisodePlan plan;
        std::vector<Trace> punctual;
        std::vector<Trace> late;
        for (int i = 0; i < 1000; ++i) {
            plan.scripts.append(simple);
            punctual.push_back(traceOf(simple));
            late.push_back(punctual.back());
            if (i % everyNth == 0)
                late.back().offers[1].at += std::chrono::milliseconds(libraryMs);
        }
        Lateness lateness;
        for (int episode = 0; episode < 5; ++episode) {
            lateness.add(Lateness::Stock, plan, punctual);
            lateness.add(Lateness::StockAgain, plan, punctual);
            lateness.add(Lateness::Library, plan, late);
            lateness.endEpisode(plan);
        }
        return !lateness.findings().isEmpty();
    };
    QVERIFY(!later(0, 1));
    QVERIFY(!later(2, 1)); // the machine may cause a few milliseconds
    QVERIFY(later(200, 10));
    QVERIFY(!later(200, 1000));
    QVERIFY(!later(-1, 1)); // earlier offers are no finding
}

void tst_Stock::metaObjects()
{
    const auto stock = stockSide().library.create({});
    const auto library = librarySide().library.create({});
    QCOMPARE(methodsOf(*library), methodsOf(*stock));
}

void tst_Stock::lastRecordFollowsClosingLine_data()
{
    QTest::addColumn<bool>("queued");
    QTest::newRow("queued slot") << true;
    QTest::newRow("direct slot") << false;
}

void tst_Stock::lastRecordFollowsClosingLine()
{
    QFETCH(bool, queued);
    for (Side *side : bothSides())
        QCOMPARE(Figures::recordsBeforeClosingLine(*side, 100, queued), 0);
}

void tst_Stock::episodes_data()
{
    QTest::addColumn<bool>("spaced");
    QTest::addColumn<Ending>("ending");
    QTest::addColumn<int>("tlsVersion");
    QTest::addColumn<QString>("engine");
    QTest::addColumn<bool>("ownThreads");
    const QString own = QStringLiteral("own");
    QTest::addRow("spaced, devices end, TCP") << true << Ending::Close << 0 << QString() << true;
    QTest::addRow("spaced, devices end, TLS 1.3, shared threads")
            << true << Ending::Close << TLS1_3_VERSION << QString() << false;
    QTest::addRow("spaced, stop(), TLS 1.2")
            << true << Ending::Stop << TLS1_2_VERSION << QString() << true;
    QTest::addRow("spaced, destroyed, TCP") << true << Ending::Destroy << 0 << QString() << true;
    QTest::addRow("hasty, stop(), TLS 1.3, shared threads")
            << false << Ending::Stop << TLS1_3_VERSION << QString() << false;
    QTest::addRow("spaced, devices end, TLS 1.2, own engine")
            << true << Ending::Close << TLS1_2_VERSION << own << true;
    QTest::addRow("spaced, devices end, TLS 1.3, own engine, shared threads")
            << true << Ending::Close << TLS1_3_VERSION << own << false;
    QTest::addRow("hasty, stop(), TLS 1.3, own engine, shared threads")
            << false << Ending::Stop << TLS1_3_VERSION << own << false;
}

void tst_Stock::episodes()
{
    QFETCH(bool, spaced);
    EpisodePlan plan;
    QFETCH(Ending, ending);
    plan.ending = ending;
    QFETCH(int, tlsVersion);
    plan.tlsVersion = tlsVersion;
    QFETCH(bool, ownThreads);
    plan.ownThreads = ownThreads;
    plan.wildcard = !ownThreads;
    plan.slowLog = spaced && ownThreads;
    const quint32 first = Seeds(1).first;
    quint32 seed = first;
    while (plan.scripts.size() < ConnectionsPerEpisode) {
        const int number = int(plan.scripts.size());
        const Ending own = ending == Ending::Close ? Ending(number % 3) : ending;
        const Script script = spaced ? ScriptWriter::spaced(seed, own, plan.names(number))
                                     : ScriptWriter::hasty(seed, own);
        ++seed;
        if (!spaced || script.startMs + Course::plannedTimes(script).end < LongestMs)
            plan.scripts.append(script);
    }

    QFETCH(QString, engine);
    librarySide().engine = engine;
    Comparison comparison(QStringLiteral("TCPINPUT_SEED=%1 tst_stock").arg(first), false);
    comparison.play(plan, 0);
    qInfo("seed %u: %lld and %lld connections of %lld could be compared item by item", first,
          static_cast<long long>(comparison.stock().decided),
          static_cast<long long>(comparison.library().decided),
          static_cast<long long>(comparison.stock().connections));
    QCOMPARE(comparison.stock().connections, ConnectionsPerEpisode);
    QVERIFY(comparison.library().offers > ConnectionsPerEpisode);
    QVERIFY2(comparison.differences().isEmpty(),
             qPrintable(comparison.differences().join(QStringLiteral("\n\n"))));
}

QTEST_GUILESS_MAIN(tst_Stock)
#include "tst_stock.moc"
