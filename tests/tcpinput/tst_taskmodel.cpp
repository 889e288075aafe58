// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpclient2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/choices.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/movableclock.h"
#include "tests/kit/preparedserver.h"
#include "tests/kit/seeds.h"
#include "tests/tcpinput/taskmodel.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QTest>

namespace {

/*!
    Plays a row of choices to a task and to its model, step by step. There are few peers and local
    addresses, so that some ids are equal.

    Thread: the main one, which plays the worker, too.
*/
class TaskRun
{
public:
    explicit TaskRun(QByteArrayView row) : choices(row)
    {
        QObject::connect(task.get(), &TcpTask2::receivedData, task.get(),
                         [](const shared_parsedData &record) {
                             EventLog::note(TaskModel::recordText(record->getPluginSubId(),
                                                                  record->getOriginalMessage()));
                         });
    }
    Q_DISABLE_COPY_MOVE(TaskRun)

    // False if task and model differ: difference() tells.
    bool play()
    {
        while (!choices.isEmpty()) {
            step();
            if (!isAsExpected())
                return false;
        }
        note(QStringLiteral("the task is destroyed"));
        model.destroy();
        task.reset();
        return isAsExpected();
    }

    // The steps so far, and what was expected of the last one and what came.
    QString difference() const
    {
        return QStringLiteral("steps:\n  %1\nexpected:\n  %2\nactual:\n  %3")
                .arg(steps.join(QStringLiteral("\n  ")), expected.join(QStringLiteral("\n  ")),
                     actual.join(QStringLiteral("\n  ")));
    }

private:
    struct Device
    {
        QPointer<MemorySocket> socket; // null when its client has gone
        QString givenId;
        QString derivedId;
    };

    void step()
    {
        static constexpr void (TaskRun::*Steps[])() = {
                &TaskRun::add,        &TaskRun::add,       &TaskRun::add,
                &TaskRun::read,       &TaskRun::read,      &TaskRun::arriveUnseen,
                &TaskRun::deviceEnds, &TaskRun::discard,   &TaskRun::discard,
                &TaskRun::discard,    &TaskRun::idChanges, &TaskRun::turn,
                &TaskRun::turn,       &TaskRun::turn,      &TaskRun::turn,
                &TaskRun::timePasses, &TaskRun::info,      &TaskRun::logSize,
                &TaskRun::rareStep};
        (this->*Steps[choices.below(std::size(Steps))])();
    }
    void rareStep()
    {
        switch (choices.below(6)) {
        case 0:
            return stop();
        case 1:
            return addWithNothingPending();
        case 2:
            return idIsSaidToBeGone();
        default:
            return idChanges();
        }
    }

    void add()
    {
        const QHostAddress local(choices.of<quint32>({0x7f000001, 0x7f000002}));
        const QHostAddress peer(choices.of<quint32>({0x0a010203, 0x0a010204}));
        const Endpoints ends{peer, local, choices.of<quint16>({40001, 40002}), 5000};
        const quint64 number = choices.below(2) == 0 ? 0 : devices.size() + 1;
        auto *socket = new MemorySocket(ends);
        server.prepare(socket, {ends, number});

        const QString peerPart = QStringLiteral("-%1:%2").arg(peer.toString()).arg(ends.peerPort);
        Device device;
        device.socket = socket;
        device.givenId = QStringLiteral("tcp2:") + Listening + peerPart;
        device.derivedId =
                QStringLiteral("tcp2:") + local.toString() + QStringLiteral(":5000") + peerPart;
        note(QStringLiteral("device %1 connects: %2, then %3, number %4")
                     .arg(devices.size())
                     .arg(device.givenId, device.derivedId)
                     .arg(number));
        devices.push_back(device);
        model.add(socket, {ends, number}, Listening);
        task->addConnection(connectionRecord());
        // The check runs in real time, which plays no part here.
        qobject_cast<TcpClient2 *>(socket->parent())->backlogCheck().stop();
    }
    void addWithNothingPending()
    {
        note(QStringLiteral("nothing is pending"));
        model.add(nullptr, {}, Listening);
        task->addConnection(connectionRecord());
    }
    Connection connectionRecord()
    {
        Connection conn;
        conn.setLocalAddress(QHostAddress(QStringLiteral("127.0.0.2")));
        conn.setLocalPort(5000);
        conn.setTimeout(600000); // longer than any run
        conn.setTcpServer(&server);
        return conn;
    }

    std::size_t anyDevice() { return std::size_t(choices.below(int(devices.size()))); }

    void arriveUnseen()
    {
        if (devices.empty())
            return;
        const std::size_t number = anyDevice();
        note(QStringLiteral("bytes arrive from device %1").arg(number));
        const QByteArray bytes =
                QByteArray::number(streamed++) + QByteArray(choices.of({1, 15, 20, 21, 60}), 'x');
        if (MemorySocket *socket = devices[number].socket)
            socket->arrive(bytes);
        lastDevice = number;
    }
    void read()
    {
        arriveUnseen();
        if (devices.empty() || !devices[lastDevice].socket)
            return;
        note(QStringLiteral("and are read"));
        MemorySocket *socket = devices[lastDevice].socket;
        model.read(lastDevice, socket->unread());
        socket->notify();
    }
    void deviceEnds()
    {
        if (devices.empty())
            return;
        const std::size_t number = anyDevice();
        note(QStringLiteral("device %1 ends").arg(number));
        MemorySocket *socket = devices[number].socket;
        if (!socket || socket->state() != QAbstractSocket::ConnectedState)
            return;
        model.end(number);
        socket->takeIn();
        socket->arriveEnd();
        socket->notify();
    }

