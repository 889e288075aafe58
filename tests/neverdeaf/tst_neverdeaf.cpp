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
    for (const bool tls : {false, true}) {
        const char *const transport = tls ? "TLS" : "TCP";
        QTest::addRow("descriptors out, %s", transport)
                << Case([tls] { return NeverDeaf::descriptorsOut(tls); });
        QTest::addRow("no worker thread, %s", transport)
                << Case([tls] { return NeverDeaf::workerWithoutDescriptors(tls); });
        QTest::addRow("connects that close at once, %s", transport)
                << Case([tls] { return NeverDeaf::closersAtOnce(tls, Closers); });
        QTest::addRow("resets in the backlog, %s", transport)
                << Case([tls] { return NeverDeaf::resetsInBacklog(tls, 100); });
        QTest::addRow("port taken at start, %s", transport)
                << Case([tls] { return NeverDeaf::portTaken(tls); });
        QTest::addRow("slow PROXY headers, %s", transport)
                << Case([tls] { return NeverDeaf::slowHeaders(tls, 100); });
        QTest::addRow("connects that a limit refuses, %s", transport)
                << Case([tls] { return NeverDeaf::refusedPeers(tls, 1000); });
        QTest::addRow("devices that a limit has paused, %s", transport)
                << Case([tls] { return NeverDeaf::pausedPeers(tls, 8); });
    }
    QTest::addRow("garbage handshakes") << Case([] { return NeverDeaf::garbageHandshakes(100); });
    QTest::addRow("silent peers") << Case([] { return NeverDeaf::silentPeers(100); });
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
