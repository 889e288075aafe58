// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/tcpclient2.h"
#include "tests/kit/choices.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/movableclock.h"
#include "tests/tcpinput/clientlink.h"
#include "tests/tcpinput/clientmodel.h"
#include "tests/tcpinput/clientprobes.h"
#include "tests/tcpinput/memorylink.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QTimerEvent>

#include <algorithm>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

/*!
    Plays a row of choices to a client and to its model, step by step: bytes arrive, the host
    answers, also from within an offer, time passes, timers fire, either side ends the connection.
    After each step both must have done the same.

    Thread: the main one. No event loop runs meanwhile, except for the turns that the link makes.
*/
class ClientRun
{
public:
    explicit ClientRun(QByteArrayView row,
                       std::unique_ptr<ClientLink> given = std::make_unique<MemoryLink>())
        : choices(row),
          kind(choices.below(4)),
          host(choices.below(64)),
          givenId(host % 4 == 0 ? ClientModel::foundId(given->endpoints) : QStringLiteral("given")),
          link(std::move(given))
    {
        client = std::make_unique<TcpClient2>(nullptr, givenId, link->socket(), IdleTimeoutMs);
        if (stamped)
            client->stampOffers(1);
        if (watched)
            client->setBacklogWatch(&watch);
        model.hasWatch = watched;
        connectClient();
        EventLog::take();
    }
    Q_DISABLE_COPY_MOVE(ClientRun)

    // False if client and model differ: difference() tells.
    bool play()
    {
        while (!choices.isEmpty()) {
            if (!step())
                return false;
        }
        posted.clear();
        client.reset();
        watchLooks(); // the watch must have forgotten the client
        return true;
    }

    // The steps so far, and what was expected of the last one and what came.
    QString difference() const
    {
        return QStringLiteral("steps:\n  %1\nexpected:\n  %2\nactual:\n  %3")
                .arg(steps.join(QStringLiteral("\n  ")), expected.join(QStringLiteral("\n  ")),
                     actual.join(QStringLiteral("\n  ")));
    }

private:
    static constexpr int IdleTimeoutMs = 600000; // longer than any run

    void connectClient()
    {
        QObject::connect(client.get(), &TcpClient2::idChanged, client.get(),
                         [this](const QString &oid, const QString &id) {
                             EventLog::note(ClientModel::idChangedText(oid, id));
                             if (stopsAtNewId)
                                 client->mdisconnected();
                         });
        QObject::connect(client.get(), &TcpClient2::readyRead, client.get(),
                         [this](const Connection &c, const QString &id) {
                             EventLog::note(ClientModel::offerText(id, c.getData()));
                             if (stamped)
                                 EventLog::note(ClientModel::positionText(client->offerPosition()));
                             if (clientAnswers > 0) {
                                 --clientAnswers;
                                 answerOffer(c.getData().size());
                             }
                         });
        QObject::connect(
                client.get(), &TcpClient2::disconnected, client.get(),
                [](const QString &id) { EventLog::note(ClientModel::disconnectedText(id)); });
    }

    bool step()
    {
        takeIdleRestart(*client); // so that a restart in this step shows
        model.idleTimerRuns = false;
        static constexpr void (ClientRun::*Steps[])() = {&ClientRun::bytesArriveAndAreRead,
                                                         &ClientRun::bytesArriveAndAreRead,
                                                         &ClientRun::bytesArriveAndAreRead,
                                                         &ClientRun::bytesArrive,
                                                         &ClientRun::eventLoopTurns,
                                                         &ClientRun::bytesAreHeldBack,
                                                         &ClientRun::bytesAreAnnounced,
                                                         &ClientRun::hostAnswers,
                                                         &ClientRun::hostAnswers,
                                                         &ClientRun::hostAnswersInItsThread,
                                                         &ClientRun::hostAnswersWithPosition,
                                                         &ClientRun::cutsAreCarriedOut,
                                                         &ClientRun::cutsAreCarriedOut,
                                                         &ClientRun::timePasses,
                                                         &ClientRun::timePasses,
                                                         &ClientRun::timePasses,
                                                         &ClientRun::checkTimerFires,
                                                         &ClientRun::checkTimerFires,
                                                         &ClientRun::rareStep};
        (this->*Steps[choices.below(std::size(Steps))])();
        return isAsExpected();
    }

