// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/tcpclient2.h"
#include "tests/choices.h"
#include "tests/clientinside.h"
#include "tests/clientmodel.h"
#include "tests/eventlog.h"
#include "tests/memorysocket.h"
#include "tests/movableclock.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QPointer>

#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

/*!
    Plays a row of choices to a client and to the model of one, step by step: bytes arrive, the
    host answers, time passes, timers fire, either side ends the connection. What both do must be
    the same after each step.

    Thread: the main one; no event loop runs meanwhile.
*/
class ClientRun
{
public:
    explicit ClientRun(QByteArrayView row)
        : choices(row),
          stamped(choices.below(2) == 1),
          givenId(choices.below(4) == 0 ? QStringLiteral("tcp2:192.168.0.10:5000-10.1.2.3:40001")
                                        : QStringLiteral("given"))
    {
        client = std::make_unique<TcpClient2>(nullptr, givenId, socket, IdleTimeoutMs);
        if (stamped)
            client->stampOffers(1);
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
                         [](const QString &oid, const QString &id) {
                             EventLog::note(ClientModel::idChangedText(oid, id));
                         });
        QObject::connect(client.get(), &TcpClient2::readyRead, client.get(),
                         [this](const Connection &c, const QString &id) {
                             EventLog::note(ClientModel::offerText(id, c.getData()));
                             if (stamped)
                                 EventLog::note(ClientModel::positionText(client->offerPosition()));
                         });
        QObject::connect(
                client.get(), &TcpClient2::disconnected, client.get(),
                [](const QString &id) { EventLog::note(ClientModel::disconnectedText(id)); });
    }

    bool step()
    {
        takeIdleRestart(*client); // so that another one is seen
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

    // One in a while: most runs would be short otherwise.
    void rareStep()
    {
        switch (choices.below(8)) {
        case 0:
            return peerEnds();
        case 1:
            return idleTimerFires();
        case 2:
            return taskStops();
        default:
            return clockIsSet();
        }
    }

    void bytesArrive()
    {
        const int count = choices.of({1,  2,  3,   19,  20,   21,   22,   40,    60,    79,   80,
                                      81, 82, 100, 999, 1000, 1001, 4096, 16384, 16385, 70000});
        note(QStringLiteral("%1 bytes arrive").arg(count));
        if (!model.isOpen || peerEnded)
            return;
        QByteArray bytes(count, Qt::Uninitialized);
        for (char &byte : bytes)
            byte = static_cast<char>((streamed++ * 2654435761U) >> 24U); // hardly repeats itself
        socket->arrive(bytes);
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
        const QByteArray unread = socket->unread();
        if (socket->notify())
            model.read(unread);
        else if (peerEnded)
            model.end(unread);
    }
    // As a socket that was detached from its thread may hold bytes that nobody was told of.
    void bytesAreHeldBack()
    {
        note(QStringLiteral("the socket keeps to itself what it has"));
        if (model.isOpen)
            socket->takeIn();
    }
    void bytesAreAnnounced()
    {
        note(QStringLiteral("what the socket has is announced"));
        if (!model.isOpen)
            return;
        socket->takeIn();
        const QByteArray unread = socket->unread();
        Q_EMIT socket->readyRead();
        model.read(unread);
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
        postCut([this, length] { model.cut(length); });
    }
    void hostAnswersWithPosition()
    {
        const quint64 position = anyPosition();
        note(QStringLiteral("the host discards up to %1").arg(position));
        client->discardTo(position);
        if (position > model.position)
            postCut([this, position] { model.cutTo(position); });
    }
    // As hosts do. What leaves nothing to be offered is cut at once then, unless cuts that came
    // before are on their way.
    void hostAnswersInItsThread()
    {
        const int length = anyLength();
        note(QStringLiteral("the host discards %1, in its own thread").arg(length));
        std::thread([this, length] { client->discard(length); }).join();
        const qsizetype left = model.buffer.size() - std::max(length, 0);
        if (postedCuts == 0 && left >= 0 && left <= 20)
            model.cut(length);
        else
            postCut([this, length] { model.cut(length); });
    }
    void postCut(const std::function<void()> &cut)
    {
        ++postedCuts;
        posted.push_back([this, cut] {
            cut();
            --postedCuts;
        });
    }
    void cutsAreCarriedOut()
    {
        note(QStringLiteral("queued calls are made"));
        // The model first: it looks at the socket, which the client may close.
        for (const auto &call : std::exchange(posted, {}))
            call();
        QCoreApplication::sendPostedEvents(client.get(), QEvent::MetaCall);
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
        QMetaObject::invokeMethod(&checkTimerOf(*client), "timeout");
        model.check();
    }
    void idleTimerFires()
    {
        note(QStringLiteral("the idle timer fires"));
        QMetaObject::invokeMethod(&idleTimerOf(*client), "timeout");
        posted.push_back([this] { model.timeOut(unread()); });
    }

    void peerEnds()
    {
        note(QStringLiteral("the peer ends"));
        peerEnded = true;
        if (model.isOpen)
            socket->arriveEnd();
    }
    void taskStops()
    {
        note(QStringLiteral("the task stops"));
        const QByteArray rest = unread();
        client->mdisconnected();
        model.end(rest);
    }

    QByteArray unread() const { return socket ? socket->unread() : QByteArray(); }

    void note(const QString &text) { steps += text; }

    bool isAsExpected()
    {
        expected = std::exchange(model.events, {});
        expected += timerText(model.idleTimerRuns);
        actual = EventLog::take();
        // Qt's warning of the surplus argument of a kick's line.
        actual.removeIf([](const QString &line) {
            return line.startsWith(QLatin1String("w: QString::arg: "));
        });
        actual += timerText(takeIdleRestart(*client) && idleTimerOf(*client).isActive());
        return expected == actual;
    }
    static QString timerText(bool runs)
    {
        return runs ? QStringLiteral("the idle time-out begins anew") : QString();
    }

    Choices choices;
    const bool stamped;
    const QString givenId; // now and then what the client will find out
    const Endpoints endpoints{QHostAddress(QStringLiteral("10.1.2.3")),
                              QHostAddress(QStringLiteral("192.168.0.10")), 40001, 5000};
    const EventLog log;
    const MovableClock clock;
    const QPointer<MemorySocket> socket = new MemorySocket({endpoints, 0}); // the client's
    ClientModel model{givenId, endpoints, stamped, Clock::now()};
    std::unique_ptr<TcpClient2> client;

    std::vector<std::function<void()>> posted; // calls that wait in the client's queue
    int postedCuts = 0; // among them
    quint64 streamed = 0;
    bool peerEnded = false;
    QStringList steps;
    QStringList expected;
    QStringList actual;
};
