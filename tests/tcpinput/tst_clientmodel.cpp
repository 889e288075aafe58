// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"
#include "tests/kit/seeds.h"
#include "tests/tcpinput/clientrun.h"
#include "tests/tcpinput/plainlink.h"

#include <QtTest/QTest>

#include <memory>
#include <utility>

namespace {

// Null if there is no difference.
QString differenceIn(const QByteArray &row, std::unique_ptr<ClientLink> link)
{
    ClientRun run(row, std::move(link));
    return run.play() ? QString() : run.difference();
}

// False if a run failed. Prints the difference itself: QVERIFY2 would cut off its end.
template<class Link>
bool playRuns(quint32 many)
{
    const Seeds seeds(many);
    for (quint32 n = 0; n < seeds.count; ++n) {
        const quint32 seed = seeds.first + n;
        const QString difference = differenceIn(Choices::random(seed), std::make_unique<Link>());
        if (difference.isNull())
            continue;
        qCritical("TCPINPUT_SEED=%u\n%s", seed, qPrintable(difference));
        return false;
    }
    return true;
}

} // namespace

// Random runs of a client against its model; TCPINPUT_SEED repeats one. Runs without a connection
// are faster, so there are many more of them.
class tst_ClientModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void withoutConnection();
    void plainConnection();
};

void tst_ClientModel::withoutConnection()
{
    QVERIFY(playRuns<MemoryLink>(2500));
}

void tst_ClientModel::plainConnection()
{
    QVERIFY(playRuns<PlainLink>(400));
}

// With the event loop that clients have in a worker thread.
int main(int argc, char *argv[])
{
    QCoreApplication::setEventDispatcher(EpollEventDispatcher::create().release());
    QCoreApplication application(argc, argv);
    tst_ClientModel test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_clientmodel.moc"