    // These steps are rare: most runs would be short otherwise.
    void rareStep()
    {
        switch (choices.below(8)) {
        case 0:
            return peerEnds();
        case 1:
            return idleTimerFires();
        case 2:
            return taskStops();
        case 3:
            return theWatchLooks();
        case 4:
            return choices.below(2) == 0 ? neighbourComes() : neighbourGoes();
        case 5:
            return hostWillAnswerOffers();
        default:
            return clockIsSet();
        }
    }

    void bytesArrive()
    {
        const std::vector<int> &sizes = link->sizes();
        const qsizetype size = sizes[std::size_t(choices.below(int(sizes.size())))];
        const qsizetype count = std::min(size, link->room());
        note(QStringLiteral("%1 bytes arrive").arg(count));
        if (!model.isOpen || peerEnded)
            return;
        QByteArray bytes(count, Qt::Uninitialized);
        for (char &byte : bytes)
            byte = static_cast<char>((streamed++ * 2654435761U) >> 24U); // hardly repeats itself
        if (!link->arrive(bytes))
            EventLog::note(QStringLiteral("they do not arrive"));
    }
    void bytesArriveAndAreRead()
    {
        bytesArrive();
        eventLoopTurns();
    }
    void eventLoopTurns()
    {
        note(QStringLiteral("the socket looks"));
        if (!model.isOpen)
            return;
        if (link->turnMakesCalls())
            makeModelsCalls();
        const QByteArray next = link->nextRead();
        if (link->turn())
            model.read(next);
        else if (peerEnded)
            model.end(next);
    }
    // The socket may hold bytes that nobody was told of, as after it was detached from its thread.
    void bytesAreHeldBack()
    {
        note(QStringLiteral("the socket keeps to itself what it has"));
        if (model.isOpen)
            link->holdBack();
    }
    void bytesAreAnnounced()
    {
        note(QStringLiteral("what the socket has is announced"));
        if (!model.isOpen)
            return;
        const QByteArray all = link->unread();
        if (link->look())
            model.read(all);
        else if (peerEnded)
            model.end(all);
    }

    int anyLength()
    {
        const int size = static_cast<int>(model.buffer.size());
        return choices.of({0, -1, std::numeric_limits<int>::min(), 1, 2, size / 2, size / 3,
                           size - 81, size - 80, size - 22, size - 21, size - 20, size - 19,
                           size - 1, size, size, size + 1, std::numeric_limits<int>::max()});
    }
    quint64 anyPosition()
    {
        const quint64 front = model.position;
        const auto size = static_cast<quint64>(model.buffer.size());
        return choices.of<quint64>({0, front, front - std::min<quint64>(front, 1), front + 1,
                                    front + size / 2, front + size - std::min<quint64>(size, 21),
                                    front + size - std::min<quint64>(size, 20), front + size,
                                    front + size + 1, std::numeric_limits<quint64>::max()});
    }

    void hostAnswers()
    {
        const int length = anyLength();
        note(QStringLiteral("the host discards %1").arg(length));
        client->discard(length);
        modelDiscards(length);
    }
    void hostAnswersWithPosition()
    {
        const quint64 position = anyPosition();
        note(QStringLiteral("the host discards up to %1").arg(position));
        client->discardTo(position);
        modelDiscardsTo(position);
    }
    // The host answers in a thread of its own, as hosts do.
    void hostAnswersInItsThread()
    {
        const int length = anyLength();
        note(QStringLiteral("the host discards %1, in its own thread").arg(length));
        discardInAnotherThread(length);
        modelDiscardsAtOnce(length);
    }
    void discardInAnotherThread(int length)
    {
        std::thread([this, length] { client->discard(length); }).join();
    }

