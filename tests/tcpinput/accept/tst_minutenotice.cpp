// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/minutenotice.h"
#include "tests/kit/hangguard.h"

#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

class tst_MinuteNotice : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void firstAtOnce();
    void othersWhenTheMinuteIsOver();
    void finishTellsTheRest();
};

void tst_MinuteNotice::firstAtOnce()
{
    MinuteNotice notice;
    const QSignalSpy due(&notice, &MinuteNotice::due);
    notice.add(QStringLiteral("a"));
    QCOMPARE(due.size(), 1);
    QCOMPARE(due.last(), QVariantList({quint64(1), QStringLiteral("a")}));
    notice.add(QStringLiteral("b"));
    QCOMPARE(due.size(), 1);
}

void tst_MinuteNotice::othersWhenTheMinuteIsOver()
{
    constexpr int MinuteMs = 50;
    MinuteNotice notice(MinuteMs);
    const QSignalSpy due(&notice, &MinuteNotice::due);
    QElapsedTimer sinceFirst;
    sinceFirst.start();
    notice.add(QStringLiteral("a"));
    notice.add(QStringLiteral("b"));
    notice.add(QStringLiteral("c"));
    QCOMPARE(due.size(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(due.size(), 2, HangGuardMs);
    QVERIFY(sinceFirst.elapsed() >= MinuteMs * 95 / 100); // the timer is a coarse one
    QCOMPARE(due.last(), QVariantList({quint64(2), QStringLiteral("c")}));
    // No others come for a minute. The next one then counts as a first one again.
    MinuteNotice fence(MinuteMs);
    const QSignalSpy passed(&fence, &MinuteNotice::due);
    fence.add({});
    fence.add({});
    QTRY_COMPARE_WITH_TIMEOUT(passed.size(), 2, HangGuardMs);
    QCOMPARE(due.size(), 2);
    notice.add(QStringLiteral("d"));
    QCOMPARE(due.size(), 3);
    QCOMPARE(due.last(), QVariantList({quint64(1), QStringLiteral("d")}));
}

void tst_MinuteNotice::finishTellsTheRest()
{
    MinuteNotice notice;
    const QSignalSpy due(&notice, &MinuteNotice::due);
    notice.finish();
    QCOMPARE(due.size(), 0);
    notice.add(QStringLiteral("a"));
    notice.add(QStringLiteral("b"));
    notice.finish();
    QCOMPARE(due.size(), 2);
    QCOMPARE(due.last(), QVariantList({quint64(1), QStringLiteral("b")}));
    notice.finish();
    QCOMPARE(due.size(), 2);
    notice.add(QStringLiteral("c"));
    QCOMPARE(due.size(), 3);
}

QTEST_GUILESS_MAIN(tst_MinuteNotice)
#include "tst_minutenotice.moc"