    QString anyId()
    {
        if (devices.empty() || choices.below(16) == 0)
            return choices.of({QString(), QStringLiteral("unknown")});
        const Device &device = devices[anyDevice()];
        return choices.below(2) == 0 ? device.givenId : device.derivedId;
    }

    void idIsSaidToBeGone()
    {
        const QString id = anyId();
        note(QStringLiteral("it is said that %1 is gone").arg(id));
        model.disconnected(id);
        task->disconnected(id);
    }
    void idChanges()
    {
        const QString oid = anyId();
        const QString id = choices.below(4) == 0 ? oid : anyId();
        note(QStringLiteral("it is said that %1 is now %2").arg(oid, id));
        model.idChanged(oid, id);
        QMetaObject::invokeMethod(task.get(), "idChanged", Q_ARG(QString, oid), Q_ARG(QString, id));
    }

    QString text(std::initializer_list<const char *> texts)
    {
        return QString::fromLatin1(choices.of(texts));
    }
    void discard()
    {
        TaskModel::SubIds subIds{{QStringLiteral("task"), QStringLiteral("0")}};
        if (choices.below(16) != 0)
            subIds.insert(QStringLiteral("client"), anyId());
        if (choices.below(3) == 0)
            subIds.insert(QStringLiteral("offset"),
                          text({"0", "3", "20", "40", "", "x", "-1", "18446744073709551615"}));
        if (choices.below(3) == 0)
            subIds.insert(QStringLiteral("connection"), text({"1", "2", "3", "0", "", "one"}));
        const int length = choices.of({0, -1, std::numeric_limits<int>::min(), 1, 5, 20, 40,
                                       std::numeric_limits<int>::max()});
        note(QStringLiteral("the host discards %1, ").arg(length)
             + TaskModel::recordText(subIds, QByteArray()));
        model.discard(length, subIds);
        task->discard(length, subIds);
    }

    void info()
    {
        note(QStringLiteral("the host asks for the status"));
        model.events += model.info();
        EventLog::note(task->getInfo());
    }
    void logSize()
    {
        note(QStringLiteral("the plugin asks for the size"));
        model.logSize(QStringLiteral("p"));
        task->logSize(QStringLiteral("p"));
    }

    void timePasses()
    {
        const auto ms = choices.of<qint64>({100, 200, 201, 2001, -500});
        note(QStringLiteral("%1 ms pass").arg(ms));
        MovableClock::advance(ms);
        model.advance(ms);
    }
    void turn()
    {
        note(QStringLiteral("queued calls are made"));
        model.turn();
        // Deletions wait for their turn: calls that were posted before them may need the clients.
        QCoreApplication::sendPostedEvents();
    }
    // stop() processes events for some real time, so only the final result is compared.
    void stop()
    {
        note(QStringLiteral("the task is stopped"));
        model.stop();
        int turns = 0;
        // The model comes first: the clients take what the sockets hold.
        for (; !model.isQuiet(); ++turns)
            model.turn();
        task->stop();
        while (turns-- > 0)
            QCoreApplication::sendPostedEvents();
    }

    void note(const QString &text) { steps += text; }

    bool isAsExpected()
    {
        expected = std::exchange(model.events, {});
        actual = EventLog::take();
        return expected == actual;
    }

    const QString Listening = QStringLiteral("127.0.0.2:5000"); // one of the local addresses

    Choices choices;
    const EventLog log;
    const MovableClock clock;
    PreparedSource server;
    TaskModel model;
    std::unique_ptr<TcpTask2> task = std::make_unique<TcpTask2>(nullptr);
    std::vector<Device> devices;
    std::size_t lastDevice = 0; // the last one from which bytes arrived
    int streamed = 0;
    QStringList steps;
    QStringList expected;
    QStringList actual;
};

} // namespace

// Random runs of a task, its registry above all, against its model; TCPINPUT_SEED repeats one.
class tst_TaskModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void doesWhatTheModelDoes();
};

void tst_TaskModel::doesWhatTheModelDoes()
{
    constexpr quint32 Runs = 2500;
    const Seeds seeds(Runs);
    for (quint32 n = 0; n < seeds.count; ++n) {
        const quint32 seed = seeds.first + n;
        const QByteArray row = Choices::random(seed);
        TaskRun run(row);
        if (!run.play())
            QFAIL(qPrintable(QStringLiteral("TCPINPUT_SEED=%1\n").arg(seed) + run.difference()));
    }
}

QTEST_GUILESS_MAIN(tst_TaskModel)
#include "tst_taskmodel.moc"