    void modelDiscards(int length)
    {
        postCut([this, length] { model.cut(length); });
    }
    void modelDiscardsTo(quint64 position)
    {
        if (position > model.position)
            postCut([this, position] { model.cutTo(position); });
    }
    // A cut that leaves nothing to offer is made at once, unless earlier cuts are on their way.
    void modelDiscardsAtOnce(int length)
    {
        const qsizetype left = model.buffer.size() - std::max(length, 0);
        if (postedCuts == 0 && left >= 0 && left <= 20)
            model.cutAhead(length);
        else
            modelDiscards(length);
    }

    // The host will answer the next few offers from within them.
    void hostWillAnswerOffers()
    {
        answer = choices.of({Answer::Cut, Answer::CutTo, Answer::CutInItsThread, Answer::Stop});
        answerLeaves = choices.of<qsizetype>({0, 0, 20, 21, 100});
        clientAnswers = modelAnswers = choices.of({1, 2, 3, 8});
        note(QStringLiteral("the host will answer %1 offers, way %2, and leave %3 bytes")
                     .arg(clientAnswers)
                     .arg(int(answer))
                     .arg(answerLeaves));
    }
    int answerLength(qsizetype offered) const
    {
        return static_cast<int>(std::max<qsizetype>(offered - answerLeaves, 0));
    }
    void answerOffer(qsizetype size)
    {
        const int length = answerLength(size);
        switch (answer) {
        case Answer::Cut:
            return client->discard(length);
        case Answer::CutTo:
            return client->discardTo(client->offerPosition() + quint64(length));
        case Answer::CutInItsThread:
            return discardInAnotherThread(length);
        case Answer::Stop:
            return client->mdisconnected();
        }
    }
    void modelOffered()
    {
        if (modelAnswers == 0)
            return;
        --modelAnswers;
        const int length = answerLength(model.buffer.size());
        switch (answer) {
        case Answer::Cut:
            return modelDiscards(length);
        case Answer::CutTo:
            return modelDiscardsTo(model.position + quint64(length));
        case Answer::CutInItsThread:
            return modelDiscardsAtOnce(length);
        case Answer::Stop:
            return model.end(takeRest());
        }
    }

    void postCut(const std::function<void()> &cut)
    {
        ++postedCuts;
        posted.emplace_back([this, cut] {
            cut();
            --postedCuts;
        });
    }
    void cutsAreCarriedOut()
    {
        note(QStringLiteral("queued calls are made"));
        // The model comes first: it looks at the socket, which the client may close.
        makeModelsCalls();
        QCoreApplication::sendPostedEvents(client.get(), QEvent::MetaCall);
    }

    // Calls that these calls add wait for the next time.
    void makeModelsCalls()
    {
        for (const auto &call : std::exchange(posted, {}))
            call();
    }

    void timePasses()
    {
        advance(choices.of<qint64>(
                {1, 50, 100, 101, 199, 200, 201, 1000, 1800, 1999, 2000, 2001, 3'600'000}));
    }
    void clockIsSet() { advance(choices.of<qint64>({-1, -201, -2001, -3'600'000, 86'400'000})); }
    void advance(qint64 ms)
    {
        note(QStringLiteral("%1 ms pass").arg(ms));
        MovableClock::advance(ms);
        model.advance(ms);
    }

    void checkTimerFires()
    {
        note(QStringLiteral("the check timer fires"));
        model.check(); // first, as above
        client->backlogCheck().stop(); // a single-shot timer has stopped when it fires
        QMetaObject::invokeMethod(&client->backlogCheck(), "timeout");
    }
    void idleTimerFires()
    {
        note(QStringLiteral("the idle timer fires"));
        QMetaObject::invokeMethod(&client->idleTimer(), "timeout");
        posted.emplace_back([this] { model.timeOut(takeRest()); });
    }

    void peerEnds()
    {
        note(QStringLiteral("the peer ends"));
        if (!std::exchange(peerEnded, true) && model.isOpen)
            link->end(choices);
    }
    void taskStops()
    {
        note(QStringLiteral("the task stops"));
        model.end(takeRest());
        client->mdisconnected();
    }
    // What the task's end still gets from the socket. Only once: one end may come within another
    // one.
    QByteArray takeRest() { return std::exchange(restTaken, true) ? QByteArray() : link->unread(); }

