// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/promptlist.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/movableclock.h"

#include <QtTest/QTest>

#include <functional>
#include <memory>

using namespace std::chrono_literals;

namespace {

//! Notes when it is called.
struct Entry final : PromptList::Waiting
{
    explicit Entry(PromptList &owner) : list(owner) {}
    ~Entry() { list.remove(*this); }
    Q_DISABLE_COPY_MOVE(Entry)

    void waitIsOver() override
    {
        ++calls;
        if (then)
            then();
    }

    PromptList &list;
    std::function<void()> then;
    int calls = 0;
};

} // namespace

class tst_PromptList : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void callsWhenTheRestIsOver();
    void neverCallsMoreThanTheDelayLate();
    void callsOnceForAll();
    void isOnTheListOnce();
    void entriesThatGo();
    void entriesThatDeleteOthers();
    void entriesThatComeBack();
    void timerCallsInTime();
};

void tst_PromptList::callsWhenTheRestIsOver()
{
    const MovableClock clock;
    PromptList list;
    Entry late(list);
    Entry early(list);
    list.add(late, 200ms);
    list.add(early, 100ms);
    MovableClock::advance(99);
    list.look();
    QCOMPARE(early.calls, 0);
    MovableClock::advance(1);
    list.look();
    QCOMPARE(early.calls, 1);
    QVERIFY(!early.due);
    QCOMPARE(late.calls, 0);
    MovableClock::advance(100);
    list.look();
    QCOMPARE(late.calls, 1);
    QCOMPARE(early.calls, 1);
}

void tst_PromptList::neverCallsMoreThanTheDelayLate()
{
    const MovableClock clock;
    PromptList list;
    for (int begin = 0; begin < 10; ++begin) {
        Entry entry(list);
        MovableClock::advance(1);
        list.add(entry, 50ms);
        MovableClock::advance(49);
        list.look();
        QCOMPARE(entry.calls, 0);
        MovableClock::advance(1 + PromptList::MostDelay.count());
        list.look();
        QCOMPARE(entry.calls, 1);
    }
}

void tst_PromptList::callsOnceForAll()
{
    const MovableClock clock;
    PromptList list;
    std::vector<std::unique_ptr<Entry>> entries;
    for (int i = 0; i < 100; ++i) {
        entries.push_back(std::make_unique<Entry>(list));
        list.add(*entries.back(), std::chrono::milliseconds(i));
    }
    MovableClock::advance(200);
    list.look();
    for (const auto &entry : entries)
        QCOMPARE(entry->calls, 1);
}

void tst_PromptList::isOnTheListOnce()
{
    const MovableClock clock;
    PromptList list;
    Entry entry(list);
    list.add(entry, 100ms);
    list.add(entry, 10ms);
    MovableClock::advance(50);
    list.look();
    QCOMPARE(entry.calls, 0);
    MovableClock::advance(50);
    list.look();
    QCOMPARE(entry.calls, 1);
}

void tst_PromptList::entriesThatGo()
{
    const MovableClock clock;
    PromptList list;
    Entry staying(list);
    {
        Entry going(list);
        list.add(going, 10ms);
        list.add(staying, 20ms);
    }
    MovableClock::advance(30);
    list.look();
    QCOMPARE(staying.calls, 1);
}

void tst_PromptList::entriesThatDeleteOthers()
{
    const MovableClock clock;
    PromptList list;
    auto other = std::make_unique<Entry>(list);
    Entry first(list);
    first.then = [&other] { other.reset(); };
    list.add(first, 10ms);
    list.add(*other, 20ms);
    MovableClock::advance(30);
    list.look();
    QVERIFY(!other);
    QCOMPARE(first.calls, 1);
}

// An entry may come back, as a connection does that was offered meanwhile and has read again.
void tst_PromptList::entriesThatComeBack()
{
    const MovableClock clock;
    PromptList list;
    Entry entry(list);
    entry.then = [&] { list.add(entry, 10ms); };
    list.add(entry, 10ms);
    for (int calls = 1; calls < 4; ++calls) {
        MovableClock::advance(15);
        list.look();
        QCOMPARE(entry.calls, calls);
    }
}

void tst_PromptList::timerCallsInTime()
{
    PromptList list;
    Entry late(list);
    Entry early(list);
    Entry never(list);
    list.add(late, 30ms);
    list.add(early, 10ms); // before the one that the timer is set to
    list.add(never, 1h);
    QVERIFY(QTest::qWaitFor([&] { return late.calls > 0 && early.calls > 0; }, HangGuardMs));
    QCOMPARE(never.calls, 0);
}

QTEST_GUILESS_MAIN(tst_PromptList)
#include "tst_promptlist.moc"
