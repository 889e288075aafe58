// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/backlogwatch.h"
#include "tests/kit/hangguard.h"
#include "tests/tcpinput/connectedclient.h"

#include <QtTest/QTest>

#include <memory>

namespace {

QByteArray bytes(int size)
{
    return QByteArray(size, 'x');
}

} // namespace

class tst_BacklogWatch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { EventLog::take(); }

    void clientsThatHoldTooMuchAreChecked();
    void clientsThatAreCutInTimeAreLeftAlone();
    void clientsThatGoWhileTheyAreWatched();
    void clientsThatGoAfterTheLook();
    void laterClientsDoNotPutTheLookOff();
    void watchesAgain();
    void clientsWithoutWatchCheckThemselves();

private:
    // Waits for the watch's next look: then the last client has its timer.
    static bool looked(ConnectedClient &last)
    {
        return QTest::qWaitFor([&] { return last.client->backlogCheck().isActive(); }, HangGuardMs);
    }
};

void tst_BacklogWatch::clientsThatHoldTooMuchAreChecked()
{
    BacklogWatch watch;
    ConnectedClient few;
    ConnectedClient many;
    for (ConnectedClient *connection : {&few, &many})
        connection->client->setBacklogWatch(&watch);
    QVERIFY(few.deliver(bytes(80)));
    QVERIFY(many.deliver(bytes(81)));
    QVERIFY(!many.client->backlogCheck().isActive());

    QVERIFY(looked(many));
    QVERIFY(!few.client->backlogCheck().isActive());
    // The first check comes before anything is due, or just in time.
    QVERIFY(many.client->backlogCheck().interval() <= 2000);
}

void tst_BacklogWatch::clientsThatAreCutInTimeAreLeftAlone()
{
    BacklogWatch watch;
    ConnectedClient cut;
    ConnectedClient other;
    for (ConnectedClient *connection : {&cut, &other}) {
        connection->client->setBacklogWatch(&watch);
        QVERIFY(connection->deliver(bytes(81)));
    }
    cut.client->cutInbuf(1);

    QVERIFY(looked(other));
    QVERIFY(!cut.client->backlogCheck().isActive());
}

void tst_BacklogWatch::clientsThatGoWhileTheyAreWatched()
{
    BacklogWatch watch;
    auto going = std::make_unique<ConnectedClient>();
    ConnectedClient staying;
    for (ConnectedClient *connection : {going.get(), &staying}) {
        connection->client->setBacklogWatch(&watch);
        for (int twice = 0; twice < 2; ++twice)
            QVERIFY(connection->deliver(bytes(81)));
    }
    going.reset();
    QVERIFY(looked(staying));
}

// The watch has already forgotten these clients.
void tst_BacklogWatch::clientsThatGoAfterTheLook()
{
    BacklogWatch watch;
    auto going = std::make_unique<ConnectedClient>();
    going->client->setBacklogWatch(&watch);
    QVERIFY(going->deliver(bytes(81)));
    QVERIFY(looked(*going));
    going.reset();

    ConnectedClient next;
    next.client->setBacklogWatch(&watch);
    QVERIFY(next.deliver(bytes(81)));
    QVERIFY(looked(next));
}

void tst_BacklogWatch::laterClientsDoNotPutTheLookOff()
{
    struct Later final : BacklogWatch::Watched
    {
        void endWatch() override {}
    };
    Later later;
    BacklogWatch watch;
    ConnectedClient first;
    first.client->setBacklogWatch(&watch);
    QVERIFY(first.deliver(bytes(81)));
    QVERIFY(QTest::qWaitFor(
            [&] {
                watch.add(&later);
                return first.client->backlogCheck().isActive();
            },
            HangGuardMs));
}

void tst_BacklogWatch::watchesAgain()
{
    BacklogWatch watch;
    ConnectedClient connection;
    connection.client->setBacklogWatch(&watch);
    for (int turn = 0; turn < 2; ++turn) {
        // Two reads, but the client is watched once.
        QVERIFY(connection.deliver(bytes(81)));
        QVERIFY(connection.deliver(bytes(81)));
        QVERIFY(looked(connection));
        connection.client->backlogCheck().stop();
    }
}

void tst_BacklogWatch::clientsWithoutWatchCheckThemselves()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(81)));
    QVERIFY(connection.client->backlogCheck().isActive());
}

QTEST_GUILESS_MAIN(tst_BacklogWatch)
#include "tst_backlogwatch.moc"