    // The clients of a thread share one watch.
    void neighbourComes()
    {
        note(QStringLiteral("another client is watched"));
        auto neighbour = std::make_unique<Neighbour>();
        neighbour->place = watch.add(neighbour.get());
        neighbours.push_back(std::move(neighbour));
        watchRuns = true;
    }
    void neighbourGoes()
    {
        note(QStringLiteral("another client goes"));
        if (neighbours.empty())
            return;
        watch.remove(neighbours.front()->place);
        neighbours.pop_front();
    }
    void theWatchLooks()
    {
        note(QStringLiteral("the watch looks"));
        watchLooks();
        model.watchLooks();
    }
    void watchLooks()
    {
        if (!watch.isRunning())
            return;
        watch.look();
        neighbours.clear(); // the watch has forgotten them
        watchRuns = false;
    }

    void note(const QString &text) { steps += text; }

    bool isAsExpected()
    {
        watchRuns = watchRuns || model.isWatched;
        expected = std::exchange(model.events, {});
        expected += timerTexts(model.idleTimerRuns, model.checkTimerRuns, watchRuns);
        actual = EventLog::take();
        // Leave out Qt's warning of the surplus argument in a kick's line.
        actual.removeIf([](const QString &line) {
            return line.startsWith(QLatin1String("w: QString::arg: "));
        });
        actual += timerTexts(takeIdleRestart(*client) && client->idleTimer().isActive(),
                             client->backlogCheck().isActive(), watch.isRunning());
        return expected == actual;
    }
    static QStringList timerTexts(bool idle, bool check, bool look)
    {
        return {idle ? QStringLiteral("the idle time-out begins anew") : QString(),
                check ? QStringLiteral("the check timer runs") : QString(),
                look ? QStringLiteral("the watch will look") : QString()};
    }

    //! What the host does from within an offer.
    enum class Answer { Cut, CutTo, CutInItsThread, Stop };

    //! Another client of the same watch.
    struct Neighbour final : BacklogWatch::Watched
    {
        void endWatch() override {}
        BacklogWatch::Place place = BacklogWatch::None;
    };

    //! Tells the run of its offers, from within them.
    class Model final : public ClientModel
    {
    public:
        explicit Model(ClientRun &owner)
            : ClientModel(owner.givenId, owner.link->endpoints, owner.stamped, Clock::now()),
              run(owner)
        {}

    private:
        void offered() override
        {
            ClientModel::offered();
            run.modelOffered();
        }
        void idFound(const QByteArray &bytes) override
        {
            if (run.stopsAtNewId && id != run.givenId)
                end(bytes + run.takeRest());
        }

        ClientRun &run;
    };

    Choices choices;
    const int kind; // of the client
    const bool stamped = kind % 2 == 1;
    const bool watched = kind / 2 == 1; // false: it checks its backlog by itself
    const int host; // the kind of host
    const bool stopsAtNewId = host / 4 == 0; // from within idChanged()
    const QString givenId; // now and then the id that the client will derive
    const std::unique_ptr<ClientLink> link;
    const EventLog log;
    const MovableClock clock;
    Model model{*this};
    BacklogWatch watch;
    std::deque<std::unique_ptr<Neighbour>> neighbours; // those that the watch has not looked at yet
    bool watchRuns = false; // since something was added to it
    std::unique_ptr<TcpClient2> client;

    std::vector<std::function<void()>> posted; // calls that wait in the client's queue
    int postedCuts = 0; // cuts among them
    quint64 streamed = 0;
    bool peerEnded = false;
    bool restTaken = false;
    Answer answer = Answer::Cut;
    qsizetype answerLeaves = 0;
    // Answers still to come: to the client's offers, and to the model's.
    int clientAnswers = 0;
    int modelAnswers = 0;
    QStringList steps;
    QStringList expected;
    QStringList actual;
};
