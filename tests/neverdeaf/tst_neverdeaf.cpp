// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "cases.h"

#include <QtTest/QtTest>

#include <functional>

/*!
    The cases of the program neverdeaf with fewer peers. That good devices are served at all, and
    how much is logged, is asserted; how long it takes is only told.
*/
class tst_NeverDeaf : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void goodDevicesAreServed_data();
    void goodDevicesAreServed();
};

// More connections than may wait at the same time. Closed ones do not count as waiting.
constexpr int Closers = 4500;

using Case = std::function<Outcome()>;
Q_DECLARE_METATYPE(Case)

void tst_NeverDeaf::goodDevicesAreServed_data()
{
    QTest::addColumn<Case>("play");
    const auto add = [](const char *cause, const Transport &transport, const Case &play) {
        QTest::addRow("%s, %s", cause, qPrintable(transport.name())) << play;
    };
    for (const Transport &transport : Transport::all()) {
        add("descriptors out", transport,
            [transport] { return NeverDeaf::descriptorsOut(transport); });
        add("no worker thread", transport,
            [transport] { return NeverDeaf::workerWithoutDescriptors(transport); });
        add("connects that close at once", transport,
            [transport] { return NeverDeaf::closersAtOnce(transport, Closers); });
        add("resets in the backlog", transport,
            [transport] { return NeverDeaf::resetsInBacklog(transport, 100); });
        add("port taken at start", transport,
            [transport] { return NeverDeaf::portTaken(transport); });
        add("slow PROXY headers", transport,
            [transport] { return NeverDeaf::slowHeaders(transport, 100); });
        add("connects that a limit refuses", transport,
            [transport] { return NeverDeaf::refusedPeers(transport, 1000); });
        add("devices that a limit has paused", transport,
            [transport] { return NeverDeaf::pausedPeers(transport, 8); });
    }
    for (const Transport &transport : Transport::tls()) {
        add("garbage handshakes", transport,
            [transport] { return NeverDeaf::garbageHandshakes(transport, 100); });
        add("silent peers", transport,
            [transport] { return NeverDeaf::silentPeers(transport, 100); });
    }
}

void tst_NeverDeaf::goodDevicesAreServed()
{
    QFETCH(Case, play);
    const Outcome outcome = play();
    QVERIFY(outcome.isServed());
    QVERIFY2(outcome.lines <= outcome.allowedLines,
             qPrintable(QStringLiteral("%1 lines, %2 allowed")
                                .arg(outcome.lines)
                                .arg(outcome.allowedLines)));
    qInfo("served in %.1f ms before, %.1f during, %.1f after; %lld log lines", outcome.before,
          outcome.during, outcome.after, static_cast<long long>(outcome.lines));
}

QTEST_GUILESS_MAIN(tst_NeverDeaf)
#include "tst_neverdeaf.moc"
